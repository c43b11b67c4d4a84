// The result of the last verification of a storage, which --verify keeps and --status shows: the
// file var/quarn2_cp.verified[#STORAGE], KEY=VALUE lines, readable by its user only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct VerificationResult {
    std::string time;     // YYYY-MM-DD HH:MM:SS, the end of the verification
    std::string storage;  // the identity of the storage
    std::int64_t backups = 0;
    std::int64_t files = 0;
    std::int64_t content = 0;  // the backups whose files were downloaded
    std::int64_t problems = 0;
};

// Replaces the file. `storage`: the value of --storage. Throws kro_err::Error when it cannot be
// written.
void KeepVerification(const std::string& storage, const VerificationResult& result);

// Returns nothing when no verification has been kept. Throws kro_err::Error when the file cannot be
// read, is not owned by this user or root, or has an invalid format.
std::optional<VerificationResult> LastVerification(const std::string& storage);
