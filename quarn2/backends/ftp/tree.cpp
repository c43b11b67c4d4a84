#include "tree.h"

#include <algorithm>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "meaning.h"

namespace quarn2::ftp {

namespace {

using kro_err::Error;
using kro_err::Kind;

// Maximum number of DELE commands in one libcurl transfer.
constexpr std::size_t kBatch = 1000;
// Limits for the recursive removal of directories, in case a faulty server lists an endless tree of
// directories.
constexpr int kMaxDepth = 200;
constexpr int kMaxEmptied = 100'000;

}  // namespace

Tree::Tree(Session& session, std::string root) : session_(session), root_(std::move(root)) {}

std::string Tree::PathOf(const std::string& name) const {
    return kro_file::ConcatPath(root_, name);
}

// --- Lookups ---

void Tree::CheckAnswered(const Reply& reply, const std::string& name) const {
    constexpr int kLasting = 500;
    if (!reply.IsRefusal() || (reply.code >= kLasting && !ReportsDenied(reply.words))) return;
    session_.ThrowRefused(reply, "access " + Quoted(PathOf(name)));
}

Reply Tree::TryEnter(const std::string& name) {
    Reply reply = session_.Command("CWD " + PathOf(name));
    CheckAnswered(reply, name);
    return reply;
}

// Returns the type of the object at `name`. A link has the type of its target. If the server does
// not support MLST, SIZE and CWD are used: SIZE succeeds only for files and CWD only for
// directories. MLST is preferred because some servers delay their replies after many failed CWDs.
Found Tree::FindType(const std::string& name) {
    const std::string path = PathOf(name);
    if (has_mlst_) {
        const Reply reply = session_.Command("MLST " + path);
        const std::optional<Entry::Type> type =
            reply.IsDone() ? ParseFacts(reply.text) : std::nullopt;
        if (type) return IsDirectory(name, *type) ? Found::kDirectory : Found::kFile;
        CheckAnswered(reply, name);
        has_mlst_ = !IsUnknownCommand(reply);
        if (reply.IsRefusal() && has_mlst_) return Found::kNothing;
    }
    const std::vector<Reply> replies = session_.Commands({"TYPE I", "SIZE " + path, "CWD " + path});
    if (replies[1].IsDone()) return Found::kFile;
    if (replies[2].IsDone()) return Found::kDirectory;
    CheckAnswered(replies[1], name);
    CheckAnswered(replies[2], name);
    const bool is_listed = IsUnknownCommand(replies[1]) && FindListed(name).has_value();
    return is_listed ? Found::kFile : Found::kNothing;
}

bool Tree::IsDirectory(const std::string& name, Entry::Type type) {
    if (type == Entry::Type::kOther) return Enter(name);
    return type == Entry::Type::kDirectory;
}

void Tree::CheckRoot() {
    const Reply reply = session_.Command("CWD " + PathOf(""));
    if (reply.IsDone()) return;
    if (reply.code < 500 || ReportsDenied(reply.words)) {
        session_.ThrowRefused(reply, "access directory " + Quoted(PathOf("")));
    }
    throw Error(Kind::kNotFound, session_.what() + " has no directory " + Quoted(PathOf("")) +
                                     "; create it or correct the storage token");
}

// Throws kNotFound if the directory does not exist. If the directory exists but cannot be entered,
// throws the error that the server has returned.
void Tree::ThrowNoDirectory(const Reply& refusal, const std::string& name) {
    CheckRoot();
    const std::optional<Entry> entry = FindListed(name);
    if (entry && entry->type == Entry::Type::kDirectory) {
        session_.ThrowRefused(refusal, "list " + Quoted(name));
    }
    throw Error(Kind::kNotFound, "no directory " + Quoted(name) + " on the storage");
}

std::optional<Entry> Tree::FindListed(const std::string& name) {
    if (name.empty()) return std::nullopt;
    const auto [above, last] = kro_file::SplitPath(name);
    for (const Entry& entry : ListOrNothing(above)) {
        if (entry.name == last) return entry;
    }
    return std::nullopt;
}

void Tree::ThrowMissing(const Reply& reply, const std::string& name, const std::string& operation) {
    constexpr int kRefused = 500;
    if (reply.code < kRefused) session_.ThrowRefused(reply, operation);
    const bool missing = ReportsMissing(reply.words) ||
                         (!ReportsDenied(reply.words) && FindType(name) != Found::kFile);
    if (!missing && FindListed(name)) session_.ThrowRefused(reply, operation);
    CheckRoot();
    throw Error(Kind::kNotFound, "no file " + Quoted(name) + " on the storage");
}

// --- Directories ---

bool Tree::MakeDirectories(const std::string& name) {
    if (seen_.contains(name)) return true;
    if (name.empty()) {
        CheckRoot();
    } else if (FindType(name) != Found::kDirectory) {
        if (!MakeDirectories(kro_file::Path(name))) return false;
        const Reply reply = session_.Command("MKD " + PathOf(name));
        if (IsFull(reply)) return false;
        // If MKD fails, another process may have created the directory at the same time.
        if (!reply.IsDone() && FindType(name) != Found::kDirectory) {
            session_.ThrowRefused(reply, "create directory " + Quoted(name));
        }
    }
    seen_.insert(name);
    return true;
}

// --- Listings ---

bool Tree::IsTruncated(std::string_view command) const {
    const Reply* const reply = session_.transcript().Find(command);
    return reply != nullptr && ReportsTruncation(reply->text);
}

// Lists a directory with MLSD. Returns false if the server does not support MLSD. Some servers
// reply with a 501 to MLSD if the name is a file.
bool Tree::ListMachineReadable(const std::string& name, Listing& listing) {
    constexpr int kBadArgument = 501;
    std::string text;
    const Outcome outcome = session_.List("MLSD", PathOf(name), Session::Where::kNamed, text);
    if (outcome.code == CURLE_OK) {
        listing = ParseMachineListing(text);
        listing.is_cut = IsTruncated("MLSD");
        return true;
    }
    const Reply* const reply = session_.transcript().Find("MLSD");
    if (reply == nullptr || !reply->IsRefusal() || reply->code < 500) session_.Throw(outcome);
    const Reply refusal = *reply;
    if (IsUnknownCommand(refusal) && refusal.code != kBadArgument) return false;
    const bool is_directory = !ReportsDenied(refusal.words) && FindType(name) == Found::kDirectory;
    if (refusal.code == kBadArgument && is_directory) return false;
    if (ReportsDenied(refusal.words) || is_directory) {
        session_.ThrowRefused(refusal, "list " + Quoted(name));
    }
    ThrowNoDirectory(refusal, name);
}

// Lists a directory with `command`. Returns false if the server refuses the command.
bool Tree::TryList(const std::string& command, const std::string& name, Listing& listing) {
    std::string text;
    const Outcome outcome = session_.List(command, PathOf(name), Session::Where::kWithin, text);
    const Transcript& transcript = session_.transcript();
    const Reply* const change = transcript.Find("CWD");
    if (change != nullptr && change->IsRefusal()) {
        const Reply refusal = *change;
        CheckAnswered(refusal, name);
        ThrowNoDirectory(refusal, name);
    }
    if (outcome.code != CURLE_OK && transcript.Refusal() != nullptr) return false;
    if (outcome.code != CURLE_OK || outcome.thrown) session_.Throw(outcome);
    listing = ParseListing(text);
    listing.is_cut = IsTruncated("LIST");
    return true;
}

// Lists a directory with LIST. Changes into the directory first and sends no name as the argument,
// because some servers parse the argument as a pattern or as options. Tries "LIST -a" first, which
// also lists hidden files. A server that does not support options lists a file named "-a" instead;
// such a listing has no entry for the directory itself and is discarded.
Listing Tree::ListHumanReadable(const std::string& name) {
    Listing listing;
    if (TryList("LIST -a", name, listing) && listing.shows_itself) return listing;
    if (TryList("LIST", name, listing)) return listing;
    session_.ThrowRefused(*session_.transcript().Refusal(), "list " + Quoted(PathOf(name)));
}

Listing Tree::ListAll(const std::string& name) {
    Listing listing;
    if (has_mlsd_ && !ListMachineReadable(name, listing)) has_mlsd_ = false;
    if (!has_mlsd_) return ListHumanReadable(name);
    // Some servers return an empty listing for a missing directory, so check whether the directory
    // exists.
    if (listing.entries.empty() && !listing.shows_itself) {
        const Reply reply = TryEnter(name);
        if (!reply.IsDone()) ThrowNoDirectory(reply, name);
    }
    return listing;
}

std::vector<Entry> Tree::Entries(const std::string& name) {
    Listing listing = ListAll(name);
    if (listing.is_cut) {
        throw Error(Kind::kFailed, session_.what() + " lists at most " +
                                       str::Str(listing.entries.size()) + " entries of directory " +
                                       Quoted(PathOf(name)) +
                                       "; raise the listing limit of the server");
    }
    return std::move(listing.entries);
}

// --- Removals ---

void Tree::RemoveFile(const std::string& name) {
    const Reply reply = session_.Command("DELE " + PathOf(name));
    if (reply.IsDone()) return;
    if (reply.code >= 500 && ReportsMissing(reply.words)) {
        CheckRoot();
        return;
    }
    if (ReportsDenied(reply.words) || FindType(name) != Found::kNothing) {
        session_.ThrowRefused(reply, "remove " + Quoted(name));
    }
    CheckRoot();
}

void Tree::RemoveDirectory(const std::string& name) {
    const auto [above, last] = kro_file::SplitPath(name);
    for (const Entry& entry : ListOrNothing(above)) {
        if (entry.name != last || entry.type == Entry::Type::kFile) continue;
        // The name can be a link to a directory, because some servers list such a link as a
        // directory. RemoveBatch removes the link itself.
        if (FindType(name) != Found::kDirectory) continue;
        RemoveBatch(above, {&entry, 1}, 0);
    }
}

std::vector<Entry> Tree::ListOrNothing(const std::string& name) {
    try {
        return Entries(name);
    } catch (const Error& error) {
        if (error.kind() != Kind::kNotFound) throw;
    }
    CheckRoot();
    return {};
}

// Removes a directory after its entries have been removed. Some servers omit broken links from MLSD
// listings. The directory is then not yet empty and RMD fails, so the links are found with LIST and
// removed.
void Tree::RemoveEmptied(const std::string& name) {
    Reply reply = session_.Command("RMD " + PathOf(name));
    if (!reply.IsDone() && Enter(name)) {
        for (const Entry& entry : ListHumanReadable(name).entries) {
            session_.Command("DELE " + PathOf(kro_file::ConcatPath(name, entry.name)));
        }
        reply = session_.Command("RMD " + PathOf(name));
    }
    if (!reply.IsDone() && Enter(name)) {
        session_.ThrowRefused(reply, "remove directory " + Quoted(name));
    }
}

void Tree::Empty(const std::string& name, int depth) {
    emptied_ = depth == 0 ? 0 : emptied_ + 1;
    if (depth > kMaxDepth || emptied_ > kMaxEmptied) {
        throw Error(Kind::kFailed, session_.what() + ": more than " + str::Str(kMaxDepth) +
                                       " levels of directories or more than " +
                                       str::Str(kMaxEmptied) + " directories");
    }
    Forget();
    // If the server truncates the listing, remove the listed entries and list the directory again
    // to get the remaining entries.
    constexpr int kMaxRounds = 10000;
    bool is_cut = true;
    for (int round = 0; is_cut && round < kMaxRounds; ++round) {
        const Listing listing = ListAll(name);
        is_cut = listing.is_cut && !listing.entries.empty();
        RemoveEntries(name, listing.entries, depth);
    }
}

void Tree::RemoveEntries(const std::string& name, std::span<const Entry> entries, int depth) {
    while (!entries.empty()) {
        const std::size_t count = std::min(kBatch, entries.size());
        RemoveBatch(name, entries.first(count), depth);
        entries = entries.subspan(count);
    }
}

// Removes entries of a directory. Sends DELE also for directories, because some servers list a link
// to a directory as a directory: DELE removes such a link, so that the target of the link is not
// emptied. DELE fails for a real directory.
void Tree::RemoveBatch(const std::string& name, std::span<const Entry> entries, int depth) {
    std::vector<std::string> commands;
    for (const Entry& entry : entries) {
        commands.push_back("DELE " + kro_file::ConcatPath(PathOf(name), entry.name));
    }
    const std::vector<Reply> replies = session_.Commands(commands);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (!replies[i].IsDone()) RemoveRefused(name, entries[i], replies[i], depth);
    }
}

void Tree::RemoveRefused(const std::string& name, const Entry& entry, const Reply& reply,
                         int depth) {
    const std::string below = kro_file::ConcatPath(name, entry.name);
    if (entry.type != Entry::Type::kDirectory) {
        const Found found = ReportsMissing(reply.words) ? Found::kNothing : FindType(below);
        if (found == Found::kNothing) return;
        const bool is_unspecified =
            entry.type == Entry::Type::kUnspecified && found == Found::kDirectory;
        if (!is_unspecified) session_.ThrowRefused(reply, "remove " + Quoted(below));
    }
    Empty(below, depth + 1);
    RemoveEmptied(below);
}

}  // namespace quarn2::ftp
