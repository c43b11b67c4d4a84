// The host keys that are trusted: files as OpenSSH keeps them.
//
// Understood are plain and hashed host names, "[host]:port", wildcards, "!" and "@revoked"; keys of
// certificate authorities ("@cert-authority") vouch for nothing here.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::sftp {

// What the files say about a key.
enum class Trust {
    kTrusted,
    kUnknown,  // the host has no key of any type in the files
    kChanged,  // the host has keys there, and this is none of them
    kRevoked,
};

class KnownHosts {
  public:
    // How the host stands in the files: alone at port 22, else "[host]:port".
    KnownHosts(const std::string& host, std::uint16_t port);

    // Adds what a file has about the host. A missing file has nothing; one that cannot be read is
    // a kro_err::Error (kUnauthorized).
    void AddFile(const std::string& path);
    // The same from a file's text.
    void AddText(std::string_view text);

    // `type` and `key` as they stand in a file: "ssh-ed25519", base64.
    Trust Check(std::string_view type, std::string_view key) const;

    // The types of the keys that are trusted, in the order of the files.
    std::vector<std::string> Types() const;

    const std::string& host() const noexcept { return host_; }

  private:
    struct Entry {
        bool revoked;
        std::string type;
        std::string key;
    };

    void AddLine(std::string_view line);
    bool IsMeant(std::string_view hosts) const;

    std::string host_;
    std::vector<Entry> entries_;
};

}  // namespace quarn2::sftp
