#include "net/xml.h"

#include <expat.h>

#include <exception>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "kro/kro_err.h"

namespace quarn2::net {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr char kSeparator = '\n';
constexpr std::size_t kMaxDepth = 64;
constexpr std::size_t kMaxTextBytes = 1024UL * 1024;
// Limits for the memory that expat uses: it buffers incomplete tokens (a tag, a comment) and keeps
// every element and attribute name that it has parsed.
constexpr std::size_t kMaxTokenBytes = 4UL * 1024 * 1024;
constexpr std::size_t kMaxNames = 1000;
constexpr std::size_t kMaxAnswerBytes = 512UL * 1024 * 1024;

// Splits a qualified name of expat, "URI<separator>NAME", into URI and name. The URI is empty for a
// name without a namespace.
std::pair<std::string_view, std::string_view> SpaceAndName(const char* text) {
    const std::string_view whole = text;
    const std::size_t end = whole.rfind(kSeparator);
    if (end == std::string_view::npos) return {std::string_view(), whole};
    return {whole.substr(0, end), whole.substr(end + 1)};
}

}  // namespace

class XmlReader::Parser {
  public:
    Parser(std::string what, XmlHandler& handler)
        : what_(std::move(what)),
          handler_(handler),
          parser_(XML_ParserCreateNS("UTF-8", kSeparator)) {
        if (parser_ == nullptr) throw std::bad_alloc();
        XML_SetUserData(parser_, this);
        XML_SetElementHandler(parser_, OnOpen, OnClose);
        XML_SetCharacterDataHandler(parser_, OnText);
        XML_SetStartNamespaceDeclHandler(parser_, OnPrefix);
        XML_SetStartDoctypeDeclHandler(parser_, OnDoctype);
    }

    ~Parser() { XML_ParserFree(parser_); }
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    void Parse(std::span<const std::byte> bytes, bool is_final) {
        constexpr std::size_t kBlockSize = 1024UL * 1024;
        do {
            const auto piece = bytes.first(std::min(bytes.size(), kBlockSize));
            bytes = bytes.subspan(piece.size());
            ParsePiece(piece, is_final && bytes.empty());
        } while (!bytes.empty());
    }

  private:
    void ParsePiece(std::span<const std::byte> piece, bool is_final) {
        fed_ += piece.size();
        if (fed_ - understood_ > kMaxTokenBytes + piece.size())
            ThrowInvalid("a tag or comment is too long");
        if (fed_ > kMaxAnswerBytes) ThrowInvalid("the document is too long");
        const XML_Status status =
            XML_Parse(parser_, reinterpret_cast<const char*>(piece.data()),
                      static_cast<int>(piece.size()), is_final ? XML_TRUE : XML_FALSE);
        if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
        if (status == XML_STATUS_OK) return;
        throw Error(Kind::kUnavailable, what_ + ": invalid XML response: " +
                                            XML_ErrorString(XML_GetErrorCode(parser_)));
    }

    // Calls `action` inside an expat callback. An exception must not propagate into the C library,
    // so it is stored here; ParsePiece() rethrows it.
    template <class Action>
    void Guarded(const Action& action) noexcept {
        if (thrown_) return;
        try {
            action();
        } catch (...) {
            thrown_ = std::current_exception();
            XML_StopParser(parser_, XML_FALSE);
        }
    }

    void ThrowInvalid(const char* why) const {
        throw Error(Kind::kUnavailable, what_ + ": invalid XML response: " + why);
    }

    void Meet(const char* name) {
        if (names_.contains(name)) return;
        if (names_.size() >= kMaxNames) ThrowInvalid("too many different names");
        names_.emplace(name);
    }

    static void OnOpen(void* data, const char* name, const char** attributes) {
        auto* const self = static_cast<Parser*>(data);
        self->understood_ = self->fed_;
        self->Guarded([self, name, attributes] {
            self->Meet(name);
            // `attributes` contains the names and the values alternately.
            for (const char** at = attributes; *at != nullptr; at += 2) self->Meet(*at);
            if (self->texts_.size() >= kMaxDepth)
                self->ThrowInvalid("the elements are nested too deeply");
            self->texts_.emplace_back();
            const auto parts = SpaceAndName(name);
            self->handler_.Open(parts.first, parts.second);
        });
    }

    static void OnPrefix(void* data, const char* prefix, const char* /*uri*/) {
        auto* const self = static_cast<Parser*>(data);
        self->Guarded([self, prefix] { self->Meet(prefix == nullptr ? "" : prefix); });
    }

    static void OnClose(void* data, const char* name) {
        auto* const self = static_cast<Parser*>(data);
        self->understood_ = self->fed_;
        self->Guarded([self, name] {
            const std::string text = std::move(self->texts_.back());
            self->texts_.pop_back();
            const auto parts = SpaceAndName(name);
            self->handler_.Close(parts.first, parts.second, text);
            // Discard the text of the parent before this child: it is only the white space between
            // child elements.
            if (!self->texts_.empty()) self->texts_.back().clear();
        });
    }

    static void OnText(void* data, const char* text, int length) {
        auto* const self = static_cast<Parser*>(data);
        self->Guarded([self, text, length] {
            if (self->texts_.empty()) return;
            std::string& all = self->texts_.back();
            all.append(text, static_cast<std::size_t>(length));
            if (all.size() > kMaxTextBytes) self->ThrowInvalid("a text is too long");
        });
    }

    static void OnDoctype(void* data, const char* /*name*/, const char* /*system*/,
                          const char* /*public*/, int /*internal*/) {
        auto* const self = static_cast<Parser*>(data);
        self->Guarded([self] { self->ThrowInvalid("a document type declaration is not allowed"); });
    }

    std::string what_;
    XmlHandler& handler_;
    XML_Parser parser_;
    std::vector<std::string> texts_;
    std::set<std::string, std::less<>> names_;
    std::size_t fed_ = 0;
    // The value of fed_, the number of bytes passed to expat, when expat reported the most recent
    // tag.
    std::size_t understood_ = 0;
    std::exception_ptr thrown_;
};

XmlReader::XmlReader(std::string what, XmlHandler& handler)
    : parser_(std::make_unique<Parser>(std::move(what), handler)) {}

XmlReader::~XmlReader() = default;

void XmlReader::Feed(std::span<const std::byte> bytes) { parser_->Parse(bytes, false); }

void XmlReader::Finish() { parser_->Parse({}, true); }

}  // namespace quarn2::net
