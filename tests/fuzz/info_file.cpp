// Fuzz target: info files. The target checks that a second, simpler parser returns the same values,
// and that parsing a written info file returns the values that were written. It also checks that no
// text raises the limit or the free space of a server's account above the configured size limit.
#include <sys/mman.h>
#include <unistd.h>

#include "fuzz.h"
#include "kro/kro_err.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/info_reader.h"
#include "quarn2/names.h"
#include "quarn2_cp2_server_model.h"

namespace {

using fuzz::Require;
using quarn2::InfoMap;

// A file in memory with a path that can be opened.
class TextFile {
  public:
    void Save(const std::string& text) const {
        const auto size = static_cast<ssize_t>(text.size());
        const bool saved =
            ftruncate(fd_, 0) == 0 && pwrite(fd_, text.data(), text.size(), 0) == size;
        Require(saved, "the memory file can be written");
    }
    const std::string& path() const { return path_; }

  private:
    int fd_ = memfd_create("info", MFD_CLOEXEC);
    std::string path_ = "/proc/self/fd/" + std::to_string(fd_);
};

// Parses the text line by line, without the functions of the reader.
InfoMap SimplyRead(const std::string& text) {
    InfoMap info;
    std::string line;
    const auto take = [&] {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) return;
        const std::size_t equals = line.find('=');
        info[line.substr(0, equals)] = equals == line.npos ? "" : line.substr(equals + 1);
    };
    for (const char c : text) {
        if (c == '\n') {
            take();
            line.clear();
        } else {
            line += c;
        }
    }
    take();
    return info;
}

// Returns true if a value ends with a carriage return. The reader removes it as a part of the line
// end.
bool EndsALine(const InfoMap& info) {
    for (const auto& [key, value] : info) {
        if (value.ends_with('\r')) return true;
    }
    return false;
}

void CheckWhatIsWritten(const TextFile& file, const InfoMap& info) {
    if (EndsALine(info)) return;
    file.Save(str::Join(info, "\n"));
    Require(quarn2::GetInfo(file.path()) == info,
            "reading a written info file returns the same keys");
}

void CheckAccount(const std::string& text) {
    fuzz::WorkFolder();
    static const std::string directory = [] {
        std::filesystem::create_directory("info");
        return std::string("info");
    }();
    static const std::string name = directory + "/2026-11-19.web1.info";
    std::FILE* const file = std::fopen(name.c_str(), "w");
    Require(file != nullptr, "the file can be written");
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
    GlobalSizeControl control;
    control.path = directory;
    control.size_limit = 1'000'000;
    const GlobalSizeControl::StorageDesc& storage = control.AddStorage(nullptr);
    if (!fuzz::Accepts([&] { control.Init("2026-11-20"); })) return;
    Require(storage.free_size <= control.size_limit && storage.limit <= control.size_limit,
            "an info file does not increase the free space");
    Require(storage.free_size <= storage.limit, "the free space is not larger than the limit");
    Require(control.max_count >= 0 && control.max_count <= 2, "a backup is not counted twice");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const TextFile file;
    const std::string text(reinterpret_cast<const char*>(data), size);
    file.Save(text);
    InfoMap info;
    const bool accepted = fuzz::Accepts([&] { info = quarn2::GetInfo(file.path()); });
    Require(accepted == (text.find('\0') == text.npos),
            "an info file is rejected only because of a NUL byte");
    CheckAccount(text);
    if (!accepted) return 0;
    Require(info == SimplyRead(text), "both parsers return the same keys");
    Require(info == str::Split(text, "\n"), "the list parser returns the same keys");
    quarn2::InfoReader reader;
    reader.Read(file.path());
    for (const auto& [key, value] : info) {
        Require(reader.Find(key) == value, "InfoReader finds the same values");
    }
    quarn2::GetExtByInfo(info);
    CheckWhatIsWritten(file, info);
    return 0;
}
