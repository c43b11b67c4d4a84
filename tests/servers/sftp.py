"""SFTP: OpenSSH's sshd, login by password and by key."""

import os
import subprocess

from . import system_user
from .base import Server

KEY_TYPES = ("ed25519", "ecdsa", "rsa")


class Sshd(Server):
    name = "sftp"
    programs = ("/usr/sbin/sshd", "ssh-keygen", "useradd", "chpasswd")
    owner = system_user.USER

    def start(self):
        self.check_means()
        self.password = system_user.ensure(self.run)
        super().start()

    def launch(self, base):
        os.makedirs("/run/sshd", exist_ok=True)  # the compiled-in chroot directory of sshd's child processes
        self.serve_directory()
        self.make_keys()
        self.write("etc/known_hosts", self.known_hosts(base, "host"))
        self.write("etc/known_hosts_changed", self.known_hosts(base, "other"))
        self.write("etc/known_hosts_empty", "")
        config = self.write("etc/sshd_config", self.config(base))
        self.run("/usr/sbin/sshd", "-t", "-f", config)
        self.spawn("sshd", "/usr/sbin/sshd", "-D", "-e", "-f", config)
        self.info.update(
            port=base, user=system_user.USER, password=self.password, path=self.data,
            key=self.file("etc/client"), unknown_key=self.file("etc/stranger"),
            known_hosts=self.file("etc/known_hosts"),
            known_hosts_changed=self.file("etc/known_hosts_changed"),
            known_hosts_empty=self.file("etc/known_hosts_empty"))

    def is_ready(self):
        return self.answers(self.info["port"], b"SSH-")

    def make_keys(self):
        wanted = [(f"{owner}_{kind}", kind) for owner in ("host", "other") for kind in KEY_TYPES]
        wanted += [("client", "ed25519"), ("stranger", "ed25519")]
        makers = [subprocess.Popen(
            ["ssh-keygen", "-q", "-N", "", "-t", kind, *(["-b", "2048"] if kind == "rsa" else []),
             "-f", self.file("etc", name)], stdin=subprocess.DEVNULL) for name, kind in wanted]
        for maker in makers:
            if maker.wait() != 0:
                raise subprocess.CalledProcessError(maker.returncode, maker.args)
        with open(self.file("etc/client.pub"), encoding="ascii") as key:
            self.write("etc/authorized_keys", key.read())

    def known_hosts(self, port, owner):
        lines = []
        for kind in KEY_TYPES:
            with open(self.file("etc", f"{owner}_{kind}.pub"), encoding="ascii") as key:
                kind_and_key = " ".join(key.read().split()[:2])
            lines += [f"[{host}]:{port} {kind_and_key}\n"
                      for host in ("127.0.0.1", "127.0.0.2", "localhost")]
        return "".join(lines)

    def config(self, port):
        keys = "".join(f"HostKey {self.file('etc', 'host_' + kind)}\n" for kind in KEY_TYPES)
        return f"""ListenAddress 127.0.0.1
Port {port}
{keys}PidFile none
AuthorizedKeysFile {self.file('etc/authorized_keys')}
StrictModes no
UsePAM no
PasswordAuthentication yes
KbdInteractiveAuthentication no
PubkeyAuthentication yes
UseDNS no
MaxStartups 100:30:200
MaxSessions 100
Subsystem sftp internal-sftp
AllowUsers {system_user.USER}
ForceCommand internal-sftp
AllowTcpForwarding no
"""
