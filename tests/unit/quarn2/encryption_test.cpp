// Encrypted files: the format on the storage, the downloaded content, and the refusal of changed
// files.
#include <gmock/gmock.h>

#include <chrono>
#include <limits>

#include "backends/memory/memory_backend.h"
#include "crypto/header.h"
#include "storage/encrypted_backend.h"
#include "storage_site.h"

using kro_err::Kind;
using testing::Optional;

namespace {

constexpr std::size_t kHeader = 64;
constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kTag = 16;
constexpr std::size_t kSealed = kChunk + kTag;
const std::size_t kSizes[] = {0, 1, kChunk - 1, kChunk, kChunk + 1, 3 * kChunk + 5};

class Encryption : public testing::Test {
  protected:
    static std::shared_ptr<quarn2::Storage> Open(const std::string& password) {
        const std::string param = password.empty() ? "" : "?arch_password=" + password;
        return quarn2::GetStorage(quarn2::BackupToken("memory:encryption" + param));
    }
    void Upload(const std::string& remote, const std::string& content) const {
        local_files::Save(local_ / "source", content);
        ASSERT_TRUE(storage_->Upload(remote, local_ / "source"));
    }
    std::string Download(const std::string& remote) const {
        storage_->Download(remote, local_ / "target");
        return local_files::Load(local_ / "target");
    }
    std::string Stored(const std::string& remote = "file") const {
        return store_->files().at(remote);
    }

    // Expects that a download refuses the stored bytes. No new local file appears, and an old one
    // stays.
    void ExpectRefused(const std::string& stored, const std::string& what) const {
        store_->SetFile("file", stored);
        local_files::Save(local_ / "old", "old");
        EXPECT_TRUE(KindOf([&] { storage_->Download("file", local_ / "old"); })) << what;
        EXPECT_EQ(local_files::Load(local_ / "old"), "old") << what;
        EXPECT_TRUE(KindOf([&] { storage_->Download("file", local_ / "new"); })) << what;
        EXPECT_FALSE(local_files::Has(local_ / "new")) << what;
        EXPECT_FALSE(local_files::Has(local_ / ".new.part~")) << what;
    }

    static std::shared_ptr<quarn2::MemoryStore> NewStore() {
        quarn2::RegisterMemoryScheme();
        auto store = quarn2::MemoryStore::Named("encryption");
        store->Reset();
        return store;
    }

