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

// The result of checking a host key against the known_hosts files.
enum class Trust {
    kTrusted,
    kUnknown,  // the files contain no key of the host
    kChanged,  // the files contain keys of the host, but not this one
    kRevoked,
};

class KnownHosts {
  public:
    // The host is searched as "host" for port 22, and as "[host]:port" for other ports.
    KnownHosts(const std::string& host, std::uint16_t port);

    // Adds the keys of the host from a known_hosts file. Ignores a missing file. Throws
    // kro_err::Error (kUnauthorized) if the file exists but cannot be read.
    void AddFile(const std::string& path);
    // Adds the keys of the host from the text of a known_hosts file.
    void AddText(std::string_view text);

    // Checks a host key. `type` and `key` have the format of known_hosts files: a type such as
    // "ssh-ed25519", and the key in base64.
    Trust Check(std::string_view type, std::string_view key) const;

    // Returns the types of the trusted keys of the host, in the order of the files.
    std::vector<std::string> Types() const;

    const std::string& host() const noexcept { return host_; }

  private:
    struct Entry {
        bool revoked;
        std::string type;
        std::string key;
    };

    void AddLine(std::string_view line);
    bool IsForHost(std::string_view hosts) const;

    std::string host_;
    std::vector<Entry> entries_;
};

}  // namespace quarn2::sftp
