// The base of all sites whose storage is behind a server.
#pragma once

#include "server_info.h"
#include "storage_site.h"

class RemoteSite : public StorageSite {
  public:
    // `server` is the name of a running test server.
    explicit RemoteSite(const std::string& server) : info_(server) {}

    // The parts of a valid token. A test may change them to make the token wrong.
    virtual TokenParts Parts() const = 0;

    std::string Token() const override { return Parts().Text(); }

    // All ports that clients of the server connect to.
    virtual std::vector<std::uint16_t> Ports() const { return {Parts().port}; }

    // True if a path of Everything() is a leftover of an interrupted upload. The default recognizes
    // the suffix of temporary names.
    virtual bool IsLeftover(const std::string& path) const { return path.ends_with(".part~"); }

    // True while the server writes a file of this site, even for a client that has disconnected.
    virtual bool IsBeingWritten() const { return false; }

    // The maximum number of round trips of a small upload over a kept connection, into a directory
    // that the connection has used before.
    virtual int RoundTripsOfUpload() const = 0;

    // The parts of a token whose storage does not exist.
    virtual TokenParts Missing() const {
        TokenParts parts = Parts();
        parts.path += "-missing";
        return parts;
    }

    // Tokens that the storage must refuse. The key describes the fault of the token.
    virtual std::map<std::string, TokenParts> Refused() const {
        std::map<std::string, TokenParts> refused;
        refused["an unknown user"] = refused["a wrong password"] = Parts();
        refused["an unknown user"].user = "stranger";
        refused["a wrong password"].password = "not/the+secret";
        if (Parts().params.count("ca") != 0) AddBadCertificates(refused);
        return refused;
    }

    const ServerInfo& info() const { return info_; }

    // An address of this machine that no test certificate contains. The servers do not listen at
    // this address, so a test starts a relay there.
    static constexpr const char* kUnnamedHost = "127.0.0.3";

  protected:
    // The server's own address, user and password.
    TokenParts Address(const std::string& scheme, const std::string& port_key) const {
        return {.scheme = scheme,
                .user = info_["user"],
                .password = info_["password"],
                .host = info_["host"],
                .port = info_.Port(port_key),
                .path = {},
                .params = {}};
    }

  private:
    void AddBadCertificates(std::map<std::string, TokenParts>& refused) const {
        for (const char* const what : {"an expired certificate", "a self-signed certificate",
                                       "a certificate for another host", "an unknown authority"}) {
            refused[what] = Parts();
        }
        refused["an expired certificate"].port = info_.Port("expired_port");
        refused["a self-signed certificate"].port = info_.Port("self_signed_port");
        refused["a certificate for another host"].host = kUnnamedHost;
        refused["an unknown authority"].params.erase("ca");
    }

    ServerInfo info_;
};

// The same site with client-side encryption.
template <class Site>
class Encrypted : public Site {
  public:
    TokenParts Parts() const override {
        TokenParts parts = Site::Parts();
        parts.params["arch_password"] = "p@ss";
        return parts;
    }
};

// A kind of remote site for the suite in storage_trouble.h.
struct RemoteKind {
    const char* name;
    std::unique_ptr<RemoteSite> (*make)();

    friend std::ostream& operator<<(std::ostream& out, const RemoteKind& kind) {
        return out << kind.name;
    }
};

template <class Site>
RemoteKind TroubledSite(const char* name) {
    return {name, []() -> std::unique_ptr<RemoteSite> { return std::make_unique<Site>(); }};
}
