// Fuzz target: the parsers of FTP replies. The target checks that a transcript contains no argument
// of a command and only texts of limited length, and that each name in a listing is a valid name of
// a directory entry and occurs in the text of the listing.
//
// Input: the first byte is "t" for a transcript (a line that begins with ">" was sent), "m" for a
// machine-readable listing, "l" for a human-readable listing.
#include <algorithm>

#include "backends/ftp/listing.h"
#include "backends/ftp/meaning.h"
#include "backends/ftp/reply.h"
#include "base/stored_name.h"
#include "fuzz.h"

namespace {

using fuzz::Require;
using namespace quarn2::ftp;

constexpr std::size_t kMaxText = 20UL * 1024;

void CheckReply(const Reply& reply) {
    Require(reply.code >= 0 && reply.code <= 999, "a reply code has at most three digits");
    Require(reply.text.size() < kMaxText, "the length of a reply text is limited");
    Require(reply.verb.find(' ') == reply.verb.npos, "the recorded command has no arguments");
    ReportsMissing(reply.words);
    ReportsDenied(reply.words);
    ReportsTlsNeeded(reply.words);
    ReportsTruncation(reply.text);
    Require(!IsFull(reply) || reply.IsRefusal(), "only a refusal reports a full storage");
    IsUnknownCommand(reply);
    KindOf(reply);
}

void CheckTranscript(fuzz::Input& input) {
    Transcript transcript;
    while (!input.empty()) {
        const std::string line = input.Line();
        if (line.starts_with('>')) {
            transcript.Sent(line.substr(1) + "\r\n");
        } else {
            transcript.Received(line + "\r\n");
        }
        transcript.HasPort();
    }
    for (const Reply& reply : transcript.replies()) {
        CheckReply(reply);
        const Reply* const found = transcript.Find(reply.verb);
        Require(reply.code == 0 || found != nullptr, "the reply to a command is found");
    }
    const Reply* const refusal = transcript.Refusal();
    Require(refusal == nullptr || refusal == &transcript.replies().back(),
            "a refusal is the last reply");
}

void CheckListing(const std::string& text, Listing (*parse)(std::string_view)) {
    Listing listing;
    if (!fuzz::Accepts([&] { listing = parse(text); })) return;
    Require(text.empty() || text.ends_with('\n'), "a truncated listing is rejected");
    for (const Entry& entry : listing.entries) {
        Require(!entry.name.empty() && entry.name != "." && entry.name != ".." &&
                    entry.name.find('/') == entry.name.npos && !quarn2::HasControl(entry.name),
                "a listed name is a valid file name");
        Require(entry.size.value_or(0) >= 0, "a size is not negative");
        Require(text.find(entry.name) != text.npos, "a listed name is part of the listing");
    }
    const auto lines = std::count(text.begin(), text.end(), '\n');
    Require(listing.entries.size() <= static_cast<std::size_t>(lines),
            "a line has at most one name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    switch (input.Byte()) {
        case 't':
            CheckTranscript(input);
            break;
        case 'm':
            CheckListing(input.Rest(), ParseMachineListing);
            break;
        case 'l':
            CheckListing(input.Rest(), ParseListing);
            break;
        default:
            ParseFacts(input.Rest());
    }
    return 0;
}
