"""A third FTP server: vsftpd, which has no machine-readable listings.

It offers plain FTP and explicit TLS on one port. One process requires that data connections reuse the TLS
session of the control connection, which is vsftpd's default. Another process does not require it.
"""

import os

from . import system_user
from .base import Server
from .ftp import DAEMONS, check_unpacked
from .ports import BLOCK

# A PAM service that exists on every Debian system. It checks the user's password.
PAM_SERVICE = "other"


class Vsftpd(Server):
    name = "ftp3"
    owner = "daemon"  # vsftpd needs a user with an existing home directory
    program = os.path.join(DAEMONS, "vsftpd/usr/sbin/vsftpd")
    programs = ("useradd", "chpasswd")

    def check_means(self):
        super().check_means()
        check_unpacked(self.program)

    def start(self):
        self.check_means()
        self.password = system_user.ensure(self.run)
        super().start()

    def launch(self, base):
        self.serve_directory()
        os.makedirs(self.file("empty"), mode=0o555)
        last = base + BLOCK - 1
        self.info.update(user=system_user.USER, password=self.password, path="/", port=base,
                         tls_port=base, lenient_port=last, first_passive_port=base + 1,
                         last_passive_port=last - 1)
        self.start_daemon("strict", base, "YES")
        self.start_daemon("lenient", last, "NO")

    def is_ready(self):
        return all(self.answers(self.info[key], b"220") for key in ("port", "lenient_port"))

    def start_daemon(self, name, port, require_reuse):
        config = self.write(f"etc/{name}.conf", self.config(name, port, require_reuse))
        self.spawn("vsftpd-" + name, self.program, config)

    def config(self, name, port, require_reuse):
        # seccomp_sandbox=NO, because vsftpd's filter of system calls ends sessions on current kernels.
        return f"""listen=YES
listen_address=127.0.0.1
listen_port={port}
background=NO
anonymous_enable=NO
local_enable=YES
write_enable=YES
local_umask=022
pam_service_name={PAM_SERVICE}
session_support=NO
guest_enable=YES
guest_username={self.owner}
virtual_use_local_privs=YES
local_root={self.data}
chroot_local_user=YES
allow_writeable_chroot=YES
secure_chroot_dir={self.file('empty')}
seccomp_sandbox=NO
delay_failed_login=0
pasv_min_port={self.info['first_passive_port']}
pasv_max_port={self.info['last_passive_port']}
idle_session_timeout=600
max_login_fails=1
xferlog_enable=YES
log_ftp_protocol=YES
dual_log_enable=YES
vsftpd_log_file={self.file('log', f'vsftpd-{name}.log')}
xferlog_file={self.file('log', f'transfers-{name}.log')}
ssl_enable=YES
force_local_logins_ssl=NO
force_local_data_ssl=NO
require_ssl_reuse={require_reuse}
strict_ssl_read_eof=YES
ssl_ciphers=HIGH
rsa_cert_file={self.certificate('server', 'crt')}
rsa_private_key_file={self.certificate('server', 'key')}
"""
