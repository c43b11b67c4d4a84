// The fixture of the conformance suite, which checks the contract of a storage for every backend.
// unit/quarn2/storage_conformance.cpp contains the tests and is compiled once. Each backend has a
// source file that instantiates the suite:
//
//     INSTANTIATE_TEST_SUITE_P(Local, StorageConformance,
//                              testing::Values(SiteKind<LocalSite>("local")),
//                              NameOfKind<StorageKind>);
#pragma once

#include "quarn2_backend/registry.h"
#include "storage_site.h"

class StorageConformance : public testing::TestWithParam<StorageKind> {
  protected:
    std::shared_ptr<quarn2::Storage> Open() const {
        return quarn2::GetStorage(quarn2::BackupToken(site_->Token()));
    }
    // Opens the storage with a limit of four requests at the same time.
    std::shared_ptr<quarn2::Storage> OpenParallel() const {
        const std::string token = site_->Token();
        const char* const mark = token.find('?') == std::string::npos ? "?" : "&";
        return quarn2::GetStorage(quarn2::BackupToken(token + mark + "parallel=4"));
    }
    std::unique_ptr<quarn2::StorageBackend> OpenBackend() const {
        const quarn2::BackupToken token(site_->Token());
        auto backend = quarn2::FindScheme(token.scheme())->open(token);
        const std::string password = token.Param("arch_password");
        return password.empty() ? std::move(backend)
                                : quarn2::Encrypted(std::move(backend), password);
    }
    // The size that a file of `size` bytes has on the storage.
    std::int64_t StoredSize(std::int64_t size) const {
        return KeyHash().empty() ? size : quarn2::SizeEncrypted("file", size);
    }
    std::string KeyHash() const { return quarn2::BackupToken(site_->Token()).Hash(); }
    std::string LocalFile(const std::string& content, const std::string& name = "source") const {
        local_files::Save(local_ / name, content);
        return local_ / name;
    }
    bool Upload(const std::string& remote, const std::string& content) {
        return storage_->Upload(remote, LocalFile(content));
    }
    std::string Download(const std::string& remote) const { return DownloadBy(*storage_, remote); }
    std::string DownloadBy(quarn2::Storage& storage, const std::string& remote,
                           const std::string& name = "target") const {
        storage.Download(remote, local_ / name);
        return local_files::Load(local_ / name);
    }
    std::vector<std::string> List(const std::string& directory) const {
        std::vector<std::string> names = {"left from before"};
        storage_->List(names, directory);
        return names;
    }

    std::unique_ptr<StorageSite> site_ = GetParam().make();
    TempDir local_;
    std::shared_ptr<quarn2::Storage> storage_ = Open();
};