    std::shared_ptr<quarn2::MemoryStore> store_ = NewStore();
    TempDir local_;
    std::shared_ptr<quarn2::Storage> storage_ = Open("secret");
};

std::string Flipped(std::string bytes, std::size_t at, int bit = 0) {
    bytes.at(at) = static_cast<char>(bytes.at(at) ^ (1 << bit));
    return bytes;
}

// --- Stored files ---

TEST_F(Encryption, GivesBackEverySizeAndTellsTheStoredOne) {
    for (const std::size_t size : kSizes) {
        const std::string content = local_files::Noise(size);
        Upload("file", content);
        EXPECT_TRUE(Download("file") == content) << size;
        Open("secret")->Download("file", local_ / "target");
        EXPECT_TRUE(local_files::Load(local_ / "target") == content) << "by another object";
        const auto stored = static_cast<std::int64_t>(Stored().size());
        EXPECT_EQ(storage_->Size(local_ / "source"), stored);
        EXPECT_EQ(storage_->GetFileInfo(local_ / "source"),
                  "source " + std::to_string(stored) + " " + quarn2::PasswordHash("secret"));
    }
}

TEST_F(Encryption, HasTheSizeOfHeaderContentAndTags) {
    const std::size_t chunks[] = {1, 1, 1, 1, 2, 4};
    for (std::size_t i = 0; i < std::size(kSizes); ++i) {
        Upload("file", local_files::Noise(kSizes[i]));
        EXPECT_EQ(Stored().size(), kHeader + kSizes[i] + chunks[i] * kTag);
        EXPECT_EQ(quarn2::PlainSize(static_cast<std::int64_t>(Stored().size()), kChunk),
                  static_cast<std::int64_t>(kSizes[i]));
    }
}

// A server may report any size, even one that no file can have.
TEST(PlainSize, OfSizesThatNoFileHasIsNoLessThanNothing) {
    constexpr std::int64_t kMaxSize = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMinSize = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(quarn2::PlainSize(kMaxSize, 4096), 9187483429707480895);
    EXPECT_EQ(quarn2::PlainSize(kMinSize, 4096), 0);
    EXPECT_EQ(quarn2::PlainSize(-1, 4096), 0);
    EXPECT_EQ(quarn2::PlainSize(0, 4096), 0);
    EXPECT_EQ(quarn2::PlainSize(kHeader, 4096), 0);
    EXPECT_EQ(quarn2::PlainSize(kHeader + kTag, 4096), 0);
}

TEST_F(Encryption, ShowsNothingOfTheContentAndIsNeverTheSameTwice) {
    const std::string content(3 * kChunk, 'a');
    Upload("file", content);
    const std::string first = Stored();
    EXPECT_EQ(first.substr(0, 8), "QN2ENC1\n");
    EXPECT_EQ(first.find("aaaa"), std::string::npos);
    Upload("file", content);
    EXPECT_EQ(Stored().substr(0, 28), first.substr(0, 28)) << "magic, cost and salt";
    for (std::size_t at = kHeader; at < first.size(); at += kSealed) {
        EXPECT_NE(Stored().substr(at, kTag), first.substr(at, kTag));
    }
}

TEST_F(Encryption, LeavesInfoFilesPlain) {
    const std::string name = "user/2026-11-20/F2026-11-20.info";
    for (const char* const content : {"plain text", "", "QN2ENC1\n"}) {
        Upload(name, content);
        EXPECT_EQ(Stored(name), content);
        EXPECT_EQ(Download(name), content);
    }
    local_files::Save(local_ / "F2026-11-20.info", "plain text");
    EXPECT_EQ(storage_->Size(local_ / "F2026-11-20.info"), 10);
}

TEST_F(Encryption, HandsOutWhatWasStoredBeforeThePassword) {
    for (const std::size_t size : {1UL, 7UL, 8UL, 63UL, 64UL, 65UL, 200 * 1024UL}) {
        store_->SetFile("file", local_files::Noise(size));
        EXPECT_TRUE(Download("file") == local_files::Noise(size)) << size;
    }
}

TEST_F(Encryption, WithoutAPasswordAnEncryptedFileIsRefused) {
    Upload("file", local_files::Noise(3 * kChunk));
    const std::shared_ptr<quarn2::Storage> plain = Open("");
    local_files::Save(local_ / "old", "old");
    for (const std::size_t size : {Stored().size(), kHeader, std::size_t{8}}) {
        store_->SetFile("file", Stored().substr(0, size));
        for (const char* target : {"old", "new"}) {
            EXPECT_THAT(KindOf([&] { plain->Download("file", local_ / target); }),
                        Optional(Kind::kUnauthorized));
        }
        EXPECT_EQ(local_files::Load(local_ / "old"), "old");
        EXPECT_FALSE(local_files::Has(local_ / "new"));
        EXPECT_FALSE(local_files::Has(local_ / ".new.part~"));
    }
}

TEST_F(Encryption, WithoutAPasswordOtherFilesAreHandedOut) {
    const std::shared_ptr<quarn2::Storage> plain = Open("");
    for (const std::string& content : {std::string(), std::string("QN2ENC1"),
                                       std::string("QN2ENC2\n"), local_files::Noise(kChunk)}) {
        store_->SetFile("file", content);
        plain->Download("file", local_ / "target");
        EXPECT_EQ(local_files::Load(local_ / "target"), content);
    }
}

TEST_F(Encryption, CiphertextIsHandedOutWhereItIsAllowed) {
    Upload("file", "content");
    const std::shared_ptr<quarn2::Storage> plain = Open("");
    plain->AllowCiphertext(true);
    plain->Download("file", local_ / "target");
    EXPECT_EQ(local_files::Load(local_ / "target"), Stored());
}

TEST_F(Encryption, EncryptsWhatLooksEncrypted) {
    Upload("file", "text");
    const std::string stored = Stored();
    Upload("file", stored);
    EXPECT_EQ(Download("file"), stored);
}

// Every later version must be able to open a file of the first version.
TEST_F(Encryption, OpensAFileOfTheFirstVersion) {
    const std::string hex =
        "514e32454e43310a10080110ed773c8e761068e7ab82d4ae12d0fc06586c372870173b4b58f1"
        "793731cbee584984002f9abb996d71fd5b67a2a4c230ed73c1bdb6f11560d2bedb24d71faca6"
        "a60269f4e178e90cc4f4d9237e81e751b0594663b7405b1aee3a297069329b016a7157";
    std::string stored;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        stored += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    store_->SetFile("golden", stored);
    EXPECT_EQ(Download("golden"), "written once, readable for ever");
}

// --- Refused files ---

TEST_F(Encryption, AWrongPasswordIsUnauthorized) {
    Upload("file", local_files::Noise(kChunk + 1));
    for (const char* const password : {"Secret", "secret%20", "secre", "x"}) {
        const auto other = Open(password);
        EXPECT_THAT(KindOf([&] { other->Download("file", local_ / "new"); }),
                    Optional(Kind::kUnauthorized));
        EXPECT_FALSE(local_files::Has(local_ / "new"));
    }
}

// Does not change the magic number: without it the file counts as never encrypted.
TEST_F(Encryption, AChangedByteOfTheHeaderIsFoundOut) {
    Upload("file", "some text");
    const std::string good = Stored();
    for (std::size_t at = 8; at < kHeader; ++at) {
        ExpectRefused(Flipped(good, at), "byte " + std::to_string(at));
    }
}

TEST_F(Encryption, AChangedByteOfAChunkIsFoundOut) {
    Upload("file", local_files::Noise(2 * kChunk + 100));
    const std::string good = Stored();
    for (const std::size_t chunk : {0UL, 1UL, 2UL}) {
        const std::size_t begin = kHeader + chunk * kSealed;
        const std::size_t end = std::min(begin + kSealed, good.size());
        for (const std::size_t at : {begin, begin + 50, end - kTag - 1, end - kTag, end - 1}) {
            ExpectRefused(Flipped(good, at, 7), "byte " + std::to_string(at));
        }
    }
}

TEST_F(Encryption, EveryBitOfASmallFileCounts) {
    Upload("file", "abc");
    const std::string good = Stored();
    for (std::size_t at = kHeader; at < good.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) ExpectRefused(Flipped(good, at, bit), "one bit");
    }
}

