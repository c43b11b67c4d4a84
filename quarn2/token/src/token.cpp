#include "quarn2/token.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "base/ascii.h"
#include "base/percent.h"
#include "base/stored_name.h"
#include "crypto/header.h"
#include "kro/str.h"
#include "token/scheme.h"

namespace quarn2 {

namespace {

// Thrown by the parser: the reason why a token is invalid. The reason is printed, so it quotes a
// part of the token only if that part cannot belong to a secret.
struct Fault {
    std::string text;
};

constexpr std::size_t kMaxQuoteLength = 32;
constexpr std::string_view kHidden = "***";
constexpr std::string_view kPassword = "arch_password";
constexpr std::string_view kParallel = "parallel";
constexpr std::int64_t kMaxParallel = 64;

const std::set<std::string>& CommonParams() {
    static const std::set<std::string> params = {std::string(kPassword), "ca", "limit_rate",
                                                 std::string(kParallel), "timeout"};
    return params;
}

bool IsSecret(const TokenScheme* scheme, const std::string& param) {
    return param == kPassword || (scheme != nullptr && scheme->secrets.contains(param));
}

// Returns true if the text is short and contains only letters, digits and the characters in
// `marks`, so that an error text may quote it.
bool IsWord(std::string_view text, std::string_view marks) {
    return !text.empty() && text.size() <= kMaxQuoteLength &&
           std::all_of(text.begin(), text.end(), [marks](char c) {
               return IsLetterOrDigit(c) || marks.find(c) != std::string_view::npos;
           });
}

// Decodes a percent-encoded part of the token. `what` is the name of that part for the error text.
// Throws Fault when the encoding is invalid.
std::string Decode(std::string_view text, const std::string& what) {
    std::optional<std::string> decoded = PercentDecoded(text);
    if (!decoded) {
        throw Fault{"storage token: invalid percent-encoding in " + what + "; write '%' as %25"};
    }
    if (HasControl(*decoded)) throw Fault{"storage token: a control character in " + what};
    return std::move(*decoded);
}

// Splits `text` at the first `mark`: `text` keeps the part before the mark, and the part after it
// is returned. Returns nullopt when `text` contains no `mark`.
std::optional<std::string_view> CutTail(std::string_view& text, char mark) {
    const std::size_t found = text.find(mark);
    if (found == std::string_view::npos) return std::nullopt;
    const std::string_view tail = text.substr(found + 1);
    text = text.substr(0, found);
    return tail;
}

void CheckNumber(const std::string& name, const std::string& value) {
    if (value.size() > 18 || !str::HasDigitsOnly(value)) {
        throw Fault{"storage token: parameter '" + name +
                    "' must be a whole number that is not negative"};
    }
}

void CheckParallel(const std::string& value) {
    constexpr std::size_t kMaxDigits = 18;
    const bool is_number = value.size() <= kMaxDigits && str::HasDigitsOnly(value);
    const std::int64_t number = is_number ? str::Int64(value) : 0;
    if (number >= 1 && number <= kMaxParallel) return;
    throw Fault{"storage token: parameter 'parallel' must be a whole number from 1 to " +
                str::Str(kMaxParallel)};
}

}  // namespace

class BackupToken::Parser {
  public:
    explicit Parser(BackupToken& token) : token_(token) {}

    void Parse(std::string_view text) {
        CheckText(text);
        std::string_view location = ParseScheme(text);
        if (str::StartsWith(location, "//")) {
            location.remove_prefix(2);
            const std::size_t end = std::min(location.find_first_of("/?"), location.size());
            CheckStrayAt(location, end);
            ParseAuthority(location.substr(0, end));
            location.remove_prefix(end);
        }
        const std::optional<std::string_view> params = CutTail(location, '?');
        if (params) ParseParams(*params);
        token_.path_ = Decode(location, "the path");
        CheckMeaning();
    }

  private:
    static void CheckText(std::string_view text) {
        if (text.empty())
            throw Fault{
                "the storage token is empty: set BACKUP_TOKEN, for instance to "
                "local:///srv/backups"};
        if (HasControl(text) || text.find(' ') != std::string_view::npos) {
            throw Fault{
                "storage token: it contains a space or a control character; write a space as %20"};
        }
        if (text.find('#') != std::string_view::npos) {
            throw Fault{"storage token: write a '#' as %23"};
        }
    }

