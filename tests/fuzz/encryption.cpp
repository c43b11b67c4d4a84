// Fuzz target: encrypted files. The target checks that, for all responses of a storage, a download
// fails or returns exactly the stored content, and never outputs data that were not stored.
//
// The target builds the encrypted file itself, in the documented format, with a key derivation that
// is fast enough for many inputs. A download does not decrypt a file that does not begin with the
// magic number, because such a file was stored before a password was set.
#include <algorithm>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "crypto/cipher.h"
#include "crypto/header.h"
#include "fuzz.h"
#include "kro/kro_err.h"
#include "storage/encrypted_backend.h"

namespace {

using fuzz::Require;
using quarn2::ByteSink;
using quarn2::ByteSource;

constexpr std::uint8_t kChunkBits = 12;
constexpr std::size_t kChunk = std::size_t{1} << kChunkBits;
constexpr std::size_t kSealed = kChunk + quarn2::kTagSize;
constexpr std::size_t kCostAt = 8;
constexpr std::size_t kSaltAt = 12;
constexpr std::size_t kSaltSize = 16;
const std::string kPassword = "password";
const std::string kName = "web1.tgz";

std::span<const std::byte> BytesOf(std::string_view text) { return std::as_bytes(std::span(text)); }

std::string TextOf(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// --- Sealing, by the documented format ---

std::string HeaderOf(const quarn2::Key& master, char number, std::string_view name) {
    std::string header(quarn2::kMagic);
    header += {1, 1, 1, static_cast<char>(kChunkBits)};
    header += std::string(kSaltSize, 's');
    const std::string file(kSaltSize, number);
    header += file;
    header += TextOf(quarn2::KeyFor(master, "password check", {})).substr(0, 8);
    const quarn2::Key key = quarn2::KeyFor(master, "header", BytesOf(file));
    const std::string text = header + std::string(name);
    return header + TextOf(quarn2::Authenticate(key, BytesOf(text))).substr(0, 12);
}

std::string Sealed(const std::string& plain, char number, std::string_view name) {
    static const quarn2::Key master =
        quarn2::KeyFromPassword(kPassword, BytesOf(std::string(kSaltSize, 's')), {1, 1, 1});
    const std::string file(kSaltSize, number);
    quarn2::ChunkCipher cipher(quarn2::KeyFor(master, "chunks", BytesOf(file)),
                               quarn2::ChunkCipher::Use::kSeal);
    std::string sealed = HeaderOf(master, number, name);
    std::size_t begin = 0;
    for (std::uint64_t count = 0; count == 0 || begin < plain.size(); ++count) {
        const std::string piece = plain.substr(begin, kChunk);
        begin += piece.size();
        std::vector<std::byte> room(piece.size() + quarn2::kTagSize);
        cipher.Seal(count, begin == plain.size(), BytesOf(piece), room);
        sealed += TextOf(room);
    }
    return sealed;
}

// --- A storage with arbitrary content ---

class OneFile final : public quarn2::StorageBackend {
  public:
    bool Put(const std::string& /*name*/, ByteSource& source) override {
        std::vector<std::byte> buffer(piece_);
        stored_.clear();
        for (std::int64_t at = 0; at < source.size();) {
            const std::size_t got = source.ReadAt(at, buffer);
            stored_ += TextOf(std::span(buffer).first(got));
            at += static_cast<std::int64_t>(got);
        }
        source.CheckUnchanged();
        return true;
    }
    void Get(const std::string& /*name*/, ByteSink& sink) override {
        if (told_) sink.Expect(*told_);
        for (std::string_view rest = stored_; !rest.empty();) {
            sink.Write(BytesOf(rest.substr(0, piece_)));
            rest.remove_prefix(std::min(piece_, rest.size()));
        }
    }
    void Remove(const std::string& /*name*/) override {}
    void RemoveDir(const std::string& /*name*/) override {}
    void MakeDir(const std::string& /*name*/) override {}
    std::vector<std::string> List(const std::string& /*name*/) override { return {}; }
    void Clear() override {}

    std::string stored_;
    std::size_t piece_ = 1;
    std::optional<std::int64_t> told_;
};

class Taken final : public ByteSink {
  public:
    void Expect(std::int64_t size) override { expected = size; }
    void Write(std::span<const std::byte> bytes) override { text += TextOf(bytes); }

    std::string text;
    std::optional<std::int64_t> expected;
};

class Plain final : public ByteSource {
  public:
    explicit Plain(const std::string& text) : text_(text) {}
    std::int64_t size() const override { return static_cast<std::int64_t>(text_.size()); }
    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        const std::string piece = text_.substr(static_cast<std::size_t>(offset), buffer.size());
        std::copy_n(BytesOf(piece).begin(), piece.size(), buffer.begin());
        return piece.size();
    }
    void CheckUnchanged() override {}

  private:
    const std::string& text_;
};

struct Storage {
    OneFile* file = new OneFile;
    std::unique_ptr<quarn2::StorageBackend> backend =
        quarn2::Encrypted(std::unique_ptr<quarn2::StorageBackend>(file), kPassword);
};

Storage& TheStorage() {
    static Storage storage;
    return storage;
}

// --- Mutations of the stored file ---

// Replaces values that would make the key derivation too slow.
void KeepCheap(std::string& stored) {
    if (stored.size() < quarn2::kHeaderSize) return;
    for (std::size_t i = 0; i < 3; ++i) {
        char& cost = stored[kCostAt + i];
        if (static_cast<unsigned char>(cost) > 4 && static_cast<unsigned char>(cost) < 32) cost = 1;
    }
    // The program keeps a key for each salt, so the target uses only a few salts.
    for (std::size_t i = 1; i < kSaltSize; ++i) stored[kSaltAt + i] = 's';
    char& salt = stored[kSaltAt];
    if (salt != 's') salt = static_cast<char>(salt & 3);
}

char Flipped(char byte, unsigned bit) {
    return static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << bit));
}

