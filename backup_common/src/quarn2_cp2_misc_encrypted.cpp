#include "quarn2_cp2_misc_encrypted.h"

#include <map>

#include "kro/kro_file.h"
#include "kro/str.h"

namespace {

using Indexes = std::map<std::string, std::string>;

Indexes ReadIndexes(const kro_file::Lock& list) { return str::Split(list.Read(), "\n"); }

bool IsListed(const std::string& list_path, const std::string& name) {
    kro_file::Lock list;
    list.DoLock(list_path, false);
    return ReadIndexes(list).contains(name);
}

// Reads the list again under this lock, because another process may have changed the list since
// IsListed has released its lock.
void RemoveLine(const std::string& list_path, const std::string& name) {
    kro_file::Lock list;
    list.DoLock(list_path, false);
    Indexes indexes = ReadIndexes(list);
    indexes.erase(name);
    list.Write(str::Join(indexes, "\n"));
}

}  // namespace

std::string EncryptedIndexLine(const std::string& name, const std::string& key_hash) {
    return name + "=" + key_hash;
}

void WriteEncryptedIndexes(const std::string& directory, const std::string& lines) {
    kro_file::Lock list;
    list.DoLock(kro_file::ConcatPath(directory, kEncryptedIndexes), true);
    list.Write(lines);
}

void DeleteEncryptedIndex(const std::string& path) {
    const auto [directory, name] = kro_file::SplitPath(path);
    const std::string list_path = kro_file::ConcatPath(directory, kEncryptedIndexes);
    if (!kro_file::Exists(list_path) || !IsListed(list_path, name)) return;
    kro_file::RemoveFile(path);
    RemoveLine(list_path, name);
}
