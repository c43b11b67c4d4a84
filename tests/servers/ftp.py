"""FTP: pure-ftpd, plain and with explicit TLS on one port."""

import os
import pwd

from .base import INSTALL, TOP, Server, ServerError
from .ports import BLOCK

# Debian's FTP server packages conflict with each other, so they are only unpacked, each in its own directory.
DAEMONS = os.environ.get("QUARN2_FTP_DAEMONS", os.path.join(TOP, "build/ftp-daemons"))


def check_unpacked(*programs):
    for program in programs:
        if not os.access(program, os.X_OK):
            raise ServerError(f"there is no {program}: {INSTALL}, or set QUARN2_FTP_DAEMONS")


class PureFtpd(Server):
    name = "ftp"
    owner = "www-data"
    program = os.path.join(DAEMONS, "pure-ftpd/usr/sbin/pure-ftpd")
    users_program = os.path.join(DAEMONS, "pure-ftpd/usr/bin/pure-pw")

    def check_means(self):
        super().check_means()
        check_unpacked(self.program, self.users_program)

    def launch(self, base):
        self.serve_directory()
        self.make_users()
        last = base + BLOCK - 1
        self.info.update(port=base, tls_port=base, expired_port=last - 1, self_signed_port=last,
                         first_passive_port=base + 1, last_passive_port=last - 10, path="/")
        self.start_daemon("server", base, base + 1, last - 10)
        # A client that rejects the certificate opens no data connection. Each server still has several data ports,
        # because pure-ftpd corrupts its memory if the range has only one port.
        self.start_daemon("expired", last - 1, last - 9, last - 6)
        self.start_daemon("self_signed", last, last - 5, last - 2)

    def is_ready(self):
        return all(self.answers(self.info[key], b"220")
                   for key in ("port", "expired_port", "self_signed_port"))

    def make_users(self):
        """Writes the line that pure-pw would write, but with a faster password hash."""
        user = pwd.getpwnam(self.owner)
        hashed = self.run("openssl", "passwd", "-6", "-stdin", input=self.info["password"]).strip()
        lines = (f"{self.info['user']}:{hashed}:{user.pw_uid}:{user.pw_gid}::{self.data}/./"
                 + ":" * 12 + "\n")
        passwords = self.write("etc/passwd", lines, 0o600)
        self.run(self.users_program, "mkdb", self.file("etc/users"), "-f", passwords)

    def start_daemon(self, certificate, port, first_passive, last_passive):
        self.spawn(
            "pure-ftpd-" + certificate, self.program, "-S", f"127.0.0.1,{port}", "-4", "-E", "-H",
            "-A", "-l", "puredb:" + self.file("etc/users"), "-Y", "1", "-2",
            self.certificate(certificate, "pem"), "-p", f"{first_passive}:{last_passive}",
            "-c", "100", "-C", "100", "-L", "100000:20", "-u", "1", "-f", "none",
            "-g", self.file("run", f"pure-ftpd-{certificate}.pid"))
