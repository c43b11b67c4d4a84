// The fixture of the suite that checks how a storage behind a network fails when connections break
// or stall, or the server refuses connections. unit/quarn2/storage_trouble.cpp contains the tests
// and is compiled once. Each backend has a source file that instantiates the suite:
//
//     INSTANTIATE_TEST_SUITE_P(Sftp, StorageTrouble,
//                              testing::Values(TroubledSite<SftpSite>("password")),
//                              NameOfKind<RemoteKind>);
#pragma once

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "quarn2_backend/registry.h"
#include "relay.h"
#include "remote_site.h"

using kro_err::Kind;
using testing::Optional;
using Harm = Relay::Harm;
using Way = Relay::Way;
using Names = std::vector<std::string>;

// More than all socket buffers between client and server can hold.
inline constexpr std::int64_t kLarge = 20 * 1024 * 1024 + 1;

// Timeouts of the client in seconds: kTimeout for a peer that falls silent, kLongTimeout for a peer
// that may only be slow.
inline constexpr const char* kTimeout = "3";
inline constexpr const char* kLongTimeout = "30";
// Maximum duration of a failed operation. With the default timeout it would be a minute or more.
inline constexpr std::chrono::seconds kAFewSeconds{30};

// A source that kills the process when the second half of its data is read.
class DeadlySource final : public TextSource {
  public:
    DeadlySource() : TextSource(local_files::Noise(kLarge)) {}
    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        if (offset > kLarge / 2) raise(SIGKILL);
        return TextSource::ReadAt(offset, buffer);
    }
};

class StorageTrouble : public testing::TestWithParam<RemoteKind> {
  protected:
    static std::shared_ptr<quarn2::Storage> Open(const TokenParts& parts) {
        return quarn2::GetStorage(quarn2::BackupToken(parts.Text()));
    }
    std::shared_ptr<quarn2::Storage> OpenDirectly() const { return Open(site_->Parts()); }
    std::shared_ptr<quarn2::Storage> OpenThroughRelay(const char* timeout) const {
        TokenParts parts = site_->Parts();
        parts.host = "127.0.0.2";
        parts.params["timeout"] = timeout;
        return Open(parts);
    }
    // Opens the storage through the relay. Only a stall gets a short timeout, because the client
    // detects a stall only by its timeout. On a busy machine, a short timeout could expire before
    // another kind of failure starts.
    std::shared_ptr<quarn2::Storage> OpenForHarm(Harm harm) const {
        return OpenThroughRelay(harm == Harm::kStall ? kTimeout : kLongTimeout);
    }

    std::string LocalFile(const std::string& content) const {
        local_files::Save(local_ / "source", content);
        return local_ / "source";
    }
    std::string Download(quarn2::Storage& storage, const std::string& name) const {
        const TempDir fresh;
        storage.Download(name, fresh / "target");
        return local_files::Load(fresh / "target");
    }
    Names List(quarn2::Storage& storage) const {
        Names names;
        storage.List(names, "");
        return names;
    }

