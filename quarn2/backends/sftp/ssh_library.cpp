#include "ssh_library.h"

#include "kro/kro_err.h"
#include "net/loaded_library.h"

namespace quarn2::sftp {

namespace {

SshLibrary Load() {
    const net::LoadedLibrary library("libssh.so.4", "libssh-4");
    SshLibrary ssh = {};
    decltype(&::ssh_init) init = nullptr;
    library.Find("ssh_init", init);
    library.Find("ssh_channel_is_eof", ssh.channel_is_eof);
    library.Find("ssh_channel_new", ssh.channel_new);
    library.Find("ssh_channel_open_session", ssh.channel_open_session);
    library.Find("ssh_channel_poll", ssh.channel_poll);
    library.Find("ssh_channel_read_timeout", ssh.channel_read_timeout);
    library.Find("ssh_channel_request_subsystem", ssh.channel_request_subsystem);
    library.Find("ssh_channel_write", ssh.channel_write);
    library.Find("ssh_clean_pubkey_hash", ssh.clean_pubkey_hash);
    library.Find("ssh_connect", ssh.connect);
    library.Find("ssh_disconnect", ssh.disconnect);
    library.Find("ssh_free", ssh.free_session);
    library.Find("ssh_get_error", ssh.get_error);
    library.Find("ssh_get_fingerprint_hash", ssh.get_fingerprint_hash);
    library.Find("ssh_get_publickey_hash", ssh.get_publickey_hash);
    library.Find("ssh_get_server_publickey", ssh.get_server_publickey);
    library.Find("ssh_is_connected", ssh.is_connected);
    library.Find("ssh_key_free", ssh.key_free);
    library.Find("ssh_key_type", ssh.key_type);
    library.Find("ssh_key_type_to_char", ssh.key_type_to_char);
    library.Find("ssh_new", ssh.make);
    library.Find("ssh_options_set", ssh.options_set);
    library.Find("ssh_pki_export_pubkey_base64", ssh.pki_export_pubkey_base64);
    library.Find("ssh_pki_import_privkey_base64", ssh.pki_import_privkey_base64);
    library.Find("ssh_silent_disconnect", ssh.silent_disconnect);
    library.Find("ssh_string_free_char", ssh.string_free_char);
    library.Find("ssh_userauth_kbdint", ssh.userauth_kbdint);
    library.Find("ssh_userauth_kbdint_getnprompts", ssh.userauth_kbdint_getnprompts);
    library.Find("ssh_userauth_kbdint_setanswer", ssh.userauth_kbdint_setanswer);
    library.Find("ssh_userauth_list", ssh.userauth_list);
    library.Find("ssh_userauth_password", ssh.userauth_password);
    library.Find("ssh_userauth_publickey", ssh.userauth_publickey);
    if (init() != SSH_OK) {
        throw kro_err::Error(kro_err::Kind::kFailed, "libssh cannot be initialised");
    }
    return ssh;
}

}  // namespace

const SshLibrary& Ssh() {
    static const SshLibrary library = Load();
    return library;
}

}  // namespace quarn2::sftp
