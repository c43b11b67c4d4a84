// The fixture of tests that open an FTP storage on a scripted server.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bounds.h"
#include "kro/kro_err.h"
#include "local_files.h"
#include "quarn2/storage.h"
#include "quarn2/token.h"
#include "scripted_ftp_server.h"
#include "scripted_tls.h"
#include "temp_dir.h"

// The storage is the directory /dir of the server.
class ScriptedFtp : public testing::Test {
  protected:
    ScriptedFtp() {
        std::signal(SIGPIPE, SIG_IGN);
        local_files::Save(source_, "content");
    }

    void Serve(std::map<std::string, ScriptedFtpServer::Answer> answers) {
        server_ = std::make_unique<ScriptedFtpServer>(std::move(answers));
    }
    std::shared_ptr<quarn2::Storage> Open(const std::string& scheme = "ftp",
                                          const std::string& more = "") const {
        return quarn2::GetStorage(quarn2::BackupToken(
            scheme + "://user:hidden@127.0.0.1:" + std::to_string(server_->port()) +
            "/dir?timeout=4" + more));
    }
    template <class Operation>
    std::string ErrorOf(const Operation& operation) {
        const Bounds bounds;
        return ::ErrorOf(operation);
    }
    // The type of the error that the action throws, "" when it throws none.
    template <class Action>
    static std::string TypeOf(const Action& action) {
        try {
            action();
        } catch (const kro_err::Error& error) {
            return std::string(error.type());
        }
        return {};
    }
    std::string ListError(const std::string& scheme = "ftp", const std::string& more = "") {
        return ErrorOf([&] { Open(scheme, more)->List(names_, ""); });
    }

    static ScriptedFtpServer::Answer Saying(const std::string& line) {
        return [line](FtpSession& session, const std::string&) { session.Say(line); };
    }
    static ScriptedFtpServer::Answer SayingWithoutEnd(const std::string& line) {
        return [line](FtpSession& session, const std::string&) { session.SayWithoutEnd(line); };
    }
    static ScriptedFtpServer::Answer Sending(const std::string& text, const std::string& piece) {
        return
            [text, piece](FtpSession& session, const std::string&) { session.Send(text, piece); };
    }

    TempDir folder_;
    std::string source_ = folder_ / "source";
    std::string target_ = folder_ / "target";
    std::vector<std::string> names_;
    std::unique_ptr<ScriptedFtpServer> server_;
};

// Adds TLS and a certificate to the fixture `Plain`.
template <class Plain>
class EncryptedFtp : public Plain {
  protected:
    EncryptedFtp() { certificate_.Save(this->folder_ / "ca.pem"); }
    // The server's threads use the members of this class, so the server ends first.
    ~EncryptedFtp() override { this->server_.reset(); }

    std::string Trust() const { return "&ca=" + (this->folder_ / "ca.pem"); }
    std::string TlsError() { return this->ListError("ftps", Trust()); }
    ScriptedFtpServer::Answer Encrypting(const std::string& before, int lowest = 0) const {
        return [this, before, lowest](FtpSession& session, const std::string&) {
            session.Write(before);
            if (!session.Encrypt(certificate_.Streams(lowest))) session.Say("");
        };
    }
    ScriptedFtpServer::Answer EncryptingData(int lowest = 0) const {
        return [this, lowest](FtpSession& session, const std::string&) {
            session.EncryptData(certificate_.Streams(lowest));
            session.Say("200 Fine");
        };
    }

    scripted_tls::Certificate certificate_;
};
