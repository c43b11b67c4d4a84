// Operations on the files and directories below a storage's root on an FTP server.
#pragma once

#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "listing.h"
#include "session.h"

namespace quarn2::ftp {

// The type of the object at a path on the server.
enum class Found { kNothing, kFile, kDirectory };

// Lists, creates and removes files and directories on an FTP server. Names are relative to the
// storage's root; "" is the root. The root is an absolute path on the server.
class Tree {
  public:
    Tree(Session& session, std::string root);

    std::string PathOf(const std::string& name) const;

    Found FindType(const std::string& name);

    // Throws kNotFound if the storage's root does not exist.
    void CheckRoot();

    // Creates the directory and its parents, but never the root. Returns false if the storage is
    // full. Caches the directories that exist; Forget() clears this cache.
    bool MakeDirectories(const std::string& name);
    void Forget() { seen_.clear(); }

    // Returns all entries of a directory. Throws kNotFound if the directory does not exist, and
    // kFailed if the server truncates the listing.
    std::vector<Entry> Entries(const std::string& name);

    // RemoveDirectory() removes a directory with its contents, Empty() removes only the contents.
    // Both remove links without following them. RemoveDirectory() does not remove a file, and
    // succeeds if the directory does not exist.
    void RemoveDirectory(const std::string& name);
    void Empty(const std::string& name) { Empty(name, 0); }

    // Removes one file. Succeeds if the file does not exist. Throws kFailed if `name` is a
    // directory.
    void RemoveFile(const std::string& name);

    // Throws the error after the server has refused a command on the file: kNotFound if the file
    // does not exist, otherwise the error of the reply. `operation` names the refused operation.
    [[noreturn]] void ThrowMissing(const Reply& reply, const std::string& name,
                                   const std::string& operation);

  private:
    // Throws the error of the reply if the reply is a refusal that does not show whether the file
    // or directory `name` exists, such as a denied permission.
    void CheckAnswered(const Reply& reply, const std::string& name) const;
    Reply TryEnter(const std::string& name);
    bool Enter(const std::string& name) { return TryEnter(name).IsDone(); }
    bool IsDirectory(const std::string& name, Entry::Type type);
    Listing ListAll(const std::string& name);
    bool IsTruncated(std::string_view command) const;
    bool ListMachineReadable(const std::string& name, Listing& listing);
    Listing ListHumanReadable(const std::string& name);
    bool TryList(const std::string& command, const std::string& name, Listing& listing);
    // Searches the listing of the parent directory for `name`. This distinguishes a missing file or
    // directory from an inaccessible one.
    std::optional<Entry> FindListed(const std::string& name);
    // Returns the entries of a directory, or no entries if the directory does not exist. Throws
    // kNotFound if the storage's root does not exist.
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
    int emptied_ = 0;  // number of subdirectories emptied in the running removal
    bool has_mlsd_ = true;
    bool has_mlst_ = true;
};

}  // namespace quarn2::ftp
