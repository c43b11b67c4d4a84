// The cryptography against published vectors: RFC 7914 (scrypt), RFC 5869 (HKDF), RFC 4231 (HMAC)
// and the test cases of the GCM paper.
#include "crypto/cipher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kro/kro_err.h"

using namespace quarn2;

namespace {

Bytes BytesOf(std::string_view text) { return std::as_bytes(std::span(text)); }

std::string Hex(Bytes bytes) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    std::string hex;
    for (const std::byte byte : bytes) {
        hex += kDigits[std::to_integer<unsigned>(byte) / 16];
        hex += kDigits[std::to_integer<unsigned>(byte) % 16];
    }
    return hex;
}

std::string Unhex(std::string_view hex) {
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    }
    return bytes;
}

// Pads a shorter key with zeros, as HMAC does.
Key KeyOf(std::string_view bytes) {
    Key key{};
    std::transform(bytes.begin(), bytes.end(), key.begin(),
                   [](char byte) { return static_cast<std::byte>(byte); });
    return key;
}

// The published keys have 64 bytes. Their first 32 bytes do not depend on the length of the key.
TEST(KeyFromPassword, GivesThePublishedKeys) {
    EXPECT_EQ(Hex(KeyFromPassword("", BytesOf(""), {4, 1, 1})),
              "77d6576238657b203b19ca42c18a0497f16b4844e3074ae8dfdffa3fede21442");
    EXPECT_EQ(Hex(KeyFromPassword("password", BytesOf("NaCl"), {10, 8, 16})),
              "fdbabe1c9d3472007856e7190d01e9fe7c6ad7cbc8237830e77376634b373162");
    EXPECT_EQ(Hex(KeyFromPassword("pleaseletmein", BytesOf("SodiumChloride"), {14, 8, 1})),
              "7023bdcb3afd7348461c06cd81fd38ebfda8fbba904f8e3ea9b543f6545da1f2");
}

TEST(KeyFromPassword, RefusesMoreThanAGibibyte) {
    EXPECT_THROW(KeyFromPassword("x", BytesOf("y"), {20, 16, 1}), kro_err::Error);
}

TEST(Authenticate, GivesThePublishedCodes) {
    EXPECT_EQ(Hex(Authenticate(KeyOf(std::string(20, '\x0b')), BytesOf("Hi There"))),
              "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    EXPECT_EQ(Hex(Authenticate(KeyOf("Jefe"), BytesOf("what do ya want for nothing?"))),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

// The published vectors use other key lengths than KeyFor. The test checks the two steps of KeyFor
// with them, and then that KeyFor equals these two steps.
TEST(KeyFor, IsTheTwoStepsOfThePublishedVector) {
    const auto steps = [](std::string_view salt, std::string_view key, const std::string& info) {
        return Authenticate(Authenticate(KeyOf(salt), BytesOf(key)), BytesOf(info + '\x01'));
    };
    EXPECT_EQ(Hex(steps(Unhex("000102030405060708090a0b0c"), std::string(22, '\x0b'),
                        Unhex("f0f1f2f3f4f5f6f7f8f9"))),
              "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf");
    EXPECT_EQ(Hex(steps("", std::string(22, '\x0b'), "")),
              "8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d");

    const std::string key =
        Unhex("00112233445566778899aabbccddeeff0123456789abcdef0123456789abcdef");
    EXPECT_EQ(Hex(KeyFor(KeyOf(key), "a purpose", BytesOf("context"))),
              Hex(steps("context", key, "a purpose")));
    EXPECT_EQ(Hex(KeyFor(KeyOf(key), "a purpose", {})), Hex(steps("", key, "a purpose")));
}

TEST(KeyFor, DiffersByKeyPurposeAndContext) {
    const Key key = KeyOf("key");
    std::vector<std::string> keys = {
        Hex(KeyFor(key, "a", {})), Hex(KeyFor(key, "b", {})), Hex(KeyFor(key, "a", BytesOf("1"))),
        Hex(KeyFor(key, "a", BytesOf("2"))), Hex(KeyFor(KeyOf("other"), "a", {}))};
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(std::unique(keys.begin(), keys.end()), keys.end());
}

std::string Sealed(ChunkCipher& cipher, std::uint64_t number, bool last, const std::string& plain) {
    std::vector<std::byte> sealed(plain.size() + kTagSize);
    cipher.Seal(number, last, BytesOf(plain), sealed);
    return {reinterpret_cast<const char*>(sealed.data()), sealed.size()};
}

// Test cases 13 and 14: all inputs are zeros, including the number of the first chunk.
TEST(ChunkCipher, GivesThePublishedCiphertextsAndTags) {
    ChunkCipher cipher(Key{}, ChunkCipher::Use::kSeal);
    EXPECT_EQ(Sealed(cipher, 0, false, ""), Unhex("530f8afbc74536b9a963b4f1c4cb738b"));
    EXPECT_EQ(Sealed(cipher, 0, false, std::string(16, '\0')),
              Unhex("cea7403d4d606b6e074ec5d3baf39d18d0d1c8a799996bf0265b98b5d48ab919"));
}

TEST(ChunkCipher, OpensOnlyWhatWasSealedUnderTheSameKeyNumberAndMark) {
    ChunkCipher sealing(KeyOf("key"), ChunkCipher::Use::kSeal);
    ChunkCipher opening(KeyOf("key"), ChunkCipher::Use::kOpen);
    ChunkCipher stranger(KeyOf("other key"), ChunkCipher::Use::kOpen);
    const std::uint64_t number = 0x0102030405060708U;
    const std::string sealed = Sealed(sealing, number, true, "plain text");
    std::string plain(10, '\0');
    const auto room = std::as_writable_bytes(std::span(plain));
    EXPECT_TRUE(opening.Open(number, true, BytesOf(sealed), room));
    EXPECT_EQ(plain, "plain text");
    EXPECT_FALSE(opening.Open(number, false, BytesOf(sealed), room));
    EXPECT_FALSE(opening.Open(number - 1, true, BytesOf(sealed), room));
    EXPECT_FALSE(opening.Open(number ^ (1ULL << 63U), true, BytesOf(sealed), room));
    EXPECT_FALSE(stranger.Open(number, true, BytesOf(sealed), room));
    EXPECT_FALSE(opening.Open(number, true, BytesOf(sealed.substr(0, 15)), room));
    EXPECT_FALSE(opening.Open(number, true, {}, room));
    EXPECT_TRUE(opening.Open(number, true, BytesOf(sealed), room)) << "a failure leaves no trace";
}

TEST(ChunkCipher, RefusesABufferThatIsTooSmall) {
    ChunkCipher sealing(Key{}, ChunkCipher::Use::kSeal);
    ChunkCipher opening(Key{}, ChunkCipher::Use::kOpen);
    std::vector<std::byte> small(kTagSize + 4);
    EXPECT_THROW(sealing.Seal(0, true, BytesOf("12345"), small), kro_err::Error);
    const std::string sealed = Sealed(sealing, 0, true, "12345");
    EXPECT_THROW(opening.Open(0, true, BytesOf(sealed), std::span(small).first(4)), kro_err::Error);
}

TEST(SameSecret, ComparesLengthAndBytes) {
    EXPECT_TRUE(SameSecret(BytesOf("abc"), BytesOf("abc")));
    EXPECT_FALSE(SameSecret(BytesOf("abc"), BytesOf("abd")));
    EXPECT_FALSE(SameSecret(BytesOf("abc"), BytesOf("ab")));
    EXPECT_TRUE(SameSecret({}, {}));
}

}  // namespace
