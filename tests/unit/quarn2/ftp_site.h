// FTP storages for the suites.
#pragma once

#include "backends/ftp/temporary.h"
#include "served_directory_site.h"

// An FTP storage with explicit TLS, on pure-ftpd or another server.
class FtpsSite : public ServedDirectorySite {
  public:
    explicit FtpsSite(const std::string& server = "ftp") : ServedDirectorySite(server) {}

    TokenParts Parts() const override {
        TokenParts parts = Address("ftps", "tls_port");
        parts.path = ServedPath();
        parts.params["ca"] = info()["ca"];
        return parts;
    }

    std::vector<std::uint16_t> Ports() const override {
        std::vector<std::uint16_t> ports = {Parts().port};
        const std::uint16_t last = info().Port("last_passive_port");
        for (std::uint16_t port = info().Port("first_passive_port"); port <= last; ++port) {
            ports.push_back(port);
        }
        return ports;
    }

    int RoundTripsOfUpload() const override { return 8; }

    // pure-ftpd refuses backslashes, for the sake of clients on Windows.
    bool RefusesName(const std::string& name) const override {
        return info()["name"] == "ftp" && name.find('\\') != std::string::npos;
    }

  protected:
    std::string LeftoverName(const std::string& file) const override {
        return kro_file::Name(quarn2::ftp::TemporaryName(Parts().user, "/" + file).path());
    }
};

// An FTP storage without encryption.
class FtpSite : public FtpsSite {
  public:
    TokenParts Parts() const override {
        TokenParts parts = Address("ftp", "port");
        parts.path = ServedPath();
        return parts;
    }
};

// An FTPS storage on ProFTPD.
class Ftps2Site : public FtpsSite {
  public:
    Ftps2Site() : FtpsSite("ftp2") {}
};

// An FTPS storage on vsftpd, which requires that data connections reuse the TLS session.
class Ftps3Site : public FtpsSite {
  public:
    Ftps3Site() : FtpsSite("ftp3") {}
};

// An FTPS storage on vsftpd, which does not require that data connections reuse the TLS session.
class Ftps3LenientSite : public Ftps3Site {
  public:
    TokenParts Parts() const override {
        TokenParts parts = Ftps3Site::Parts();
        parts.port = info().Port("lenient_port");
        return parts;
    }
};
