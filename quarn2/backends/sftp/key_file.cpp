#include "key_file.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "kro/res_handle.h"

namespace quarn2::sftp {

namespace {

constexpr std::size_t kMaxKeyBytes = 64UL * 1024;
constexpr mode_t kOthers = 077;

[[noreturn]] void ThrowInvalidKey(const std::string& path, const std::string& what) {
    throw kro_err::Error(kro_err::Kind::kUnauthorized, "key file " + Quoted(path) + " " + what);
}

std::string Reason(int error) { return std::generic_category().message(error); }

// A buffer for the text of a private key. The destructor overwrites the text in memory.
class Wiped {
  public:
    Wiped() : text(kMaxKeyBytes + 1, '\0') {}
    ~Wiped() { OPENSSL_cleanse(text.data(), text.size()); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;

    std::string text;
};

void Read(const std::string& path, std::string& text) {
    const ResHandle handle(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!handle || fstat(handle, &status) != 0) {
        ThrowInvalidKey(path, "cannot be opened: " + Reason(errno));
    }
    if (!S_ISREG(status.st_mode)) ThrowInvalidKey(path, "is not a plain file");
    if ((status.st_mode & kOthers) != 0) {
        ThrowInvalidKey(path, "can be read or changed by other users; make it private: chmod 600");
    }
    std::size_t size = 0;
    for (;;) {
        const ssize_t got = read(handle, text.data() + size, text.size() - size);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) ThrowInvalidKey(path, "cannot be read: " + Reason(errno));
        if (got == 0) break;
        size += static_cast<std::size_t>(got);
        if (size > kMaxKeyBytes) ThrowInvalidKey(path, "is too large for a private key");
    }
    text[size] = '\0';
}

// libssh calls this callback to ask for the passphrase of a key. Keys with a passphrase are not
// supported.
int NoPassphrase(const char* /*prompt*/, char* /*answer*/, std::size_t /*size*/, int /*echo*/,
                 int /*verify*/, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

}  // namespace

SshKey LoadKey(const std::string& path) {
    Wiped content;
    Read(path, content.text);
    bool asked = false;
    ssh_key key = nullptr;
    const int result =
        Ssh().pki_import_privkey_base64(content.text.c_str(), nullptr, NoPassphrase, &asked, &key);
    SshKey owned(key);
    if (asked) {
        ThrowInvalidKey(
            path, "has a passphrase; use a separate key without a passphrase for the storage");
    }
    if (result != SSH_OK) ThrowInvalidKey(path, "does not contain a supported private key");
    return owned;
}

}  // namespace quarn2::sftp
