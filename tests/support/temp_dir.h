// A temporary directory. The destructor removes it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quarn2_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};
