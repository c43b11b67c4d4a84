// Loads libssh when it is first needed, and defines owners for its objects. Only
// quarn2/backends/sftp calls libssh.
#pragma once

#include <libssh/libssh.h>

#include <memory>

namespace quarn2::sftp {

// The functions that the program uses. Each entry consists of the name of the member of SshLibrary
// and the name of the libssh function.
#define QUARN2_SSH_FUNCTIONS(F)                                     \
    F(channel_is_eof, ssh_channel_is_eof)                           \
    F(channel_new, ssh_channel_new)                                 \
    F(channel_open_session, ssh_channel_open_session)               \
    F(channel_poll, ssh_channel_poll)                               \
    F(channel_read_timeout, ssh_channel_read_timeout)               \
    F(channel_request_subsystem, ssh_channel_request_subsystem)     \
    F(channel_write, ssh_channel_write)                             \
    F(clean_pubkey_hash, ssh_clean_pubkey_hash)                     \
    F(connect, ssh_connect)                                         \
    F(disconnect, ssh_disconnect)                                   \
    F(free_session, ssh_free)                                       \
    F(get_error, ssh_get_error)                                     \
    F(get_fingerprint_hash, ssh_get_fingerprint_hash)               \
    F(get_publickey_hash, ssh_get_publickey_hash)                   \
    F(get_server_publickey, ssh_get_server_publickey)               \
    F(is_connected, ssh_is_connected)                               \
    F(key_free, ssh_key_free)                                       \
    F(key_type, ssh_key_type)                                       \
    F(key_type_to_char, ssh_key_type_to_char)                       \
    F(make, ssh_new)                                                \
    F(options_set, ssh_options_set)                                 \
    F(pki_export_pubkey_base64, ssh_pki_export_pubkey_base64)       \
    F(pki_import_privkey_base64, ssh_pki_import_privkey_base64)     \
    F(silent_disconnect, ssh_silent_disconnect)                     \
    F(string_free_char, ssh_string_free_char)                       \
    F(userauth_kbdint, ssh_userauth_kbdint)                         \
    F(userauth_kbdint_getnprompts, ssh_userauth_kbdint_getnprompts) \
    F(userauth_kbdint_setanswer, ssh_userauth_kbdint_setanswer)     \
    F(userauth_list, ssh_userauth_list)                             \
    F(userauth_password, ssh_userauth_password)                     \
    F(userauth_publickey, ssh_userauth_publickey)

struct SshLibrary {
// NOLINTNEXTLINE(bugprone-macro-parentheses): `member` is the name of a member
#define QUARN2_SSH_MEMBER(member, function) decltype(&::function) member;
    QUARN2_SSH_FUNCTIONS(QUARN2_SSH_MEMBER)
#undef QUARN2_SSH_MEMBER
};

// Loads and initialises libssh at the first call and returns it. If libssh cannot be loaded, throws
// kFailed with the name of the package to install.
const SshLibrary& Ssh();

// A deleter that frees an object with a function of libssh.
template <auto Free>
struct Freed {
    template <class T>
    void operator()(T* handle) const noexcept {
        // Ssh() cannot throw here, because libssh is already loaded: it has created the handle.
        // cppcheck-suppress throwInNoexceptFunction
        (Ssh().*Free)(handle);
    }
};

using SshSession = std::unique_ptr<ssh_session_struct, Freed<&SshLibrary::free_session>>;
using SshKey = std::unique_ptr<ssh_key_struct, Freed<&SshLibrary::key_free>>;
using SshText = std::unique_ptr<char, Freed<&SshLibrary::string_free_char>>;

}  // namespace quarn2::sftp
