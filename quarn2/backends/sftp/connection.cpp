#include "connection.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#include "base/stored_name.h"
#include "dial.h"
#include "key_file.h"
#include "known_hosts.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "ssh_library.h"

namespace quarn2::sftp {

namespace {

using kro_err::Error;
using kro_err::Kind;

// The ciphers in the order of preference. AES-GCM is first, because processors have instructions
// for it and it needs no separate checksum.
const char* const kCiphers =
    "aes128-gcm@openssh.com,aes256-gcm@openssh.com,chacha20-poly1305@openssh.com,"
    "aes256-ctr,aes192-ctr,aes128-ctr";
const char* const kSystemKnownHosts = "/etc/ssh/ssh_known_hosts";
// The size of the SSH channel's window: the number of bytes that the server may send before it must
// wait for a confirmation. libssh's default is a third of this size and would limit the speed of
// downloads.
constexpr std::size_t kWindow = 4UL * 1024 * 1024;
constexpr std::size_t kTopUp = kWindow / 4;
constexpr std::size_t kSmallRead = 256UL * 1024;
constexpr int kMaxQuestions = 4;

std::string At(const Account& account) {
    return "host " + Quoted(account.host) + ", port " + std::to_string(account.port);
}

// Returns the last error of libssh in quotes, because it can contain text that the server sent.
std::string Reason(ssh_session session) {
    const std::string text = Ssh().get_error(session);
    return text.empty() ? "no reason given" : Quoted(text);
}

template <class T>
void SetOption(ssh_session session, ssh_options_e option, const T& value) {
    if (Ssh().options_set(session, option, value) != SSH_OK) {
        throw Error(Kind::kFailed, "libssh rejected an option: " + Reason(session));
    }
}

std::string HomeDirectory() {
    if (const char* const home = getenv("HOME"); home != nullptr && *home != '\0') return home;
    std::array<char, 4096> buffer{};
    passwd entry = {};
    passwd* found = nullptr;
    const bool good = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
                      found != nullptr;
    return good ? std::string(entry.pw_dir) : std::string("/");
}

std::vector<std::string> KnownHostsFiles(const Account& account) {
    if (!account.known_hosts_file.empty()) return {account.known_hosts_file};
    return {kro_file::ConcatPath(HomeDirectory(), ".ssh/known_hosts"), kSystemKnownHosts};
}

// Returns the host key algorithms to request. The algorithms of the known keys of this host come
// first, so that the server sends a key that can be verified.
std::string KeyAlgorithms(const KnownHosts& known) {
    std::vector<std::string> algorithms;
    const auto add = [&algorithms](const std::string& name) {
        if (std::find(algorithms.begin(), algorithms.end(), name) == algorithms.end()) {
            algorithms.push_back(name);
        }
    };
    for (const std::vector<std::string>& types :
         {known.Types(),
          std::vector<std::string>{"ssh-ed25519", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384",
                                   "ecdsa-sha2-nistp521", "ssh-rsa"}}) {
        for (const std::string& type : types) {
            if (type == "ssh-rsa") {
                add("rsa-sha2-512");
                add("rsa-sha2-256");
            } else {
                add(type);
            }
        }
    }
    return str::Join(algorithms, ",");
}

class Login {
  public:
    explicit Login(const Account& account)
        : account_(account), files_(KnownHostsFiles(account)), known_(account.host, account.port) {
        for (const std::string& file : files_) known_.AddFile(file);
    }

    SshSession Run() {
        // Load the key first, so that an invalid key file is reported before a connection is
        // opened.
        if (!account_.key_file.empty()) key_ = LoadKey(account_.key_file);
        Configure();
        Handshake();
        CheckHostKey();
        Authenticate();
        return std::move(session_);
    }

  private:
    void Configure() {
        session_.reset(Ssh().make());
        if (session_ == nullptr) throw std::bad_alloc();
        ssh_session session = session_.get();
        const bool no = false;
        const long seconds = account_.timeout;
        const std::string algorithms = KeyAlgorithms(known_);
        // Ignore the SSH configuration files of the user, because the token contains all settings.
        SetOption(session, SSH_OPTIONS_PROCESS_CONFIG, &no);
        SetOption(session, SSH_OPTIONS_KNOWNHOSTS, "/dev/null");
        SetOption(session, SSH_OPTIONS_GLOBAL_KNOWNHOSTS, "/dev/null");
        SetOption(session, SSH_OPTIONS_HOST, account_.host.c_str());
        SetOption(session, SSH_OPTIONS_USER, account_.user.c_str());
        SetOption(session, SSH_OPTIONS_TIMEOUT, &seconds);
        SetOption(session, SSH_OPTIONS_HOSTKEYS, algorithms.c_str());
        SetOption(session, SSH_OPTIONS_CIPHERS_C_S, kCiphers);
        SetOption(session, SSH_OPTIONS_CIPHERS_S_C, kCiphers);
        SetOption(session, SSH_OPTIONS_COMPRESSION_C_S, "none");
        SetOption(session, SSH_OPTIONS_COMPRESSION_S_C, "none");
    }

