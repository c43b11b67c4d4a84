#include <string>

#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_cp2_get.h"
#include "quarn2_cp2_misc_encrypted.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr std::string_view kInfo = ".info";

// Downloads the index of a backup whose archive is not a .dar file. An index with a key other than
// the token's is stored encrypted and listed in `encrypted_lines`.
void DownloadIndex(quarn2::Storage& storage, const std::string& local_dir, const std::string& stem,
                   const quarn2::InfoMap& info, std::string& encrypted_lines) {
    // `stem` may be empty. Without an ending, the path would then be that of the directory.
    const std::string local_index = kro_file::ConcatPath(local_dir, stem + ".tgz");
    quarn2::BackupToken token(kro_env::GetEnv("BACKUP_TOKEN"));
    const std::string remote = stem + quarn2::GetExtByInfo(info);
    const auto key_hash = info.find("key_hash");
    const std::string hash = token.Hash();
    if (key_hash == info.end() || key_hash->second == hash) {
        storage.Download(remote, local_index);
        return;
    }
    token.DropParam("arch_password");
    const auto plain = OpenStorage(token);
    plain->AllowCiphertext(true);
    plain->Download(remote, local_index + ".aes");
    str::inpl::Append(encrypted_lines, EncryptedIndexLine(stem + ".tgz.aes", hash), "\n");
}

void Download(const std::string& local_dir, const std::string& node, quarn2::Storage& storage,
              std::string& encrypted_lines, const std::string& name) {
    const std::string local_info = kro_file::ConcatPath(local_dir, name);
    storage.Download(name, local_info);
    const std::string stem = name.substr(0, name.size() - kInfo.size());
    quarn2::InfoMap info = quarn2::GetInfo(local_info);
    if (str::EndsWith(info["last-slice"], ".dar")) {
        const std::string catalogue = stem + ".1.dar";
        storage.Download(catalogue, kro_file::ConcatPath(local_dir, catalogue));
    } else {
        DownloadIndex(storage, local_dir, stem, info, encrypted_lines);
    }
    if (!node.empty() && str::EndsWith(local_info, "#.info")) {
        info["node"] = node;
        kro_file::Write(local_info, str::Join(info, "\n"));
    }
}

}  // namespace

bool IsUnavailable(const std::exception& error) {
    const auto* const reason = dynamic_cast<const kro_err::Error*>(&error);
    return reason != nullptr && reason->kind() == kro_err::Kind::kUnavailable;
}

bool DownloadInfoFile(const std::string& local_dir, const std::string& node,
                      std::shared_ptr<quarn2::Storage> storage, const std::string& /*filter*/,
                      std::string& encrypted_lines, const std::string& name) {
    if (!str::EndsWith(name, kInfo) || name.find('#') != std::string::npos) return true;
    KRO_LOG(kLog, 6, "Download %s", name.c_str());
    try {
        Download(local_dir, node, *storage, encrypted_lines, name);
        return true;
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Cant download file: '%s'", error.what());
        return !IsUnavailable(error);
    }
}
