#include "report_archive.h"

#include <unistd.h>

#include <algorithm>

#include "kro/kro_env.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/names.h"

namespace {

using Input = Tester::Input;

// Encrypted archives (".aes") and plain tar archives, which contain no checksums of the content,
// have no tester.
const std::vector<Tester>& Testers() {
    static const std::vector<Tester> testers = {
        {".dar", {"dar", "-N", "-Q", "-q", "-t"}, "dar", Input::kRequests},
        {".tgz", {"gzip", "-t"}, "gzip", Input::kStream},
        {".tar.gz", {"gzip", "-t"}, "gzip", Input::kStream},
        {".tar.zst", {"zstd", "-q", "-t"}, "zstd", Input::kStream},
        {".tar.bz2", {"bzip2", "-t"}, "bzip2", Input::kStream},
        {".tar.xz", {"xz", "-t"}, "xz-utils", Input::kStream},
        {".zip", {"unzip", "-tqq"}, "unzip", Input::kFile},
    };
    return testers;
}

// The end of a slice's name after the name of the archive, without numbers: ".dar" for
// "F2026-11-20.web1.3.dar", ".tgz" for "F2026-11-20.web1.tgz.part2".
std::string EndingOf(const std::string& slice, const std::string& archive) {
    std::string ending = slice.substr(archive.size());
    constexpr std::string_view kPart = ".part";
    const std::size_t part = ending.rfind(kPart);
    const bool has_part = part != ending.npos &&
                          str::HasDigitsOnly(std::string_view(ending).substr(part + kPart.size()));
    if (has_part) ending.erase(part);
    const std::size_t dot = ending.rfind('.');
    const bool is_numbered = dot != ending.npos && dot > 1 &&
                             str::HasDigitsOnly(std::string_view(ending).substr(1, dot - 1));
    return is_numbered ? ending.substr(dot) : ending;
}

const Tester* TesterOf(const std::string& ending) {
    const auto found =
        std::find_if(Testers().begin(), Testers().end(),
                     [&ending](const Tester& tester) { return tester.ending == ending; });
    return found == Testers().end() ? nullptr : &*found;
}

}  // namespace

std::vector<Archive> ArchivesOf(const std::vector<StoredFile>& files) {
    std::vector<Archive> archives;
    for (const StoredFile& file : files) {
        if (file.kind != "slice") continue;
        std::string name = quarn2::StripSliceNumber(file.name);
        const Tester* const tester = TesterOf(EndingOf(file.name, name));
        const bool is_new =
            archives.empty() || archives.back().name != name || archives.back().tester != tester;
        if (is_new) archives.push_back({std::move(name), {}, tester});
        archives.back().slices.push_back(file.name);
    }
    // A program with Input::kFile would need all slices at once, so it does not test an archive of
    // several slices.
    for (Archive& archive : archives) {
        const bool is_file = archive.tester != nullptr && archive.tester->input == Input::kFile;
        if (is_file && archive.slices.size() > 1) archive.tester = nullptr;
    }
    return archives;
}

std::string FindProgram(const std::string& name) {
    std::string rest = kro_env::GetEnv("PATH");
    while (!rest.empty()) {
        const std::string directory = str::GetWord(rest, ":");
        std::string path = kro_file::ConcatPath(directory, name);
        const bool is_program = directory.starts_with('/') && !kro_file::IsDirectory(path) &&
                                access(path.c_str(), X_OK) == 0;
        if (is_program) return path;
    }
    return {};
}
