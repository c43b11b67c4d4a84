// Fuzz target: responses of S3 servers. The target checks that a response that arrives in several
// parts has the same result as a complete response, that the text of a refusal is one line, and
// that a query contains exactly its parameters.
//
// Input: the first byte selects the response. With "q", the rest contains the parameters of a
// query.
#include <algorithm>
#include <optional>
#include <span>

#include "backends/s3/answers.h"
#include "backends/s3/keys.h"
#include "backends/s3/signature.h"
#include "base/percent.h"
#include "base/stored_name.h"
#include "fuzz.h"

namespace {

using fuzz::Require;
using namespace quarn2::s3;

std::span<const std::byte> BytesOf(std::string_view text) { return std::as_bytes(std::span(text)); }

// Returns nullopt if the reader rejects the response.
std::optional<Listing> Read(const std::string& body, bool in_pieces) {
    Listing listing;
    const bool accepted = fuzz::Accepts([&] {
        ListingReader reader("server");
        if (in_pieces) {
            fuzz::InPieces(body, [&](std::string_view piece) { reader.Write(BytesOf(piece)); });
        } else {
            reader.Write(BytesOf(body));
        }
        listing = reader.Finish();
    });
    if (!accepted) return std::nullopt;
    return listing;
}

void CheckListing(const std::string& body) {
    const std::optional<Listing> whole = Read(body, false);
    const std::optional<Listing> pieces = Read(body, true);
    Require(whole.has_value() == pieces.has_value(),
            "splitting the input does not change whether it is rejected");
    if (!whole) return;
    Require(whole->keys == pieces->keys && whole->directories == pieces->directories &&
                whole->next == pieces->next,
            "splitting the input does not change the result");
    for (const auto& [key, size] : whole->keys) {
        Require(size.value_or(0) >= 0, "a size is not negative");
        const std::optional<std::string> name = NameOf(key);
        Require(!name || KeyOf(*name) == key, "a name converts back to its key");
        Require(!IsXmlText(key) || !quarn2::HasControl(key) || key.find('\x7f') != key.npos,
                "an XML text contains no control characters");
        Require(XmlEscaped(key).find('<') == key.npos, "an escaped key contains no markup");
    }
}

void CheckRefusal(const Refusal& refusal) {
    Require(!quarn2::HasControl(refusal.Text()),
            "the text of an error response has no control characters");
    refusal.IsNoRoom();
    refusal.kind();
}

void CheckRefusalOf(unsigned status, const std::string& body) {
    quarn2::net::HttpReply reply;
    reply.status = static_cast<int>(status * 4);
    reply.headers["x-amz-bucket-region"] = body.substr(0, 9);
    reply.body = body;
    CheckRefusal(RefusalOf(reply));
}

void CheckQuery(fuzz::Input& input) {
    Params params;
    while (!input.empty()) {
        const std::string name = input.Until("=");
        params.emplace_back(name, input.Line());
    }
    const std::string query = CanonicalQuery(params);
    Params read;
    fuzz::Input text(reinterpret_cast<const std::uint8_t*>(query.data()), query.size());
    while (!text.empty()) {
        const std::string name = text.Until("=");
        const std::string value = text.Until("&");
        read.emplace_back(quarn2::PercentDecoded(name).value(),
                          quarn2::PercentDecoded(value).value());
    }
    std::sort(read.begin(), read.end());
    std::sort(params.begin(), params.end());
    Require(read == params, "parsing a query returns its parameters");
    Unsigned request{"GET", "/", query, params, "hash"};
    for (auto& header : request.headers) {
        for (char& c : header.second) c = c == '\n' ? ' ' : c;
    }
    CanonicalRequest(request);
    Signer signer({"access", "secret", "region"});
    const std::string header = signer.Authorization(request, 1795176000);
    Require(header.find("secret") == header.npos || query.find("secret") != header.npos,
            "a signature does not contain the secret key");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const unsigned what = input.Byte();
    if (what == 'q') {
        CheckQuery(input);
        return 0;
    }
    const std::string body = input.Rest();
    switch (what % 5) {
        case 0:
            CheckListing(body);
            break;
        case 1:
            fuzz::Accepts([&] { ReadUploads("server", body); });
            break;
        case 2:
            fuzz::Accepts([&] { ReadUploadAnswer("server", body); });
            break;
        case 3:
            fuzz::Accepts([&] {
                for (const DeleteAnswer& left : ReadDeleteAnswer("server", body)) {
                    CheckRefusal(left.refusal);
                }
            });
            break;
        default:
            CheckRefusalOf(what, body);
    }
    return 0;
}
