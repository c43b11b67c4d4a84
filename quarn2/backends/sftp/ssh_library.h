// Loads libssh when it is first needed, and defines owners for its objects. Only
// quarn2/backends/sftp calls libssh.
#pragma once

#include <libssh/libssh.h>

#include <memory>

namespace quarn2::sftp {

struct SshLibrary {
    decltype(&::ssh_channel_is_eof) channel_is_eof;
    decltype(&::ssh_channel_new) channel_new;
    decltype(&::ssh_channel_open_session) channel_open_session;
    decltype(&::ssh_channel_poll) channel_poll;
    decltype(&::ssh_channel_read_timeout) channel_read_timeout;
    decltype(&::ssh_channel_request_subsystem) channel_request_subsystem;
    decltype(&::ssh_channel_write) channel_write;
    decltype(&::ssh_clean_pubkey_hash) clean_pubkey_hash;
    decltype(&::ssh_connect) connect;
    decltype(&::ssh_disconnect) disconnect;
    decltype(&::ssh_free) free_session;
    decltype(&::ssh_get_error) get_error;
    decltype(&::ssh_get_fingerprint_hash) get_fingerprint_hash;
    decltype(&::ssh_get_publickey_hash) get_publickey_hash;
    decltype(&::ssh_get_server_publickey) get_server_publickey;
    decltype(&::ssh_is_connected) is_connected;
    decltype(&::ssh_key_free) key_free;
    decltype(&::ssh_key_type) key_type;
    decltype(&::ssh_key_type_to_char) key_type_to_char;
    decltype(&::ssh_new) make;
    decltype(&::ssh_options_set) options_set;
    decltype(&::ssh_pki_export_pubkey_base64) pki_export_pubkey_base64;
    decltype(&::ssh_pki_import_privkey_base64) pki_import_privkey_base64;
    decltype(&::ssh_silent_disconnect) silent_disconnect;
    decltype(&::ssh_string_free_char) string_free_char;
    decltype(&::ssh_userauth_kbdint) userauth_kbdint;
    decltype(&::ssh_userauth_kbdint_getnprompts) userauth_kbdint_getnprompts;
    decltype(&::ssh_userauth_kbdint_setanswer) userauth_kbdint_setanswer;
    decltype(&::ssh_userauth_list) userauth_list;
    decltype(&::ssh_userauth_password) userauth_password;
    decltype(&::ssh_userauth_publickey) userauth_publickey;
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
