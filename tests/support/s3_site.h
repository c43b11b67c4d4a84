// Creates a bucket for each test and inspects it with curl.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <stdexcept>

#include "remote_site.h"

class S3Site : public RemoteSite {
  public:
    S3Site() : RemoteSite("s3") {
        static std::atomic<int> count = 0;
        bucket_ = "test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
        Curl("-X PUT", "");
    }

    // HTTPS, path style, with a key prefix.
    TokenParts Parts() const override {
        TokenParts parts = Address("s3", "tls_port");
        parts.path = "/" + bucket_ + "/" + kPrefix;
        parts.params = {{"ca", info()["ca"]}, {"region", info()["region"]}, {"style", "path"}};
        return parts;
    }

    int RoundTripsOfUpload() const override { return 1; }

    // A token of a missing bucket. Prefixes are not objects, so a prefix cannot be missing.
    TokenParts Missing() const override {
        TokenParts parts = Parts();
        parts.path = "/" + bucket_ + "-missing/" + kPrefix;
        return parts;
    }

    std::size_t NamesPerPage() const override { return 1000; }

    // Returns the keys without the prefix. Marks unfinished uploads with "(unfinished)" and keys
    // without the prefix with "(outside)".
    std::vector<std::string> Everything() const override {
        std::vector<std::string> names;
        for (std::string token, page;;
             token = "continuation-token=" + TokenParts::Encoded(token) + "&") {
            page = Curl("", "?" + token + "encoding-type=url&list-type=2");
            for (const std::string& key : Elements(page, "Key")) names.push_back(Shown(key));
            const auto next = Elements(page, "NextContinuationToken");
            if (next.empty()) break;
            token = next.front();
        }
        for (const std::string& key : Elements(Curl("", "?encoding-type=url&uploads="), "Key")) {
            names.push_back(kUnfinished + Shown(key));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    bool IsLeftover(const std::string& path) const override {
        return path.starts_with(kUnfinished);
    }

    // An interrupted upload can leave only an unfinished multipart upload.
    bool LeaveLeftover(const std::string& name) override {
        const std::string key = "/" + TokenParts::Encoded(Prefix() + name, "-._~/");
        const auto id = Elements(Curl("-X POST", key + "?uploads="), "UploadId");
        Curl("-X PUT --data-binary half",
             key + "?partNumber=1&uploadId=" + TokenParts::Encoded(id.at(0)));
        return true;
    }

    bool LimitRoom(std::int64_t bytes) override {
        const std::string scope = " --quota-scope=bucket --bucket=" + bucket_;
        Run(info()["admin"] + " quota set --max-size=" + std::to_string(bytes) + scope);
        Run(info()["admin"] + " quota enable" + scope);
        return true;
    }

  protected:
    const std::string& bucket() const { return bucket_; }

    // The prefix of all keys, with its trailing slash.
    virtual std::string Prefix() const { return std::string(kPrefix) + "/"; }

  private:
    static constexpr const char* kUnfinished = "(unfinished) ";
    static constexpr const char* kPrefix = "backups of/node 1";

    static std::string Run(const std::string& command) {
        FILE* const pipe = popen(command.c_str(), "re");
        if (pipe == nullptr) throw std::runtime_error("popen failed");
        std::string output;
        std::array<char, 4096> buffer = {};
        while (const std::size_t count = fread(buffer.data(), 1, buffer.size(), pipe)) {
            output.append(buffer.data(), count);
        }
        const int status = pclose(pipe);
        if (status != 0) throw std::runtime_error(command + ": failed: " + output);
        return output;
    }

    // Sends a request for the bucket, or for `what` in the bucket, and returns the response body.
    std::string Curl(const std::string& options, const std::string& what) const {
        return Run("curl -sS --fail-with-body -K '" + info()["curl_config"] + "' " + options +
                   " 'http://127.0.0.1:" + info()["port"] + "/" + bucket_ + what + "'");
    }

    // Returns the text of each XML element with that name.
    static std::vector<std::string> Elements(const std::string& xml, const std::string& name) {
        std::vector<std::string> texts;
        const std::string open = "<" + name + ">";
        for (std::size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
            at += open.size();
            texts.push_back(xml.substr(at, xml.find("</", at) - at));
        }
        return texts;
    }

    std::string Shown(const std::string& encoded) const {
        std::string key;
        for (std::size_t i = 0; i < encoded.size(); ++i) {
            if (encoded[i] == '%') {
                key += static_cast<char>(std::stoi(encoded.substr(i + 1, 2), nullptr, 16));
                i += 2;
            } else {
                key += encoded[i];
            }
        }
        const std::string prefix = Prefix();
        return key.starts_with(prefix) ? key.substr(prefix.size()) : "(outside) " + key;
    }

    std::string bucket_;
};

// HTTP, virtual-host style, without a key prefix.
class S3VirtualHostSite : public S3Site {
  public:
    TokenParts Parts() const override {
        TokenParts parts = Address("s3+http", "port");
        parts.host = "localhost";
        parts.path = "/" + bucket();
        parts.params = {{"style", "virtual"}};
        return parts;
    }

  protected:
    std::string Prefix() const override { return ""; }
};
