#include "storage/encrypted_backend.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "crypto/cipher.h"
#include "crypto/header.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "storage/forwarding_backend.h"

namespace quarn2 {

namespace {

using kro_err::Error;
using kro_err::Kind;

[[noreturn]] void ThrowCorrupt() {
    throw Error(Kind::kFailed,
                "the encrypted file is damaged: its content was changed, truncated or reordered");
}

bool StaysPlain(const std::string& name) { return str::EndsWith(name, ".info"); }

// Encrypts a source while the backend reads it. Caches the last chunk that the backend has read
// only in part, because the next read of the backend usually continues in this chunk.
class EncryptingSource final : public ByteSource {
  public:
    EncryptingSource(ByteSource& plain, const std::string& password, const std::string& name)
        : plain_(plain),
          keys_(NewHeader(password, kro_file::Name(name), header_)),
          cipher_(keys_.chunks, ChunkCipher::Use::kSeal),
          clear_(keys_.chunk_size),
          sealed_(keys_.chunk_size + kTagSize) {}

    std::int64_t size() const override { return EncryptedSize(plain_.size()); }

    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        std::size_t done = 0;
        while (done < buffer.size() && offset + static_cast<std::int64_t>(done) < size()) {
            done += ReadSome(offset + static_cast<std::int64_t>(done), buffer.subspan(done));
        }
        return done;
    }

    void CheckUnchanged() override { plain_.CheckUnchanged(); }

  private:
    std::size_t ReadSome(std::int64_t offset, std::span<std::byte> buffer) {
        auto at = static_cast<std::uint64_t>(offset);
        if (at < kHeaderSize) return CopyFrom(header_, at, buffer);
        at -= kHeaderSize;
        const std::uint64_t number = at / sealed_.size();
        const std::uint64_t within = at % sealed_.size();
        const std::size_t whole = PlainBytesOf(number) + kTagSize;
        // If the complete chunk fits, encrypt it directly into the buffer of the backend.
        if (within == 0 && buffer.size() >= whole && loaded_ != number) {
            Seal(number, buffer.first(whole));
            return whole;
        }
        LoadChunk(number);
        return CopyFrom(std::span(sealed_).first(whole), within, buffer);
    }

    static std::size_t CopyFrom(Bytes bytes, std::uint64_t at, std::span<std::byte> buffer) {
        const Bytes rest = bytes.subspan(at);
        const std::size_t count = std::min(rest.size(), buffer.size());
        std::copy_n(rest.begin(), count, buffer.begin());
        return count;
    }

    std::uint64_t PlainBytesFrom(std::uint64_t number) const {
        return static_cast<std::uint64_t>(plain_.size()) - number * keys_.chunk_size;
    }
    std::size_t PlainBytesOf(std::uint64_t number) const {
        return std::min<std::uint64_t>(keys_.chunk_size, PlainBytesFrom(number));
    }

    void LoadChunk(std::uint64_t number) {
        if (loaded_ == number) return;
        loaded_.reset();
        Seal(number, sealed_);
        loaded_ = number;
    }

    // Encrypts a chunk. If the backend reads the chunk again, this function encrypts it again and
    // writes the same bytes. The source must not change between two reads, because the function
    // would then encrypt two different chunks with the same nonce.
    void Seal(std::uint64_t number, std::span<std::byte> sealed) {
        const std::size_t count = PlainBytesOf(number);
        const std::span<std::byte> clear = std::span(clear_).first(count);
        const auto begin = static_cast<std::int64_t>(number * keys_.chunk_size);
        if (count > 0 && plain_.ReadAt(begin, clear) != count) {
            throw Error(Kind::kFailed, "the source became shorter while it was encrypted");
        }
        cipher_.Seal(number, count == PlainBytesFrom(number), clear, sealed);
    }

    ByteSource& plain_;
    Header header_{};
    FileKeys keys_;
    ChunkCipher cipher_;
    std::vector<std::byte> clear_;
    std::vector<std::byte> sealed_;
    std::optional<std::uint64_t> loaded_;
};

// Decrypts the stored bytes and writes the plain bytes to `plain`. Verifies the authentication tag
// of a chunk before any byte of that chunk is written.
class DecryptingSink final : public ByteSink {
  public:
    DecryptingSink(ByteSink& plain, const std::string& password, const std::string& name)
        : plain_(plain), password_(password), name_(kro_file::Name(name)) {}

    // Keeps the encrypted size until the header has been read, because the size for the plain sink
    // depends on the header.
    void Expect(std::int64_t size) override { expected_ = size; }

