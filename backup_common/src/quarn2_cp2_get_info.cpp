#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

// The file of a backup that a restore needs first: the isolated catalogue or the index.
struct Companion {
    quarn2::FileDownload file;
    // The line for the list of encrypted indexes. Not empty when the index has a key other than the
    // token's and is therefore stored encrypted.
    std::string encrypted_line;
};

// `name` is the name of the info file.
Companion CompanionOf(const std::string& local_dir, const std::string& name,
                      quarn2::InfoMap& info) {
    const std::string stem = name.substr(0, name.size() - kInfo.size());
    if (str::EndsWith(info["last-slice"], ".dar")) {
        const std::string catalogue = stem + ".1.dar";
        return {{catalogue, kro_file::ConcatPath(local_dir, catalogue)}, {}};
    }
    // `stem` may be empty. If the ending were empty too, the path would be that of the directory.
    const std::string local_index = kro_file::ConcatPath(local_dir, stem + ".tgz");
    const std::string remote = stem + quarn2::GetExtByInfo(info);
    const auto key_hash = info.find("key_hash");
    const std::string hash = quarn2::BackupToken(kro_env::GetEnv("BACKUP_TOKEN")).Hash();
    if (key_hash == info.end() || key_hash->second == hash) return {{remote, local_index}, {}};
    return {{remote, local_index + ".aes"}, EncryptedIndexLine(stem + ".tgz.aes", hash)};
}

// The storage of BACKUP_TOKEN, whose files are downloaded without decryption.
std::shared_ptr<quarn2::Storage> CiphertextStorage() {
    quarn2::BackupToken token(kro_env::GetEnv("BACKUP_TOKEN"));
    token.DropParam("arch_password");
    std::shared_ptr<quarn2::Storage> storage = OpenStorage(token);
    storage->AllowCiphertext(true);
    return storage;
}

void Download(const std::string& local_dir, const std::string& node, quarn2::Storage& storage,
              std::string& encrypted_lines, const std::string& name) {
    const std::string local_info = kro_file::ConcatPath(local_dir, name);
    storage.Download(name, local_info);
    quarn2::InfoMap info = quarn2::GetInfo(local_info);
    const Companion companion = CompanionOf(local_dir, name, info);
    if (companion.encrypted_line.empty()) {
        storage.Download(companion.file.remote, companion.file.local);
    } else {
        CiphertextStorage()->Download(companion.file.remote, companion.file.local);
        str::inpl::Append(encrypted_lines, companion.encrypted_line, "\n");
    }
    if (!node.empty() && str::EndsWith(local_info, "#.info")) {
        info["node"] = node;
        kro_file::Write(local_info, str::Join(info, "\n"));
    }
}

void LogFailure(const std::exception& error) {
    KRO_LOG(kLog, 4, "Cant download file: '%s'", error.what());
}

// The downloads of many info files and their companions. A companion is requested as soon as its
// info file has arrived.
class InfoDownloads {
  public:
    InfoDownloads(const std::vector<InfoFile>& files, std::string& encrypted_lines,
                  const InfoFileDone& done)
        : files_(files), encrypted_lines_(encrypted_lines), done_(done) {}

    void Run(quarn2::Storage& storage) {
        storage.DownloadMany([this] { return Next(); }, Done());
        if (encrypted_.empty()) return;
        const std::shared_ptr<quarn2::Storage> ciphertexts = CiphertextStorage();
        ciphertexts->DeferSync(true);
        companions_.swap(encrypted_);
        ciphertexts->DownloadMany([this] { return Next(); }, Done());
    }

  private:
    struct Request {
        std::size_t position = 0;
        bool is_companion = false;
        Companion companion;
    };

    quarn2::Storage::DownloadDone Done() {
        return [this](const quarn2::FileDownload& file, const quarn2::FileError& error) {
            const auto found = running_.find(file.local);
            const Request request = std::move(found->second);
            running_.erase(found);
            Take(request, error);
        };
    }

    std::optional<quarn2::FileDownload> Next() {
        if (!companions_.empty()) {
            Request request = std::move(companions_.front());
            companions_.pop_front();
            const quarn2::FileDownload file = request.companion.file;
            running_.emplace(file.local, std::move(request));
            return file;
        }
        if (next_ == files_.size()) return std::nullopt;
        const InfoFile& file = files_[next_];
        KRO_LOG(kLog, 6, "Download %s", file.name.c_str());
        std::string local = kro_file::ConcatPath(file.local_dir, file.name);
        running_.emplace(local, Request{next_++, false, {}});
        return quarn2::FileDownload{file.name, std::move(local)};
    }

    void Take(const Request& request, const quarn2::FileError& error) {
        if (error) {
            LogFailure(*error);
            return done_(request.position, !IsUnavailable(*error));
        }
        if (!request.is_companion) return RequestCompanion(request.position);
        const std::string& line = request.companion.encrypted_line;
        if (!line.empty()) str::inpl::Append(encrypted_lines_, line, "\n");
        done_(request.position, true);
    }

    void RequestCompanion(std::size_t position) {
        const InfoFile& file = files_[position];
        Request request{position, true, {}};
        try {
            quarn2::InfoMap info = quarn2::GetInfo(kro_file::ConcatPath(file.local_dir, file.name));
            request.companion = CompanionOf(file.local_dir, file.name, info);
        } catch (const std::exception& error) {
            LogFailure(error);
            return done_(position, true);
        }
        const bool is_encrypted = !request.companion.encrypted_line.empty();
        (is_encrypted ? encrypted_ : companions_).push_back(std::move(request));
    }

    const std::vector<InfoFile>& files_;
    std::string& encrypted_lines_;
    const InfoFileDone& done_;
    std::size_t next_ = 0;
    std::deque<Request> companions_;
    std::deque<Request> encrypted_;
    std::multimap<std::string, Request> running_;  // by local path
};

}  // namespace

bool IsUnavailable(const std::exception& error) {
    const auto* const reason = dynamic_cast<const kro_err::Error*>(&error);
    return reason != nullptr && reason->kind() == kro_err::Kind::kUnavailable;
}

bool IsInfoFileName(const std::string& name) {
    return str::EndsWith(name, kInfo) && name.find('#') == std::string::npos;
}

void DownloadInfoFiles(quarn2::Storage& storage, const std::vector<InfoFile>& files,
                       std::string& encrypted_lines, const InfoFileDone& done) {
    InfoDownloads(files, encrypted_lines, done).Run(storage);
}

bool DownloadInfoFile(const std::string& local_dir, const std::string& node,
                      std::shared_ptr<quarn2::Storage> storage, const std::string& /*filter*/,
                      std::string& encrypted_lines, const std::string& name) {
    if (!IsInfoFileName(name)) return true;
    KRO_LOG(kLog, 6, "Download %s", name.c_str());
    try {
        Download(local_dir, node, *storage, encrypted_lines, name);
        return true;
    } catch (const std::exception& error) {
        LogFailure(error);
        return !IsUnavailable(error);
    }
}
