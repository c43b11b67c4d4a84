// The connection data of a running test server, and the tokens for it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>

// The keys and values of server.info: see tests/servers.
class ServerInfo {
  public:
    explicit ServerInfo(const std::string& server) {
        const char* const servers = std::getenv("QUARN2_TEST_SERVERS");
        if (servers == nullptr) {
            throw std::runtime_error("QUARN2_TEST_SERVERS is not set: run this test through ctest");
        }
        const std::string path = std::string(servers) + "/" + server + "/server.info";
        std::ifstream file(path);
        if (!file) throw std::runtime_error("no server has written " + path);
        for (std::string line; std::getline(file, line);) {
            const std::size_t end = line.find('=');
            values_[line.substr(0, end)] = line.substr(end + 1);
        }
    }

    bool Has(const std::string& key) const { return values_.count(key) != 0; }

    const std::string& operator[](const std::string& key) const {
        const auto found = values_.find(key);
        if (found == values_.end()) throw std::runtime_error("server.info has no " + key);
        return found->second;
    }

    std::uint16_t Port(const std::string& key) const {
        return static_cast<std::uint16_t>(Number(key));
    }
    unsigned Number(const std::string& key) const {
        return static_cast<unsigned>(std::stoul((*this)[key]));
    }

  private:
    std::map<std::string, std::string> values_;
};

// The parts of a token, not encoded. A test may change them before it calls Text().
struct TokenParts {
    std::string scheme;
    std::string user;
    std::string password;
    std::string host;
    std::uint16_t port = 0;
    std::string path;
    std::map<std::string, std::string> params;

    // Percent-encodes all bytes except letters, digits and the characters of `kept`.
    static std::string Encoded(const std::string& text, const std::string& kept = "-._~") {
        static const char* const kDigits = "0123456789ABCDEF";
        std::string encoded;
        for (const char character : text) {
            const auto byte = static_cast<unsigned char>(character);
            const bool plain = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
                               (byte >= 'a' && byte <= 'z') ||
                               kept.find(character) != std::string::npos;
            if (plain) {
                encoded += character;
            } else {
                encoded += {'%', kDigits[byte / 16], kDigits[byte % 16]};
            }
        }
        return encoded;
    }

    std::string Text() const {
        std::string text = scheme + "://" + Encoded(user);
        if (!password.empty()) text += ":" + Encoded(password);
        text += "@" + host + ":" + std::to_string(port) + Encoded(path, "-._~/");
        char separator = '?';
        for (const auto& [name, value] : params) {
            text += separator + name + "=" + Encoded(value, "-._~/");
            separator = '&';
        }
        return text;
    }
};
