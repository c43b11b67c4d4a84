// The trusted host keys, read from files in OpenSSH's known_hosts format.
//
// Supports plain and hashed host names, "[host]:port", wildcards, "!" and "@revoked". Ignores the
// keys of certificate authorities ("@cert-authority").
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::sftp {

// The result of checking a key against the files.
enum class Trust {
    kTrusted,
    kUnknown,  // the host has no key of any type in the files
    kChanged,  // the files contain keys of the host, but not this one
    kRevoked,
};

class KnownHosts {
  public:
    // The files contain the host as "host" for port 22, else as "[host]:port".
    KnownHosts(const std::string& host, std::uint16_t port);

    // Adds the host's keys from a file. Ignores a missing file. Throws kro_err::Error
    // (kUnauthorized) for a file that cannot be read.
    void AddFile(const std::string& path);
    // Adds the host's keys from the text of a file.
    void AddText(std::string_view text);

    // `type` and `key` are in the format of the files: "ssh-ed25519" and base64.
    Trust Check(std::string_view type, std::string_view key) const;

    // Returns the types of the trusted keys, in the order of the files.
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
