// Fuzz target: files of trusted host keys. The target checks that a key that is revoked for all
// hosts and a key without a line are never trusted, and that a line of a certificate authority
// makes no key trusted.
#include "backends/sftp/known_hosts.h"

#include <algorithm>
#include <sstream>

#include "fuzz.h"
#include "kro/str.h"

namespace {

using fuzz::Require;
using quarn2::sftp::KnownHosts;
using quarn2::sftp::Trust;

const char* const kType = "ssh-ed25519";
const char* const kKey = "AAAAC3NzaC1lZDI1NTE5AAAAIKEY";

KnownHosts Read(const std::string& text, std::uint16_t port = 22) {
    KnownHosts hosts("Host.example", port);
    hosts.AddText(text);
    return hosts;
}

std::string OnlyAuthorities(const std::string& text) {
    std::istringstream lines(text);
    std::string marked;
    for (std::string line; std::getline(lines, line);) {
        marked += "@cert-authority " + line + "\n";
    }
    return marked;
}

bool HasLineOf(const std::string& text) {
    return text.find(kType) != text.npos && text.find(kKey) != text.npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const std::uint16_t port : {std::uint16_t{22}, std::uint16_t{2222}}) {
        const KnownHosts hosts = Read(text, port);
        Require(hosts.Check(kType, kKey) != Trust::kTrusted || HasLineOf(text),
                "a key is trusted only if a line contains it");
        const auto types = hosts.Types();
        Require(hosts.Check(kType, kKey) != Trust::kTrusted ||
                    std::find(types.begin(), types.end(), kType) != types.end(),
                "the list of key types contains the type of a trusted key");
        Require(Read(text + "\n@revoked * " + kType + " " + kKey + "\n", port).Check(kType, kKey) ==
                    Trust::kRevoked,
                "a revoked key is never trusted");
        Require(Read(text + "\n* " + kType + " " + kKey + "\n", port).Check(kType, kKey) !=
                    Trust::kUnknown,
                "a valid line counts regardless of the lines before it");
    }
    const KnownHosts vouched = Read(OnlyAuthorities(text));
    Require(vouched.Check(kType, kKey) == Trust::kUnknown && vouched.Types().empty(),
            "a certificate authority line does not make a key trusted");
    return 0;
}
