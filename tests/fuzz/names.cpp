// Fuzz target: names from a listing, a command line or an info file. The target checks that no
// accepted name leads out of a root, and that functions that shorten a name never truncate its
// directory.
#include "quarn2/names.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "backends/s3/keys.h"
#include "backends/webdav/dav_names.h"
#include "backup/info_places.h"
#include "base/stored_name.h"
#include "fuzz.h"
#include "kro/kro_date.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "quarn2/info.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_prefix.h"
#include "quarn2_cp2_put_node.h"

namespace {

using fuzz::Require;

const std::string kRoot = "/root/of/all";

bool IsBelow(const std::string& path) {
    return kro_file::GoodPath(path).starts_with(kRoot + "/") && path.find("/../") == path.npos;
}

bool IsStoredName(const std::string& name) {
    return fuzz::Accepts([&name] { quarn2::CheckStoredName(name); });
}

void CheckCuts(const std::string& name) {
    const std::string stem = quarn2::StripSliceNumber(name);
    Require(name.starts_with(stem), "a stem is a prefix of its name");
    Require(stem.size() >= name.rfind('/') + 1,
            "no part of a directory is removed as a slice number");
    const std::string extension = quarn2::GetExtByInfo({{"last-slice", name}});
    Require(extension.starts_with('.') && extension.find('/') == extension.npos,
            "an extension contains no slash");
    Require(name.find(quarn2::GetUserName(name)) != name.npos, "the user is part of the name");
    const std::string date = quarn2::GetDate(name);
    Require(date == "custom" || name.find(date) != name.npos, "the date is part of the name");
    Require(date.find('/') == date.npos && quarn2::GetUserName(name).find('/') == date.npos,
            "user and date contain no slash");
    Require(NodeSide::Key(name).find('/') == name.npos, "an upload key contains no slash");
    Require(!quarn2::GetPath(name).starts_with('/'), "a storage path is relative");
    Require(kro_file::GoodPath(kro_file::GoodPath(name)) == kro_file::GoodPath(name),
            "normalising a normalised path does not change it");
    quarn2::IsAdminData(name);
    if (kro_date::IsDate(name)) {
        Require(kro_date::Date(name).AsDate() == name, "a formatted date equals the parsed text");
    }
}

// Checks the prefix by which the removal of incomplete backups selects files.
void CheckPrefix(const std::string& name) {
    const std::string prefix = GetPrefix(name);
    Require(name.find(prefix) != name.npos && prefix.size() + 1 >= prefix.size(),
            "a prefix is part of the name");
}

// A rescan creates local files and directories with the names that a storage lists.
void CheckListed(const std::string& name) {
    if (quarn2::IsSafeName(name)) {
        const std::string path = kro_file::ConcatPath(kRoot, name);
        Require(IsBelow(path) && kro_file::Path(path) == kRoot,
                "a safe name refers to an entry of the directory");
    }
    if (IsStoredName(name)) {
        Require(IsBelow(kro_file::ConcatPath(kRoot, name)), "a stored name stays below the root");
        Require(quarn2::GetPath(name) == name, "a stored name is normalised");
    }
}

void CheckOwnFile(const std::string& local) {
    std::string stored;
    if (!fuzz::Accepts([&] { stored = quarn2::GetStoredName(local); })) return;
    Require(IsStoredName(stored), "the stored name of a local file is valid");
    Require(stored.find(' ') == stored.npos, "a stored name contains no blank");
    Require(kro_file::Name(stored) == kro_file::Name(kro_file::GoodPath(local)),
            "the stored name has the file name of the local file");
}

// Checks the paths where the program looks for an info file, whatever the name contains.
void CheckInfoPlaces(const std::string& name) {
    if (!quarn2::IsSafeName(name)) return;
    for (const std::string& place :
         quarn2::InfoPlaces(kRoot, quarn2::GetUserName(name), quarn2::GetDate(name))) {
        Require(IsBelow(place), "the path of an info file is below the info root");
    }
}

void CheckRemote(const std::string& name) {
    Require(quarn2::s3::NameOf(quarn2::s3::KeyOf(name)) == name, "a key converts back to its name");
    static const quarn2::BackupToken token("webdav://u:p@host/a/b%20c");
    static const quarn2::webdav::DavAddress address(token);
    const std::optional<std::string> behind = address.NameOf(name);
    Require(!behind || behind->empty() || IsBelow(kro_file::ConcatPath(kRoot, *behind)),
            "the name of an href is below the root");
    if (!IsStoredName(name)) return;
    Require(address.NameOf(address.File(name)) == name, "a URL converts back to its name");
    const std::string temporary = kro_file::Name(quarn2::webdav::NewTemporaryName(name));
    Require(quarn2::webdav::IsTemporaryEntry(temporary), "a temporary name is recognised");
    Require(quarn2::webdav::IsTemporaryOf(temporary, kro_file::Name(name)),
            "a temporary name is recognised as that of its file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    while (!input.empty()) {
        const std::string name = input.Line();
        CheckCuts(name);
        CheckPrefix(name);
        CheckListed(name);
        CheckOwnFile(name);
        CheckInfoPlaces(name);
        CheckRemote(name);
        Require(kro_file::IsTemporaryName(kro_file::TemporaryName(name + "x")),
                "a local temporary name is recognised");
    }
    return 0;
}
