// SFTP storages for the suites.
#pragma once

#include "served_directory_site.h"

// An SFTP storage with a login by password.
class SftpSite : public ServedDirectorySite {
  public:
    SftpSite() : ServedDirectorySite("sftp") {}

    TokenParts Parts() const override {
        TokenParts parts = Address("sftp", "port");
        parts.path = ServedPath();
        parts.params["known_hosts"] = info()["known_hosts"];
        return parts;
    }

    int RoundTripsOfUpload() const override { return 2; }

    std::map<std::string, TokenParts> Refused() const override {
        std::map<std::string, TokenParts> refused = ServedDirectorySite::Refused();
        for (const char* const what : {"an unknown host key", "a changed host key"}) {
            refused[what] = Parts();
        }
        refused["an unknown host key"].params["known_hosts"] = info()["known_hosts_empty"];
        refused["a changed host key"].params["known_hosts"] = info()["known_hosts_changed"];
        return refused;
    }
};

// An SFTP storage with a login by key.
class SftpKeySite : public SftpSite {
  public:
    TokenParts Parts() const override {
        TokenParts parts = SftpSite::Parts();
        parts.password.clear();
        parts.params["key"] = info()["key"];
        return parts;
    }

    std::map<std::string, TokenParts> Refused() const override {
        std::map<std::string, TokenParts> refused = SftpSite::Refused();
        refused.erase("a wrong password");
        refused["an unknown key"] = Parts();
        refused["an unknown key"].params["key"] = info()["unknown_key"];
        return refused;
    }
};