TEST_F(Encryption, ACutTailIsFoundOut) {
    Upload("file", local_files::Noise(2 * kChunk + 100));
    const std::string good = Stored();
    for (std::size_t length = 0; length <= kHeader + kTag + 1; ++length) {
        ExpectRefused(good.substr(0, length), "cut to " + std::to_string(length));
    }
    for (const std::size_t border : {kHeader + kSealed, kHeader + 2 * kSealed, good.size()}) {
        for (const std::size_t less : {0UL, 1UL, kTag - 1, kTag, kTag + 1, 50UL}) {
            if (less == 0 && border == good.size()) continue;
            ExpectRefused(good.substr(0, border - less),
                          "cut to a border less " + std::to_string(less));
        }
    }
}

TEST_F(Encryption, MissingAndMovedChunksAreFoundOut) {
    Upload("file", local_files::Noise(3 * kChunk));
    const std::string good = Stored();
    const auto chunk = [&good](std::size_t i) {
        return good.substr(kHeader + i * kSealed, kSealed);
    };
    const std::string header = good.substr(0, kHeader);
    ExpectRefused(header + chunk(1) + chunk(0) + chunk(2), "two swapped");
    ExpectRefused(header + chunk(0) + chunk(2) + chunk(1), "the last one swapped");
    ExpectRefused(header + chunk(1) + chunk(2), "the first one missing");
    ExpectRefused(header + chunk(0) + chunk(2), "the second one missing");
    ExpectRefused(header + chunk(0) + chunk(0) + chunk(2), "one in another's place");
    ExpectRefused(good + chunk(2), "the last one twice");
    ExpectRefused(good + "x", "a byte behind the end");
    EXPECT_EQ(header + chunk(0) + chunk(1) + chunk(2), good);
}