std::string Chunk(const std::string& sealed, std::size_t number) {
    const std::size_t begin = quarn2::kHeaderSize + number * kSealed;
    return begin < sealed.size() ? sealed.substr(begin, kSealed) : std::string();
}

void Change(std::string& stored, const std::string& other, fuzz::Input& input) {
    const unsigned how = input.Byte();
    const std::size_t at = stored.empty() ? 0 : input.Number() % stored.size();
    switch (how % 8) {
        case 0:
            if (!stored.empty()) stored[at] = Flipped(stored[at], how >> 5U);
            break;
        case 1:
            stored.resize(at);
            break;
        case 2:
            stored += input.Take(1 + how / 8);
            break;
        case 3:
            stored += Chunk(stored, at % 3);
            break;
        case 4:
            stored =
                stored.substr(0, quarn2::kHeaderSize + kSealed * (at % 3)) + Chunk(other, at % 3);
            break;
        case 5:
            stored.erase(at, 1 + how / 8);
            break;
        case 6:
            // Truncates the file at the end of a chunk that is not the last one.
            stored.resize(std::min(stored.size(), quarn2::kHeaderSize + kSealed * (at % 3)));
            break;
        default:
            stored = other.substr(0, std::min(at, other.size())) +
                     stored.substr(std::min(at, stored.size()));
    }
}

// --- Checks ---

bool BeginsAsEncrypted(const std::string& stored) {
    const std::size_t size = std::min(stored.size(), quarn2::kMagic.size());
    return std::string_view(stored).substr(0, size) == quarn2::kMagic.substr(0, size);
}

void CheckDownload(const std::string& plain, const std::string& sealed) {
    Storage& storage = TheStorage();
    const std::string& stored = storage.file->stored_;
    Taken taken;
    const bool accepted = fuzz::Accepts([&] { storage.backend->Get(kName, taken); });
    if (!BeginsAsEncrypted(stored)) {
        Require(accepted && taken.text == stored, "unencrypted content is returned unchanged");
        return;
    }
    Require(accepted == (stored == sealed), "only unmodified encrypted content is accepted");
    Require(plain.starts_with(taken.text), "only stored content is passed on");
    Require(!accepted || taken.text == plain, "the decrypted content equals the original");
    Require(!taken.expected || *taken.expected >= 0, "a file size is not negative");
}

void CheckMutation(fuzz::Input& input) {
    const std::string plain(input.Number() % (3 * kChunk),
                            static_cast<char>('a' + input.Byte() % 9));
    const std::string sealed = Sealed(plain, 'n', kName);
    const std::string other = Sealed(std::string(plain.size(), 'z'), 'o', "web2.tgz");
    OneFile& file = *TheStorage().file;
    file.piece_ = 1 + input.Number();
    const unsigned told = input.Byte();
    file.stored_ = sealed;
    for (unsigned changes = input.Byte() % 4; changes > 0; --changes) {
        Change(file.stored_, other, input);
    }
    KeepCheap(file.stored_);
    file.told_.reset();
    if (told % 3 == 1) file.told_ = static_cast<std::int64_t>(file.stored_.size());
    if (told % 3 == 2) {
        std::uint64_t number = 0;
        for (int i = 0; i < 8; ++i) number = number << 8U | input.Byte();
        file.told_ = static_cast<std::int64_t>(number >> 1U);
    }
    CheckDownload(plain, sealed);
}

void CheckBytes(fuzz::Input& input) {
    OneFile& file = *TheStorage().file;
    file.piece_ = 1 + input.Byte();
    file.told_.reset();
    file.stored_ = input.Rest();
    KeepCheap(file.stored_);
    const bool empty = file.stored_.empty();
    CheckDownload({}, empty ? "(an empty file is none)" : Sealed({}, 'n', kName));
}

// Encrypts and decrypts a file with the program's own code, in pieces of any length.
void CheckRoundTrip(fuzz::Input& input) {
    OneFile& file = *TheStorage().file;
    file.told_.reset();
    file.piece_ = 64 + input.Number() * 4;
    std::string plain(input.Number() * 3, 'p');
    plain += input.Rest();
    Plain source(plain);
    Require(TheStorage().backend->Put(kName, source), "the upload of a file succeeds");
    Require(static_cast<std::int64_t>(file.stored_.size()) ==
                quarn2::SizeEncrypted(kName, source.size()),
            "the stored size equals the size computed before the upload");
    file.told_ = static_cast<std::int64_t>(file.stored_.size());
    Taken taken;
    TheStorage().backend->Get(kName, taken);
    Require(taken.text == plain && taken.expected == source.size(),
            "the decrypted content equals the original");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    switch (input.Byte() % 8) {
        case 0:
            CheckBytes(input);
            break;
        case 1:
            CheckRoundTrip(input);
            break;
        default:
            CheckMutation(input);
    }
    return 0;
}
