#include "multistatus.h"

#include <charconv>
#include <utility>

#include "kro/str.h"

namespace quarn2::webdav {

namespace {

constexpr std::string_view kDav = "DAV:";
constexpr int kMultistatus = 207;
// The maximum size of the ignored body of a successful response with a status other than 207, for
// example an HTML page.
constexpr std::size_t kMaxIgnoredBytes = 16UL * 1024 * 1024;

// Returns the number in the text, or -1 if the text is not a number.
std::int64_t Number(std::string_view text) {
    const std::string_view digits = str::Trimmed(text);
    std::int64_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, number);
    return result.ec == std::errc() && result.ptr == end && number >= 0 ? number : -1;
}

bool IsGood(int status) { return status == 0 || (status >= 200 && status < 300); }

}  // namespace

int StatusOfLine(std::string_view line) {
    const std::string_view text = str::Trimmed(line);
    const std::size_t blank = text.find(' ');
    if (blank == std::string_view::npos) return 0;
    constexpr std::size_t kDigits = 3;
    const std::int64_t status = Number(text.substr(blank + 1, kDigits));
    return status < 100 ? 0 : static_cast<int>(status);
}

MultistatusSink::MultistatusSink(std::string what, Take take)
    : what_(std::move(what)), limit_(what_), take_(std::move(take)) {}

void MultistatusSink::Begin(const net::HttpReply& reply) {
    if (reply.status == kMultistatus)
        reader_ = std::make_unique<net::XmlReader>(what_, static_cast<net::XmlHandler&>(*this));
}

void MultistatusSink::Write(std::span<const std::byte> bytes) {
    if (reader_ != nullptr) return reader_->Feed(bytes);
    ignored_ += bytes.size();
    if (ignored_ > kMaxIgnoredBytes) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, what_ + ": the response is too long");
    }
}

void MultistatusSink::Finish() {
    if (reader_ != nullptr) reader_->Finish();
}

void MultistatusSink::Open(std::string_view space, std::string_view name) {
    if (space != kDav) return;
    if (name == "response") {
        in_response_ = true;
        entry_ = DavEntry();
    } else if (name == "propstat") {
        in_properties_ = true;
        properties_ = DavEntry();
        properties_status_ = 0;
    } else if (name == "resourcetype") {
        in_type_ = true;
    }
}

void MultistatusSink::Close(std::string_view space, std::string_view name,
                            const std::string& text) {
    if (space != kDav || !in_response_) return;
    if (name == "response") {
        in_response_ = false;
        limit_.Count(entry_.href.size());
        take_(entry_);
    } else if (name == "propstat") {
        EndProperties();
    } else if (in_properties_) {
        HandleProperty(name, text);
    } else if (name == "href" && entry_.href.empty()) {
        entry_.href = str::Trimmed(text);
    } else if (name == "status") {
        entry_.status = StatusOfLine(text);
    }
}

void MultistatusSink::HandleProperty(std::string_view name, const std::string& text) {
    if (name == "status") {
        properties_status_ = StatusOfLine(text);
    } else if (name == "resourcetype") {
        in_type_ = false;
    } else if (name == "collection" && in_type_) {
        properties_.is_collection = true;
    } else if (name == "getcontentlength") {
        properties_.length = Number(text);
    } else if (name == "getlastmodified") {
        properties_.modified = str::Trimmed(text);
    } else if (name == "quota-available-bytes") {
        properties_.available = Number(text);
    }
}

// Ends a group of properties. A response contains several groups, each with one status. Ignores a
// group with an error status, which contains the properties that the resource does not have.
void MultistatusSink::EndProperties() {
    in_properties_ = false;
    in_type_ = false;
    if (!IsGood(properties_status_)) return;
    entry_.is_collection = entry_.is_collection || properties_.is_collection;
    if (properties_.length >= 0) entry_.length = properties_.length;
    if (!properties_.modified.empty()) entry_.modified = properties_.modified;
    if (properties_.available >= 0) entry_.available = properties_.available;
}

}  // namespace quarn2::webdav
