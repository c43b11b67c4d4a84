// WebDAV storages for the suites.
#pragma once

#include "backends/webdav/dav_names.h"
#include "served_directory_site.h"

// A WebDAV storage over https with basic authentication, on Apache or another server.
class WebdavSite : public ServedDirectorySite {
  public:
    explicit WebdavSite(const std::string& server = "webdav") : ServedDirectorySite(server) {}

    TokenParts Parts() const override {
        TokenParts parts = Address("webdav", "tls_port");
        parts.path = ServedPath();
        parts.params["ca"] = info()["ca"];
        return parts;
    }

    int RoundTripsOfUpload() const override { return 3; }

    bool IsLeftover(const std::string& path) const override {
        return quarn2::webdav::IsTemporaryEntry(kro_file::Name(path));
    }

  protected:
    std::string LeftoverName(const std::string& file) const override {
        return "0123456789ab." + file + ".part~";
    }
};

// A WebDAV storage over http with digest authentication.
class WebdavDigestSite : public WebdavSite {
  public:
    TokenParts Parts() const override {
        TokenParts parts = Address("webdav+http", "port");
        parts.path = ServedPath("digest_path");
        parts.params["auth"] = "digest";
        return parts;
    }
};

// A WebDAV storage on nginx.
class Webdav2Site : public WebdavSite {
  public:
    Webdav2Site() : WebdavSite("webdav2") {}
};
