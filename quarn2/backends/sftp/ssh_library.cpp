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
#define QUARN2_FIND(member, function) library.Find(#function, ssh.member);
    QUARN2_SSH_FUNCTIONS(QUARN2_FIND)
#undef QUARN2_FIND
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