    // Parses the scheme and returns the rest of the token after "SCHEME:".
    std::string_view ParseScheme(std::string_view text) {
        std::string_view scheme = text;
        const std::optional<std::string_view> rest = CutTail(scheme, ':');
        if (!rest)
            throw Fault{
                "storage token: it does not begin with a scheme, as in local:///srv/backups"};
        token_.scheme_ = str::Lower(scheme);
        scheme_ = FindTokenScheme(token_.scheme_);
        if (scheme_ != nullptr) return *rest;
        // A token without "//" may be "user:password@host" without a scheme. The error text must
        // not quote such a token.
        const bool telling = IsWord(scheme, "+-.") && (str::StartsWith(*rest, "//") ||
                                                       rest->find('@') == std::string_view::npos);
        throw Fault{"unknown storage scheme" + (telling ? " '" + token_.scheme_ + "'" : "") +
                    "; known: " + KnownSchemes()};
    }

    // Refuses a "@" after the authority ("user:password@host:port"). In such a token, the password
    // probably contains an unencoded "/" or "?". The parser would end the authority there and parse
    // the rest of the password as the path, which is printed.
    static void CheckStrayAt(std::string_view text, std::size_t authority_end) {
        const std::string_view authority = text.substr(0, authority_end);
        const bool stray = text.find('@', authority_end) != std::string_view::npos;
        if (!authority.empty() && stray) {
            throw Fault{
                "storage token: a '@' after the host; write it as %40, and '/', '?' and ':' "
                "in a user name or password as %2F, %3F and %3A"};
        }
    }

    void ParseAuthority(std::string_view authority) {
        std::string_view host = authority;
        const std::size_t at = authority.rfind('@');
        if (at != std::string_view::npos) {
            ParseUser(authority.substr(0, at));
            host = authority.substr(at + 1);
            if (host.empty()) throw Fault{"storage token: a user name without a host"};
        }
        ParseHost(host);
    }

    void ParseUser(std::string_view user) {
        if (user.find('@') != std::string_view::npos) {
            throw Fault{"storage token: write a '@' in a user name or password as %40"};
        }
        const std::optional<std::string_view> password = CutTail(user, ':');
        token_.user_ = Decode(user, "the user name");
        token_.password_ = Decode(password.value_or(std::string_view()), "the password");
        if (token_.user_.empty()) throw Fault{"storage token: the user name is empty"};
    }

    void ParseHost(std::string_view host) {
        std::optional<std::string_view> port;
        if (str::StartsWith(host, "[")) {
            host.remove_prefix(1);
            const std::optional<std::string_view> tail = CutTail(host, ']');
            if (!tail || (!tail->empty() && tail->front() != ':') || !IsAddress(host))
                ThrowInvalidHost();
            if (!tail->empty()) port = tail->substr(1);
        } else {
            port = CutTail(host, ':');
            const bool good = std::all_of(host.begin(), host.end(), [](char c) {
                return IsLetterOrDigit(c) || c == '-' || c == '.' || c == '_';
            });
            if (!good || (host.empty() && port)) ThrowInvalidHost();
        }
        token_.host_ = str::Lower(host);
        if (port) ParsePort(*port);
    }

    static bool IsAddress(std::string_view host) {
        return !host.empty() && host.find(':') != std::string_view::npos &&
               host.find_first_not_of("0123456789abcdefABCDEF:.") == std::string_view::npos;
    }

    // The error text does not quote the host, because it can be the first part of a password that
    // contains a "/".
    [[noreturn]] static void ThrowInvalidHost() {
        throw Fault{"storage token: invalid host name or address"};
    }

    void ParsePort(std::string_view text) {
        const char* const end = text.data() + text.size();
        const auto result = std::from_chars(text.data(), end, token_.port_);
        if (result.ec != std::errc() || result.ptr != end || token_.port_ == 0) {
            throw Fault{"storage token: the port must be a number from 1 to 65535"};
        }
    }