    void Handshake() {
        Socket socket = Dial(account_.host, account_.port, account_.timeout);
        const int fd = socket.fd();
        SetOption(session_.get(), SSH_OPTIONS_FD, &fd);
        // libssh owns the socket now and closes it.
        socket.Release();
        if (Ssh().connect(session_.get()) == SSH_OK) return;
        const std::string text = Ssh().get_error(session_.get());
        const bool mismatch = text.find("no match for method") != std::string::npos;
        throw Error(
            mismatch ? Kind::kFailed : Kind::kUnavailable,
            "cannot open an SSH session with " + At(account_) + ": " + Reason(session_.get()));
    }

    void CheckHostKey() {
        ssh_key raw = nullptr;
        if (Ssh().get_server_publickey(session_.get(), &raw) != SSH_OK)
            ThrowNotReceived("no host key");
        const SshKey key(raw);
        char* text = nullptr;
        if (Ssh().pki_export_pubkey_base64(key.get(), &text) != SSH_OK)
            ThrowNotReceived("no host key");
        const SshText encoded(text);
        const std::string type = Ssh().key_type_to_char(Ssh().key_type(key.get()));
        const Trust trust = known_.Check(type, encoded.get());
        if (trust != Trust::kTrusted) {
            throw Error(Kind::kUnauthorized, Distrust(trust, type + " " + Fingerprint(key.get())));
        }
    }

    static std::string Fingerprint(ssh_key key) {
        unsigned char* hash = nullptr;
        std::size_t size = 0;
        if (Ssh().get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &size) != SSH_OK) {
            return "with unknown fingerprint";
        }
        const SshText text(Ssh().get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, size));
        Ssh().clean_pubkey_hash(&hash);
        return text == nullptr ? "with unknown fingerprint" : std::string(text.get());
    }

    std::string Distrust(Trust trust, const std::string& shown) const {
        std::vector<std::string> files;
        for (const std::string& file : files_) files.push_back(Quoted(file));
        const std::string where = str::Join(files, " or ");
        const std::string key = "the host key of " + Quoted(known_.host()) + " (" + shown + ") ";
        if (trust == Trust::kRevoked) return key + "is marked as revoked in " + where;
        if (trust == Trust::kChanged) {
            return key + "differs from the key in " + where +
                   ": another host may impersonate the server. If the server was reinstalled, "
                   "remove the old "
                   "key (ssh-keygen -R " +
                   Quoted(known_.host()) + (files.size() == 1 ? " -f " + where : "") +
                   ") and add the new one";
        }
        return key + "is unknown: it is not in " + where +
               ". Compare it with the key on the server, then add it: ssh-keyscan -p " +
               std::to_string(account_.port) + " " + account_.host + " >> " + files.front();
    }

    void Authenticate() {
        std::vector<std::string> refused;
        if (key_ != nullptr) {
            if (Accepted(Ssh().userauth_publickey(session_.get(), nullptr, key_.get()))) return;
            refused.push_back("key file " + Quoted(account_.key_file));
        }
        if (!account_.password.empty()) {
            if (Accepted(
                    Ssh().userauth_password(session_.get(), nullptr, account_.password.c_str()))) {
                return;
            }
            if (Accepted(AnswerQuestions())) return;
            refused.emplace_back("the password");
        }
        throw Error(Kind::kUnauthorized, At(account_) + " refused the login of user " +
                                             Quoted(account_.user) + " with " +
                                             str::Join(refused, " and "));
    }

    bool Accepted(int result) {
        if (result == SSH_AUTH_AGAIN) ThrowNotReceived("no response to the login");
        if (result == SSH_AUTH_ERROR) ThrowNotReceived("no valid response to the login");
        return result == SSH_AUTH_SUCCESS;
    }

    // Answers the questions of keyboard-interactive authentication with the password. Some servers
    // accept passwords only with this method.
    int AnswerQuestions() {
        ssh_session session = session_.get();
        const auto methods = static_cast<unsigned>(Ssh().userauth_list(session, nullptr));
        if ((methods & SSH_AUTH_METHOD_INTERACTIVE) == 0U) return SSH_AUTH_DENIED;
        int result = Ssh().userauth_kbdint(session, nullptr, nullptr);
        for (int round = 0; result == SSH_AUTH_INFO && round < kMaxQuestions; ++round) {
            const int prompts = Ssh().userauth_kbdint_getnprompts(session);
            for (int i = 0; i < prompts; ++i) {
                Ssh().userauth_kbdint_setanswer(session, static_cast<unsigned>(i),
                                                account_.password.c_str());
            }
            result = Ssh().userauth_kbdint(session, nullptr, nullptr);
        }
        return result == SSH_AUTH_INFO ? SSH_AUTH_DENIED : result;
    }

