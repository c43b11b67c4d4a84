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

// The type of the object at a path.
enum class Found { kNothing, kFile, kDirectory };

// Names are relative to the root. The root itself is an absolute path; its name is "".
class Tree {
  public:
    Tree(Session& session, std::string root);

    std::string PathOf(const std::string& name) const;

    Found Look(const std::string& name);

    // Throws kNotFound if the root does not exist.
    void CheckRoot();

    // Makes the directory and its parents, but never the root. Returns false if the storage has no
    // room. Directories that it has seen are not checked again until Forget() is called.
    bool MakeDirectories(const std::string& name);
    void Forget() { seen_.clear(); }

    // Returns all entries of a directory. Throws kNotFound if there is none, and kFailed if the
    // server truncates the listing.
    std::vector<Entry> Entries(const std::string& name);

    // RemoveDirectory() removes a directory with its contents, Empty() only the contents. Links are
    // removed, not followed. RemoveDirectory() does not remove a file and succeeds for a missing
    // name.
    void RemoveDirectory(const std::string& name);
    void Empty(const std::string& name) { Empty(name, 0); }

    // Removes one file. Succeeds for a missing file. Throws kFailed for a directory.
    void RemoveFile(const std::string& name);

    // Throws kNotFound if the file does not exist, and otherwise the error of the reply. To be
    // called when the server has refused a command on the file.
    [[noreturn]] void ThrowMissing(const Reply& reply, const std::string& name,
                                   const std::string& deed);

  private:
    // Throws for a refusal that does not show whether the name exists.
    void CheckAnswered(const Reply& reply, const std::string& name) const;
    Reply TryEnter(const std::string& name);
    bool Enter(const std::string& name) { return TryEnter(name).IsDone(); }
    bool IsDirectory(const std::string& name, Entry::Type type);
    Listing ListAll(const std::string& name);
    bool IsCut(std::string_view command) const;
    bool ListByMachine(const std::string& name, Listing& listing);
    Listing ListForPeople(const std::string& name);
    bool TryList(const std::string& command, const std::string& name, Listing& listing);
    // Looks the name up in the listing of its parent directory. This distinguishes a missing name
    // from an inaccessible one.
    std::optional<Entry> FindListed(const std::string& name);
    // Returns no entries for a missing directory. Throws kNotFound for a missing root.
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
    int emptied_ = 0;  // number of directories emptied below the first one
    bool has_mlsd_ = true;
    bool has_mlst_ = true;
};

}  // namespace quarn2::ftp
