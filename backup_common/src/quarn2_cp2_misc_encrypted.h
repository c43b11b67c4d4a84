// The list of encrypted indexes: the file ".encrypted_indexes" in the directory of the indexes.
// Each line is "NAME=HASH": the name of an index file, and the hash that the token's key had when a
// rescan downloaded the index. Every read and every write of the list happens under a lock on this
// file.
#pragma once

#include <string>

inline constexpr const char* kEncryptedIndexes = ".encrypted_indexes";

// The line of one index, without a line feed.
std::string EncryptedIndexLine(const std::string& name, const std::string& key_hash);

// Replaces the list in `directory`. `lines`: lines of EncryptedIndexLine, joined by line feeds.
// Throws kro_err::Error when the list cannot be locked or written.
void WriteEncryptedIndexes(const std::string& directory, const std::string& lines);

// Deletes a local encrypted index and its line in the directory's list. Does nothing when the index
// is not listed there. Throws kro_err::Error when the list cannot be locked, read or written, or
// when the index cannot be removed.
void DeleteEncryptedIndex(const std::string& path);