    // Expects that the action fails within kAFewSeconds with kUnavailable, and that its text
    // contains no secret.
    template <class Action>
    void ExpectUnavailable(const Action& action) {
        const auto begin = std::chrono::steady_clock::now();
        ExpectFailure(Kind::kUnavailable, site_->Parts(), action);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, kAFewSeconds);
    }

    // Expects that the action fails with kUnavailable while the relay causes the failure `harm`. On
    // a busy machine the client's timeout may expire before the relay's failure has started. The
    // action is then repeated.
    template <class Action>
    void ExpectHarmMakesUnavailable(Harm harm, Relay::When when, const Action& action) {
        for (int i = 0; i < 10 && !relay_.Harmed(); ++i) {
            relay_.HarmForGood(harm, when);
            ExpectUnavailable(action);
        }
        ASSERT_TRUE(relay_.Harmed());
    }

    template <class Action>
    void ExpectFailure(Kind kind, const TokenParts& parts, const Action& action) {
        try {
            action();
            ADD_FAILURE() << "nothing failed";
        } catch (const kro_err::Error& error) {
            const std::string text = error.what();
            EXPECT_EQ(error.kind(), kind) << text;
            EXPECT_FALSE(text.empty());
            for (const std::string& secret :
                 {parts.password, TokenParts::Encoded(parts.password)}) {
                EXPECT_TRUE(secret.empty() || text.find(secret) == std::string::npos) << text;
            }
        }
    }

    void ExpectSoonNothingBut(const std::string& name) const {
        ::ExpectSoonNothingBut(*site_, name);
    }
    // Expects at most two files beside the named file, all of them leftovers, which the next upload
    // of the file removes.
    void ExpectSoonAtMostLeftoversBeside(const std::string& name) const {
        EXPECT_TRUE(SoonTrue([&] {
            Names names = site_->Everything();
            names.erase(std::remove(names.begin(), names.end(), name), names.end());
            return names.size() <= 2 &&
                   std::all_of(names.begin(), names.end(),
                               [&](const std::string& each) { return site_->IsLeftover(each); });
        })) << testing::PrintToString(site_->Everything());
    }
    // Uploads in a child process, which kills itself when it has read half of the source. Returns
    // when the server has noticed that: pure-ftpd renames a file that it deletes, and leaves it
    // under the new name if another of its processes still writes the file.
    void KillUpload(const std::string& name) const {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            DeadlySource source;
            const auto backend = OpenBackend();
            backend->Put(name, source);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        WaitUntilNothingIsWritten();
    }
    // Waits until the server has written the data that it received from broken connections. Until
    // then, the next upload assumes that their temporary files belong to running uploads.
    void WaitUntilNothingIsWritten() const {
        EXPECT_TRUE(SoonTrue([&] { return !site_->IsBeingWritten(); }));
    }
    std::unique_ptr<quarn2::StorageBackend> OpenBackend() const {
        const quarn2::BackupToken token(site_->Token());
        return quarn2::FindScheme(token.scheme())->open(token);
    }

    enum class Afterwards { kOld, kOldOrNew };

    // Uploads a file over an old one while the relay causes a failure. The old file must survive.
    // With kOldOrNew, the new file is allowed too.
    void TestUpload(Harm harm, Relay::When when, Afterwards afterwards = Afterwards::kOld) {
        const std::string content = local_files::Noise(kLarge);
        ASSERT_TRUE(OpenDirectly()->Upload("dir/file", LocalFile("old")));
        const auto storage = OpenForHarm(harm);
        ExpectHarmMakesUnavailable(harm, when,
                                   [&] { storage->Upload("dir/file", LocalFile(content)); });
        relay_.Heal();
        const std::string stored = Download(*OpenDirectly(), "dir/file");
        if (afterwards == Afterwards::kOld) {
            EXPECT_TRUE(stored == "old") << stored.size() << " bytes";
        } else {
            EXPECT_TRUE(stored == "old" || stored == content) << stored.size() << " bytes";
        }
        ExpectSoonAtMostLeftoversBeside("dir/file");
        WaitUntilNothingIsWritten();
        EXPECT_TRUE(storage->Upload("dir/file", LocalFile("next")));
        EXPECT_EQ(Download(*storage, "dir/file"), "next");
        ExpectSoonNothingBut("dir/file");
    }

    // Downloads a file, also over an old local file, while the relay causes a failure. No new local
    // file may appear, and the old one must survive.
    void TestDownload(Harm harm, Relay::When when) {
        const std::string content = local_files::Noise(kLarge);
        ASSERT_TRUE(OpenDirectly()->Upload("dir/file", LocalFile(content)));
        const auto storage = OpenForHarm(harm);
        const TempDir targets;
        local_files::Save(targets / "old", "old");
        ExpectHarmMakesUnavailable(harm, when,
                                   [&] { storage->Download("dir/file", targets / "new"); });
        ExpectUnavailable([&] { storage->Download("dir/file", targets / "old"); });
        EXPECT_EQ(local_files::Load(targets / "old"), "old");
        const std::filesystem::directory_iterator files(targets.path());
        EXPECT_EQ(std::distance(begin(files), end(files)), 1) << "the old file alone";
        relay_.Heal();
        EXPECT_TRUE(Download(*storage, "dir/file") == content);
    }

    std::unique_ptr<RemoteSite> site_ = GetParam().make();
    Relay relay_{site_->Ports()};
    TempDir local_;
};
