// The fixture of the rescan tests.
#pragma once

#include "arguments.h"
#include "program_site.h"
#include "quarn2/storage.h"
#include "quarn2/token.h"
#include "quarn2_cp2_server_rescan.h"

class RescanSite : public ProgramSite {
  protected:
    static constexpr const char* kRoot = "var/backup/tovarn";
    static constexpr const char* kMarker = "var/backup/tovarn/.rescan";

    RescanSite() { std::filesystem::create_directories(kRoot); }

    static void Run(const std::vector<std::string>& words = {}) { Rescan(*Arguments(words)); }

    static std::string InfoRoot(const std::string& name) { return std::string(kRoot) + "/" + name; }
    static Lines InfoRoot() { return Below(kRoot); }
    static std::string Local(const std::string& name) { return local_files::Load(InfoRoot(name)); }

    // Returns the names of the files that were fetched since the last call.
    Lines Fetched() const {
        Lines names;
        for (const std::string& call : store_->log()) {
            if (call.starts_with("Get ")) names.push_back(call.substr(4));
        }
        store_->ClearLog();
        return names;
    }

    // Stores a backup of one archive with its info and index files, in the storage's root or in a
    // directory.
    void StoreFlat(const std::string& stem) const { StoreIn("", stem); }
    void StoreDated(const std::string& user, const std::string& date) const {
        StoreIn(user + "/" + date + "/", date + "." + user);
    }
    void StoreIn(const std::string& directory, const std::string& stem) const {
        store_->SetFile(directory + "F" + stem + ".tgz", "archive of " + stem);
        store_->SetFile(directory + stem + ".info",
                        "last-slice=" + directory + "F" + stem + ".tgz\n");
        store_->SetFile(directory + stem + ".tgz", "index of " + stem);
    }

    // Returns the paths of the local directories and files of a backup in directory form.
    static Lines DatedFiles(const std::string& user, const std::string& date) {
        const std::string directory = user + "/" + date;
        return {user, directory, directory + "/" + date + "." + user + ".info",
                directory + "/" + date + "." + user + ".tgz"};
    }
};