    [[noreturn]] void ThrowNotReceived(const std::string& what) const {
        throw Error(Kind::kUnavailable,
                    "received " + what + " from " + At(account_) + ": " + Reason(session_.get()));
    }

    const Account& account_;
    std::vector<std::string> files_;
    KnownHosts known_;
    SshKey key_;
    SshSession session_;
};

// An SSH channel to the SFTP server. The destructor does not free the channel, because libssh frees
// it together with the session.
class Connection final : public Stream {
  public:
    Connection(SshSession session, const Account& account)
        : session_(std::move(session)), timeout_(account.timeout), where_(At(account)) {
        channel_ = Ssh().channel_new(session_.get());
        if (channel_ == nullptr) throw std::bad_alloc();
        if (Ssh().channel_open_session(channel_) != SSH_OK)
            ThrowFailed("cannot open an SSH channel to ");
        if (Ssh().channel_request_subsystem(channel_, "sftp") == SSH_OK) return;
        throw Error(Kind::kFailed,
                    "cannot start the SFTP subsystem on " + where_ + ": " + Reason(session_.get()));
    }

    // Closes a broken connection without sending a disconnect message, because sending could block.
    ~Connection() override {
        if (broken_) {
            Ssh().silent_disconnect(session_.get());
        } else {
            Ssh().disconnect(session_.get());
        }
    }

    void Write(std::span<const std::byte> bytes) override {
        const auto size = static_cast<std::uint32_t>(bytes.size());
        const int done = Ssh().channel_write(channel_, bytes.data(), size);
        if (done < 0) ThrowFailed("Failed to send to ");
        if (static_cast<std::uint32_t>(done) != size) ThrowStalled(timeout_);
    }

    std::size_t Read(std::span<std::byte> buffer, int extra_seconds) override {
        // If a read requests more bytes than the channel's window has left, libssh sends a packet
        // that enlarges the window. To send few such packets, a large read is requested only once
        // per kTopUp received bytes.
        const bool top_up = received_ >= kTopUp && buffer.size() >= kWindow;
        if (top_up) received_ = 0;
        const std::size_t size = std::min(buffer.size(), top_up ? kWindow : kSmallRead);
        const int seconds = std::min(timeout_, kMaxWait - extra_seconds) + extra_seconds;
        const int got = Ssh().channel_read_timeout(
            channel_, buffer.data(), static_cast<std::uint32_t>(size), 0, seconds * 1000);
        if (got < 0) ThrowFailed("Failed to receive from ");
        if (got == 0 && Ssh().channel_is_eof(channel_) != 0) ThrowClosed();
        if (got == 0) ThrowStalled(seconds);
        received_ += static_cast<std::size_t>(got);
        return static_cast<std::size_t>(got);
    }

    void CheckAlive() override {
        const int waiting = Ssh().channel_poll(channel_, 0);
        if (waiting == SSH_EOF) ThrowClosed();
        if (waiting < 0 || Ssh().is_connected(session_.get()) == 0)
            ThrowFailed("lost the connection to ");
    }

  private:
    static constexpr int kMaxWait = 2'000'000;  // in seconds; libssh takes milliseconds in an int

    [[noreturn]] void ThrowUnavailable(const std::string& text) {
        broken_ = true;
        throw Error(Kind::kUnavailable, text);
    }
    [[noreturn]] void ThrowFailed(const std::string& what) {
        ThrowUnavailable(what + where_ + ": " + Reason(session_.get()));
    }
    [[noreturn]] void ThrowClosed() { ThrowUnavailable(where_ + " closed the connection"); }
    [[noreturn]] void ThrowStalled(int seconds) {
        if (Ssh().channel_is_eof(channel_) != 0 || Ssh().is_connected(session_.get()) == 0)
            ThrowClosed();
        ThrowUnavailable("no progress in the connection to " + where_ + " for " +
                         std::to_string(seconds) + " seconds");
    }

    SshSession session_;
    ssh_channel channel_ = nullptr;
    int timeout_;
    std::string where_;
    std::size_t received_ = kTopUp;
    bool broken_ = false;
};

}  // namespace

std::unique_ptr<Stream> Connect(const Account& account) {
    return std::make_unique<Connection>(Login(account).Run(), account);
}

}  // namespace quarn2::sftp
