// Fuzz target: storage tokens. The target checks that the display form of a token contains no
// secret, even if the token is invalid, and has the same meaning as the token.
//
// Input: a text; each "\x01" in it is replaced by a made-up secret.
#include "quarn2/token.h"

#include <vector>

#include "backends/memory/memory_backend.h"
#include "fuzz.h"
#include "quarn2_backend/registry.h"
#include "quarn2_backend/storage_backend.h"

namespace {

using fuzz::Require;
using quarn2::BackupToken;

const std::string kSecret = "Zq7KxW9vPm3T";

std::string WithSecret(const std::string& text) {
    std::string filled;
    for (const char c : text) {
        if (c == '\x01') {
            filled += kSecret;
        } else {
            filled += c;
        }
    }
    return filled;
}

bool Has(const std::string& text) { return text.find(kSecret) != text.npos; }

std::vector<std::string> ParamsOf(const BackupToken& token) {
    const quarn2::BackendScheme* const scheme = quarn2::FindScheme(token.scheme());
    std::vector<std::string> names = {"ca", "limit_rate", "parallel", "timeout"};
    names.insert(names.end(), scheme->params.begin(), scheme->params.end());
    std::erase_if(names, [scheme](const auto& name) { return scheme->secrets.contains(name); });
    return names;
}

// True if the secret may be displayed, because it is a part of the user, the host, the path or a
// public parameter.
bool IsPublic(const BackupToken& token) {
    bool anywhere = Has(token.user()) || Has(token.host()) || Has(token.path());
    for (const std::string& name : ParamsOf(token)) anywhere = anywhere || Has(token.Param(name));
    return anywhere;
}

void CheckValid(const BackupToken& token) {
    const std::string shown = token.Str();
    Require(!Has(shown) || IsPublic(token), "a secret is not displayed");
    const BackupToken again(shown);
    // A scheme may reject the displayed token, in which stars replace the secret or the secret is
    // missing.
    if (!again) return;
    Require(again.scheme() == token.scheme() && again.user() == token.user() &&
                again.host() == token.host() && again.port() == token.port() &&
                again.path() == token.path(),
            "the displayed token has the same parts");
    for (const std::string& name : ParamsOf(token)) {
        Require(again.Param(name) == token.Param(name), "a displayed parameter has the same value");
    }
    Require(again.Str() == shown, "displaying a displayed token does not change it");
}

void Check(const std::string& text) {
    const BackupToken token(text);
    if (token) return CheckValid(token);
    Require(token.Str() == "***", "an invalid token is not displayed");
    Require(token.scheme().empty() && token.password().empty() && token.path().empty(),
            "an invalid token has no parts");
}

// Checks that no error text contains the secret when the token has an error before or after it.
void CheckFault(const std::string& text) {
    const BackupToken token(text);
    Require(!Has(token.fault()), "an error text contains no secret");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool registered = (quarn2::RegisterMemoryScheme(), true);
    Require(registered, "the memory storage is registered");
    fuzz::Input input(data, size);
    const std::string text = input.Rest();
    // Skips an input that already contains the secret, because the display form may then contain
    // it too.
    if (Has(text)) return 0;
    Check(WithSecret(text));
    fuzz::Input halves(data, size);
    const std::string before = halves.Until("\x01");
    const std::string behind = halves.Rest();
    if (before.find('\x01') == before.npos && behind.find('\x01') == behind.npos) {
        CheckFault(before + "arch_password=" + kSecret + behind);
        CheckFault(before + "://user:" + kSecret + behind);
    }
    return 0;
}
