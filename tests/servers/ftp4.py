"""A fourth FTP server: pyftpdlib, which closes a data connection whose TLS handshake begins early."""

import os

from .base import INSTALL, Server, ServerError
from .ports import BLOCK

# Debian's own interpreter, because another one in PATH does not have Debian's modules.
PYTHON = "/usr/bin/python3"


class Pyftpdlib(Server):
    name = "ftp4"
    owner = "www-data"
    program = os.path.join(os.path.dirname(os.path.abspath(__file__)), "ftp4_daemon.py")

    def check_means(self):
        super().check_means()
        try:
            self.run(PYTHON, "-c", "import pyftpdlib, OpenSSL")
        except ServerError as error:
            raise ServerError(f"{self.name} lacks pyftpdlib or OpenSSL: {INSTALL}") from error

    def launch(self, base):
        self.serve_directory()
        self.info.update(port=base, tls_port=base, path="/", first_passive_port=base + 1,
                         last_passive_port=base + BLOCK - 1)
        keys = ("port", "first_passive_port", "last_passive_port", "uid", "gid", "user", "password",
                "data")
        settings = "".join(f"{key}={self.info[key]}\n" for key in keys)
        settings += f"certificate={self.certificate('server', 'pem')}\n"
        self.spawn("pyftpdlib", PYTHON, "-B", self.program,
                   self.write("etc/settings", settings, 0o600))

    def is_ready(self):
        return self.answers(self.info["port"], b"220")