    void ParseParams(std::string_view text) {
        while (!text.empty()) {
            std::string_view param = text;
            text = CutTail(param, '&').value_or(std::string_view());
            ParseParam(param);
        }
    }

    void ParseParam(std::string_view param) {
        const std::optional<std::string_view> value = CutTail(param, '=');
        const std::string name = KnownParam(param, value.has_value());
        const std::string what = "parameter '" + name + "'";
        if (token_.params_.contains(name)) throw Fault{"storage token: repeated " + what};
        token_.params_[name] = Decode(value.value_or(std::string_view()), what);
        // Refuse an empty value, because it is usually a mistake, such as "arch_password=$UNSET" in
        // a script.
        if (token_.params_[name].empty()) throw Fault{"storage token: " + what + " has no value"};
        after_secret_ = after_secret_ || IsSecret(scheme_, name);
    }

    // Returns the name of a known parameter. Throws Fault for an unknown parameter. The error text
    // does not quote a parameter without "=", because it can be a secret value whose name is
    // missing.
    std::string KnownParam(std::string_view text, bool has_value) const {
        std::set<std::string> known = CommonParams();
        known.insert(scheme_->params.begin(), scheme_->params.end());
        std::string name(text);
        if (known.contains(name)) return name;
        if (after_secret_) {
            throw Fault{
                "storage token: unknown parameter after a secret parameter; "
                "write '&' in a value as %26"};
        }
        const std::string quoted = has_value && IsWord(text, "_-") ? " '" + name + "'" : "";
        throw Fault{"storage token: unknown parameter" + quoted +
                    "; known: " + str::Join(known, ", ")};
    }

    void CheckMeaning() const {
        for (const char* const name : {"limit_rate", "timeout"}) {
            if (token_.params_.contains(name)) CheckNumber(name, token_.params_.at(name));
        }
        const auto parallel = token_.params_.find(std::string(kParallel));
        if (parallel != token_.params_.end()) CheckParallel(parallel->second);
        const std::string fault = scheme_->fault(token_);
        if (!fault.empty()) throw Fault{"storage token: " + fault};
    }

    BackupToken& token_;
    const TokenScheme* scheme_ = nullptr;
    bool after_secret_ = false;
};

BackupToken::BackupToken(const std::string& text) {
    try {
        Parser(*this).Parse(text);
    } catch (const Fault& fault) {
        Forget();
        fault_ = fault.text;
    }
}

void BackupToken::Forget() {
    for (std::string* const piece : {&scheme_, &user_, &password_, &host_, &path_}) piece->clear();
    port_ = 0;
    params_.clear();
}

std::string BackupToken::Str() const {
    if (!fault_.empty()) return std::string(kHidden);
    std::string text = scheme_ + ":" + Authority() + PercentEncoded(path_, "/");
    const TokenScheme* const scheme = FindTokenScheme(scheme_);
    char mark = '?';
    for (const auto& [name, value] : params_) {
        text += mark + name + "=";
        text += IsSecret(scheme, name) ? std::string(kHidden) : PercentEncoded(value, "/");
        mark = '&';
    }
    return text;
}

std::string BackupToken::Authority() const {
    if (host_.empty()) return str::StartsWith(path_, "/") ? "//" : "";
    std::string text = "//";
    if (!user_.empty()) {
        text += PercentEncoded(user_, "");
        if (!password_.empty()) text.append(":").append(kHidden);
        text += "@";
    }
    text += host_.find(':') == std::string::npos ? host_ : "[" + host_ + "]";
    if (port_ != 0) text.append(":").append(str::Str(port_));
    return text;
}

std::string BackupToken::Hash() const {
    const std::string password = Param(std::string(kPassword));
    return password.empty() ? std::string() : PasswordHash(password);
}

std::string BackupToken::Param(const std::string& name) const {
    const auto found = params_.find(name);
    return found == params_.end() ? std::string() : found->second;
}

std::size_t ParallelOf(const BackupToken& token) {
    const std::string value = token.Param(std::string(kParallel));
    if (!value.empty()) return static_cast<std::size_t>(str::Int64(value));
    const TokenScheme* const scheme = FindTokenScheme(token.scheme());
    return scheme == nullptr ? 1 : scheme->default_parallel;
}

}  // namespace quarn2
