// A site whose server stores the files in a directory of this machine.
#pragma once

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "remote_site.h"

// The site of a backend derives from this class and implements Parts().
class ServedDirectorySite : public RemoteSite {
  public:
    explicit ServedDirectorySite(const std::string& server) : RemoteSite(server) {
        directory_ = info()["data"] + "/test_XXXXXX";
        if (mkdtemp(directory_.data()) == nullptr) Fail("mkdtemp");
        if (chmod(directory_.c_str(), 0755) != 0) Fail("chmod");
        GiveToOwner(directory_);
    }
    ~ServedDirectorySite() override {
        if (mounted_) umount2(directory_.c_str(), MNT_DETACH);
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    std::vector<std::string> Everything() const override {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_)) {
            if (entry.is_directory()) continue;
            names.push_back(entry.path().lexically_relative(directory_).string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    bool IsBeingWritten() const override {
        namespace fs = std::filesystem;
        std::error_code gone;  // errors are ignored, because a process may end meanwhile
        for (const auto& process : fs::directory_iterator("/proc", gone)) {
            for (const auto& open : fs::directory_iterator(process.path() / "fd", gone)) {
                const std::string file = fs::read_symlink(open.path(), gone).string();
                if (file.starts_with(directory_ + "/")) return true;
            }
        }
        return false;
    }

    bool LeaveLeftover(const std::string& name) override {
        const auto [above, file] = kro_file::SplitPath(directory_ + "/" + name);
        for (std::string made = above; !local_files::Has(made) || made == above;
             made = kro_file::Path(made)) {
            kro_file::MkDir(made, 0755);
            GiveToOwner(made);
            if (made == directory_) break;
        }
        const std::string leftover = kro_file::ConcatPath(above, LeftoverName(file));
        local_files::Save(leftover, "half");
        GiveToOwner(leftover);
        return true;
    }

    bool LimitRoom(std::int64_t bytes) override {
        const std::string options = "mode=0755,size=" + std::to_string(bytes) +
                                    ",uid=" + info()["uid"] + ",gid=" + info()["gid"];
        if (mount("none", directory_.c_str(), "tmpfs", 0, options.c_str()) != 0) Fail("mount");
        mounted_ = true;
        return true;
    }

  protected:
    const std::string& directory() const { return directory_; }

    // The path that the server's clients use. They see the served directory as info()[`root_key`].
    std::string ServedPath(const std::string& root_key = "path") const {
        return kro_file::ConcatPath(info()[root_key], kro_file::Name(directory_));
    }

    // The temporary name under which the backend first stores this file.
    virtual std::string LeftoverName(const std::string& file) const {
        return kro_file::TemporaryName(file);
    }

  private:
    void GiveToOwner(const std::string& path) const {
        if (chown(path.c_str(), info().Number("uid"), info().Number("gid")) != 0) Fail("chown");
    }

    [[noreturn]] static void Fail(const char* what) {
        throw std::system_error(errno, std::generic_category(),
                                std::string(what) + " (the tests of servers need root)");
    }

    std::string directory_;
    bool mounted_ = false;
};
