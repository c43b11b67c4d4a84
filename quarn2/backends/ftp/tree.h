// The files and directories below a storage's root on an FTP server.
#pragma once

#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "backends/ftp/listing.h"
#include "backends/ftp/session.h"

namespace quarn2::ftp {

// What lies under a path.
enum class Found { kNothing, kFile, kDirectory };

// Names are relative to the root, which is an absolute path and "" as a name.
class Tree {
  public:
    Tree(Session& session, std::string root);

    std::string PathOf(const std::string& name) const;

    Found Look(const std::string& name);

    // kNotFound when the root is missing.
    void CheckRoot();

    // Makes the directory and those above it, never the root. False: the storage has no room for
    // it. Directories that were seen are not looked at again.
    bool MakeDirectories(const std::string& name);
    void Forget() { seen_.clear(); }

    // Everything in a directory; kNotFound when there is none, kFailed when the server has a limit
    // that hides some of it.
    std::vector<Entry> Entries(const std::string& name);

    // Removes a directory with all in it, or all in it alone. Links are removed, not followed. A
    // file stays; nothing there is success.
    void RemoveDirectory(const std::string& name);
    void Empty(const std::string& name) { Empty(name, 0); }

    // Removes one file; nothing there is success, a directory kFailed.
    void RemoveFile(const std::string& name);

    // Throws for a name that was refused where a file or directory of that name was wanted:
    // kNotFound when there is none.
    [[noreturn]] void ThrowMissing(const Reply& reply, const std::string& name,
                                   const std::string& deed);

  private:
    // Throws for a reply that leaves open whether something is there.
    void CheckAnswered(const Reply& reply, const std::string& name) const;
    Reply TryEnter(const std::string& name);
    bool Enter(const std::string& name) { return TryEnter(name).IsDone(); }
    bool IsDirectory(const std::string& name, Entry::Type type);
    Listing ListAll(const std::string& name);
    bool IsCut(std::string_view command) const;
    bool ListByMachine(const std::string& name, Listing& listing);
    Listing ListForPeople(const std::string& name);
    bool TryList(const std::string& command, const std::string& name, Listing& listing);
    // The name in the listing of the directory above, which tells what is missing from what cannot
    // be accessed.
    std::optional<Entry> FindListed(const std::string& name);
    // Nothing for a missing directory; kNotFound for a missing root.
    std::vector<Entry> ListOrNothing(const std::string& name);
    [[noreturn]] void ThrowNoDirectory(const Reply& refusal, const std::string& name);
    void Empty(const std::string& name, int depth);
    void RemoveEntries(const std::string& name, std::span<const Entry> entries, int depth);
    void RemoveBatch(const std::string& name, std::span<const Entry> entries, int depth);
    void RemoveRefused(const std::string& name, const Entry& entry, const Reply& reply, int depth);
    void RemoveEmptied(const std::string& name);

    Session& session_;
    std::string root_;
    std::set<std::string> seen_;
    int emptied_ = 0;  // directories below the one that is to be emptied
    bool has_mlsd_ = true;
    bool has_mlst_ = true;
};

}  // namespace quarn2::ftp
