// Local storages for the conformance suite.
#pragma once

#include <sys/mount.h>

#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "storage_site.h"

class LocalSite : public StorageSite {
  public:
    ~LocalSite() override {
        if (mounted_) umount2(root_.path().c_str(), MNT_DETACH);
    }
    std::string Token() const override { return "local://" + root_.path(); }
    std::vector<std::string> Everything() const override {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root_.path())) {
            if (entry.is_directory()) continue;
            names.push_back(entry.path().lexically_relative(root_.path()).string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    bool LeaveLeftover(const std::string& name) override {
        const auto [directory, file] = kro_file::SplitPath(root_ / name);
        kro_file::MkDir(directory);
        local_files::Save(kro_file::ConcatPath(directory, kro_file::TemporaryName(file)), "half");
        return true;
    }
    bool LimitRoom(std::int64_t bytes) override {
        const std::string options = "size=" + std::to_string(bytes);
        mounted_ = mount("none", root_.path().c_str(), "tmpfs", 0, options.c_str()) == 0;
        return mounted_;
    }

  private:
    TempDir root_;
    bool mounted_ = false;
};
