"""Real servers for the tests of the storages, each with its data, keys and logs in one directory.

From the command line, in tests/:

    python3 -m servers start NAME DIR
    python3 -m servers stop DIR

From a test that needs a server of its own:

    with servers.Sshd(directory) as server:
        server.info["port"]

The servers listen on loopback addresses only. They must be started as root, as in continuous integration.
"""

from .base import Server, ServerError
from .ftp import PureFtpd
from .ftp2 import Proftpd
from .ftp3 import Vsftpd
from .ftp4 import Pyftpdlib
from .s3 import Radosgw
from .sftp import Sshd
from .webdav import Apache
from .webdav2 import Nginx

KINDS = {kind.name: kind for kind in (Radosgw, Sshd, Apache, Nginx, PureFtpd, Proftpd,
                                     Vsftpd, Pyftpdlib)}

__all__ = ["KINDS", "Server", "ServerError", "Apache", "Nginx", "Proftpd", "PureFtpd", "Pyftpdlib",
           "Radosgw", "Sshd", "Vsftpd"]