TEST_F(Encryption, PiecesOfAnotherFileAreFoundOut) {
    Upload("file", local_files::Noise(2 * kChunk));
    const std::string good = Stored();
    Upload("file", local_files::Noise(2 * kChunk));
    const std::string twin = Stored();
    ExpectRefused(good + twin.substr(kHeader), "the other's chunks appended");
    ExpectRefused(good.substr(0, kHeader) + twin.substr(kHeader), "the other's chunks");
    ExpectRefused(good.substr(0, kHeader + kSealed) + twin.substr(kHeader + kSealed),
                  "the other's last chunk");
    ExpectRefused(good.substr(0, 28) + twin.substr(28, 16) + good.substr(44), "the other's number");
}

TEST_F(Encryption, AnotherEncryptedFileInItsPlaceIsFoundOut) {
    Upload("other", "other text");
    ExpectRefused(Stored("other"), "a file of another name");
    EXPECT_EQ(Download("other"), "other text");
    store_->SetFile("directory/other", Stored("other"));
    EXPECT_EQ(Download("directory/other"), "other text") << "only its own name counts";
}

// The most expensive of these costs would need two terabytes of memory, or a day.
TEST_F(Encryption, AHostileCostIsRefusedBeforeAKeyIsDerived) {
    Upload("file", "text");
    const std::string good = Stored();
    const std::pair<std::size_t, int> hostile[] = {{8, 19}, {8, 31},  {8, 63},  {8, 255}, {8, 0},
                                                   {9, 17}, {9, 255}, {9, 0},   {10, 5},  {10, 255},
                                                   {10, 0}, {11, 21}, {11, 63}, {11, 0},  {11, 11}};
    for (const auto& [at, value] : hostile) {
        std::string bad = good;
        bad[at] = static_cast<char>(value);
        ExpectRefused(bad, std::to_string(value) + " at " + std::to_string(at));
        EXPECT_THAT(KindOf([&] { storage_->Download("file", local_ / "new"); }),
                    Optional(Kind::kFailed))
            << "a key was derived and found to be wrong: " << value << " at " << at;
    }
}

// --- Keys ---

TEST_F(Encryption, TheHashIsDerivedOncePerPassword) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const std::string hash = quarn2::PasswordHash("asked for often");
    const auto first = Clock::now() - begin;
    const auto again = Clock::now();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(quarn2::PasswordHash("asked for often"), hash);
    EXPECT_LT(Clock::now() - again, first) << "a hundred cached answers against one derivation";
    EXPECT_GT(first, std::chrono::milliseconds(20)) << "guessing passwords must be slow";
    EXPECT_NE(quarn2::PasswordHash("asked for Often"), hash);
}

// --- Pieces ---

// A backend that stores one file and transfers it in blocks of one size.
class PieceBackend final : public quarn2::StorageBackend {
  public:
    PieceBackend(std::string& file, std::size_t piece) : file_(file), piece_(piece) {}

    bool Put(const std::string& /*name*/, quarn2::ByteSource& source) override {
        file_.assign(static_cast<std::size_t>(source.size()), '\0');
        for (std::size_t at = 0; at < file_.size(); at += piece_) {
            const std::size_t count = std::min(piece_, file_.size() - at);
            EXPECT_EQ(Read(source, at, std::span(file_).subspan(at, count)), count);
        }
        CheckAgain(source);
        return true;
    }
    void Get(const std::string& /*name*/, quarn2::ByteSink& sink) override {
        sink.Expect(static_cast<std::int64_t>(file_.size()));
        const auto bytes = std::as_bytes(std::span(file_));
        for (std::size_t at = 0; at < file_.size(); at += piece_) {
            sink.Write(bytes.subspan(at, std::min(piece_, file_.size() - at)));
        }
    }
    void Remove(const std::string& /*name*/) override {}
    void RemoveDir(const std::string& /*name*/) override {}
    void MakeDir(const std::string& /*name*/) override {}
    std::vector<std::string> List(const std::string& /*name*/) override { return {}; }
    void Clear() override {}

