// TLS for the scripted servers, with a certificate that a test creates.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "scripted_http_server.h"

namespace scripted_tls {

template <auto kFree>
struct Freed {
    template <class T>
    void operator()(T* object) const noexcept {
        kFree(object);
    }
};

// A key and its self-signed certificate.
class Certificate {
  public:
    // `alternative` is the subject alternative name in OpenSSL's notation: "IP:127.0.0.1"; "" for
    // none. The certificate is valid for `seconds` from now. A negative value creates an expired
    // certificate.
    explicit Certificate(const std::string& alternative = "IP:127.0.0.1", long seconds = 3600,
                         const std::string& common_name = "test")
        : key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), Freed<EVP_PKEY_free>()),
          certificate_(X509_new(), Freed<X509_free>()) {
        X509* const x509 = certificate_.get();
        X509_set_version(x509, X509_VERSION_3);
        ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
        X509_gmtime_adj(X509_getm_notBefore(x509), -7200);
        X509_gmtime_adj(X509_getm_notAfter(x509), seconds);
        X509_set_pubkey(x509, key_.get());
        X509_NAME* const name = X509_get_subject_name(x509);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(common_name.c_str()), -1,
                                   -1, 0);
        X509_set_issuer_name(x509, name);
        Extend(NID_basic_constraints, "critical,CA:TRUE");
        if (!alternative.empty()) Extend(NID_subject_alt_name, alternative);
        if (X509_sign(x509, key_.get(), EVP_sha256()) == 0) {
            throw std::runtime_error("no certificate");
        }
    }

    void Save(const std::string& path) const {
        const std::unique_ptr<FILE, Freed<fclose>> file(fopen(path.c_str(), "we"));
        if (file == nullptr || PEM_write_X509(file.get(), certificate_.get()) != 1) {
            throw std::runtime_error("cannot write " + path);
        }
    }

    // Returns a function that makes the streams of a server with this certificate. The streams
    // share ownership of the key and the certificate, because a server may accept a connection
    // after this object has been destroyed. `lowest` is the minimum version of TLS that they
    // accept, 0 for any.
    ScriptedHttpServer::MakeStream Streams(int lowest = 0) const;

  private:
    void Extend(int id, const std::string& value) {
        const std::unique_ptr<X509_EXTENSION, Freed<X509_EXTENSION_free>> extension(
            X509V3_EXT_conf_nid(nullptr, nullptr, id, value.c_str()));
        if (X509_add_ext(certificate_.get(), extension.get(), -1) != 1) {
            throw std::runtime_error("no extension " + value);
        }
    }

    std::shared_ptr<EVP_PKEY> key_;
    std::shared_ptr<X509> certificate_;
};

class TlsStream final : public ServerStream {
  public:
    TlsStream(int fd, X509* certificate, EVP_PKEY* key, int lowest)
        : ServerStream(fd), context_(SSL_CTX_new(TLS_server_method())) {
        SSL_CTX_set_min_proto_version(context_.get(), lowest);
        SSL_CTX_use_certificate(context_.get(), certificate);
        SSL_CTX_use_PrivateKey(context_.get(), key);
        ssl_.reset(SSL_new(context_.get()));
        SSL_set_fd(ssl_.get(), fd);
    }
    ~TlsStream() override { SSL_shutdown(ssl_.get()); }

    bool Accept() override { return SSL_accept(ssl_.get()) == 1; }
    ssize_t Read(char* buffer, std::size_t size) override {
        return SSL_read(ssl_.get(), buffer, static_cast<int>(size));
    }
    ssize_t Write(const char* text, std::size_t size) override {
        return SSL_write(ssl_.get(), text, static_cast<int>(size));
    }

  private:
    std::unique_ptr<SSL_CTX, Freed<SSL_CTX_free>> context_;
    std::unique_ptr<SSL, Freed<SSL_free>> ssl_;
};

inline ScriptedHttpServer::MakeStream Certificate::Streams(int lowest) const {
    return [certificate = certificate_, key = key_, lowest](int fd) {
        return std::make_unique<TlsStream>(fd, certificate.get(), key.get(), lowest);
    };
}

}  // namespace scripted_tls
