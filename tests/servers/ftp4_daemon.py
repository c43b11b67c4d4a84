"""The server process of ftp4.py:  ftp4_daemon.py SETTINGS

SETTINGS is a file of KEY=VALUE lines.
"""

import os
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import TLS_FTPHandler
from pyftpdlib.servers import FTPServer


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        settings = dict(line.rstrip("\n").split("=", 1) for line in file)
    users = DummyAuthorizer()
    users.add_user(settings["user"], settings["password"], settings["data"], perm="elradfmwMT")

    class Handler(TLS_FTPHandler):
        authorizer = users
        certfile = settings["certificate"]
        passive_ports = range(int(settings["first_passive_port"]),
                              int(settings["last_passive_port"]) + 1)

    server = FTPServer(("127.0.0.1", int(settings["port"])), Handler)
    Handler.get_ssl_context()  # before setuid, because only root can read the key
    os.setgid(int(settings["gid"]))
    os.setuid(int(settings["uid"]))
    os.umask(0o022)
    server.serve_forever()


if __name__ == "__main__":
    main()