    void Write(std::span<const std::byte> bytes) override {
        while (!bytes.empty()) {
            if (passing_) return plain_.Write(bytes);
            bytes = OpenWholeChunks(bytes);
            // More bytes follow the held complete chunk, so it is not the last chunk of the file.
            if (held_.size() == Wanted()) {
                DecryptHeld(false);
                continue;
            }
            const std::size_t count = std::min(bytes.size(), Wanted() - held_.size());
            held_.insert(held_.end(), bytes.begin(),
                         bytes.begin() + static_cast<std::ptrdiff_t>(count));
            bytes = bytes.subspan(count);
        }
    }

    // Must be called after the last Write. Decrypts the last chunk, or writes a plain file that is
    // shorter than a header.
    void Finish() {
        if (!cipher_ && !passing_ && held_.size() == kHeaderSize && BeginsAsHeader())
            DecryptHeld(false);
        if (passing_) return;
        if (cipher_) return DecryptHeld(true);
        // The stored file is shorter than a header: it is a plain file or a truncated encrypted
        // file. An empty file counts as truncated.
        if (held_.empty() || BeginsAsHeader()) ThrowCorrupt();
        PassOn();
    }

  private:
    std::size_t Wanted() const { return cipher_ ? keys_.chunk_size + kTagSize : kHeaderSize; }

    bool BeginsAsHeader() const {
        const Bytes magic = std::as_bytes(std::span(kMagic));
        const std::size_t count = std::min(magic.size(), held_.size());
        return std::equal(magic.begin(), magic.begin() + static_cast<std::ptrdiff_t>(count),
                          held_.begin());
    }

    void DecryptHeld(bool last) {
        if (cipher_) {
            OpenChunk(held_, last);
        } else if (BeginsAsHeader()) {
            ParseHeader();
        } else {
            passing_ = true;
            PassOn();
        }
        held_.clear();
    }

    void PassOn() {
        if (expected_) plain_.Expect(*expected_);
        plain_.Write(held_);
    }

    void ParseHeader() {
        Header header{};
        std::copy_n(held_.begin(), kHeaderSize, header.begin());
        keys_ = ReadHeader(password_, name_, header);
        cipher_.emplace(keys_.chunks, ChunkCipher::Use::kOpen);
        clear_.resize(keys_.chunk_size);
        held_.reserve(Wanted());
        if (expected_) plain_.Expect(PlainSize(*expected_, keys_.chunk_size));
    }

    // Decrypts complete chunks directly from `bytes` and returns the remaining bytes. Does not
    // decrypt a chunk that can be the last one. Finish decrypts the last chunk.
    Bytes OpenWholeChunks(Bytes bytes) {
        while (cipher_ && held_.empty() && bytes.size() > Wanted()) {
            OpenChunk(bytes.first(Wanted()), false);
            bytes = bytes.subspan(Wanted());
        }
        return bytes;
    }

    void OpenChunk(Bytes sealed, bool last) {
        if (!cipher_->Open(number_++, last, sealed, clear_)) ThrowCorrupt();
        plain_.Write(std::span(clear_).first(sealed.size() - kTagSize));
    }

    ByteSink& plain_;
    const std::string& password_;
    std::string name_;
    std::vector<std::byte> held_;
    std::optional<std::int64_t> expected_;
    bool passing_ = false;
    FileKeys keys_;
    std::optional<ChunkCipher> cipher_;
    std::vector<std::byte> clear_;
    std::uint64_t number_ = 0;
};

class EncryptedBackend final : public ForwardingBackend {
  public:
    EncryptedBackend(std::unique_ptr<StorageBackend> backend, std::string password)
        : ForwardingBackend(std::move(backend)), password_(std::move(password)) {}

    bool Put(const std::string& name, ByteSource& source) override {
        if (StaysPlain(name)) return backend().Put(name, source);
        EncryptingSource encrypting(source, password_, name);
        return backend().Put(name, encrypting);
    }

    void Get(const std::string& name, ByteSink& sink) override {
        if (StaysPlain(name)) return backend().Get(name, sink);
        DecryptingSink decrypting(sink, password_, name);
        backend().Get(name, decrypting);
        decrypting.Finish();
    }

  private:
    std::string password_;
};

}  // namespace

std::unique_ptr<StorageBackend> Encrypted(std::unique_ptr<StorageBackend> backend,
                                          std::string password) {
    return std::make_unique<EncryptedBackend>(std::move(backend), std::move(password));
}

static_assert(kEncryptedMarkSize == kMagic.size());

bool IsEncrypted(std::span<const std::byte> first_bytes) {
    const Bytes magic = std::as_bytes(std::span(kMagic));
    return first_bytes.size() >= magic.size() &&
           std::equal(magic.begin(), magic.end(), first_bytes.begin());
}

std::int64_t SizeEncrypted(const std::string& name, std::int64_t size) {
    return StaysPlain(name) ? size : EncryptedSize(size);
}

}  // namespace quarn2