  private:
    static std::size_t Read(quarn2::ByteSource& source, std::size_t at, std::span<char> room) {
        return source.ReadAt(static_cast<std::int64_t>(at), std::as_writable_bytes(room));
    }

    // Checks that repeated reads return the same bytes. The positions go from the end to the
    // beginning, and some reads extend beyond the end.
    void CheckAgain(quarn2::ByteSource& source) const {
        for (std::size_t end = file_.size(); end > 0; end -= std::min<std::size_t>(end, 70001)) {
            CheckAgain(source, end - 1);
        }
        for (std::size_t at = 0; at < std::min(file_.size(), kHeader + 2); ++at) {
            CheckAgain(source, at);
        }
    }
    void CheckAgain(quarn2::ByteSource& source, std::size_t at) const {
        std::string again(100 * 1024, '\0');
        const std::size_t got = Read(source, at, again);
        EXPECT_EQ(got, std::min(again.size(), file_.size() - at));
        EXPECT_TRUE(again.substr(0, got) == file_.substr(at, got)) << at;
    }

    std::string& file_;
    std::size_t piece_;
};

struct TextSink final : quarn2::ByteSink {
    void Expect(std::int64_t size) override { expected.push_back(size); }
    void Write(std::span<const std::byte> bytes) override {
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    std::string text;
    std::vector<std::int64_t> expected;
};

const std::size_t kPieces[] = {1000,        kHeader,     kChunk,          kSealed,
                               kSealed + 1, kSealed * 2, kSealed * 2 + 7, 1 << 20};

TEST(EncryptionInPieces, IsTheSameWhateverTheirSize) {
    for (const std::size_t piece : kPieces) {
        for (const std::size_t size : {0UL, 1UL, kChunk, 2 * kChunk, 5 * kChunk + 321}) {
            std::string file;
            const auto backend =
                quarn2::Encrypted(std::make_unique<PieceBackend>(file, piece), "secret");
            TextSource source(local_files::Noise(size));
            ASSERT_TRUE(backend->Put("file", source));
            TextSink sink;
            backend->Get("file", sink);
            EXPECT_TRUE(sink.text == local_files::Noise(size)) << piece << " " << size;
            EXPECT_THAT(sink.expected, testing::ElementsAre(size));
        }
    }
}

TEST(EncryptionInPieces, APlainFileIsTheSameWhateverTheirSize) {
    for (const std::size_t size : {1UL, 63UL, 64UL, 65UL, 3 * kChunk}) {
        for (const std::size_t piece : {std::size_t{1}, std::size_t{60}, kChunk}) {
            std::string file = local_files::Noise(size);
            TextSink sink;
            quarn2::Encrypted(std::make_unique<PieceBackend>(file, piece), "x")->Get("f", sink);
            EXPECT_TRUE(sink.text == file) << piece << " " << size;
            EXPECT_THAT(sink.expected, testing::ElementsAre(size));
        }
    }
}

// With every block size, no byte of a bad chunk reaches the sink.
TEST(EncryptionInPieces, NothingOfABadChunkIsHandedOn) {
    for (const std::size_t piece : kPieces) {
        std::string file;
        const auto backend =
            quarn2::Encrypted(std::make_unique<PieceBackend>(file, piece), "secret");
        TextSource source(local_files::Noise(3 * kChunk));
        ASSERT_TRUE(backend->Put("file", source));
        file = Flipped(file, kHeader + kSealed + 9);
        TextSink sink;
        EXPECT_THAT(KindOf([&] { backend->Get("file", sink); }), Optional(Kind::kFailed));
        EXPECT_TRUE(sink.text == local_files::Noise(3 * kChunk).substr(0, kChunk)) << piece;
    }
}

TEST(EncryptionInPieces, ABrokenSourceBreaksTheUpload) {
    std::string file;
    const auto backend = quarn2::Encrypted(std::make_unique<PieceBackend>(file, kChunk), "secret");
    TextSource source(local_files::Noise(3 * kChunk));
    source.fail_from = 2 * kChunk;
    EXPECT_THAT(KindOf([&] { backend->Put("file", source); }), Optional(Kind::kFailed));
}

}  // namespace
