"""SFTP: OpenSSH's sshd, login by password and by key."""

import contextlib
import fcntl
import os
import pwd
import secrets
import subprocess

from .base import Server

# sshd takes the word of the system about who a user is and what the password is, so there has to be one.
# All builds on a machine share it: its password is kept where only root can read it.
USER = "quarn2-sftp-test"
STATE = "/var/lib/quarn2-sftp-test"
KEY_TYPES = ("ed25519", "ecdsa", "rsa")


@contextlib.contextmanager
def _one_at_a_time():
    os.makedirs(STATE, mode=0o700, exist_ok=True)
    with open(os.path.join(STATE, "lock"), "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def _has_user():
    try:
        pwd.getpwnam(USER)
    except KeyError:
        return False
    return True


class Sshd(Server):
    name = "sftp"
    programs = ("/usr/sbin/sshd", "ssh-keygen", "useradd", "chpasswd")
    owner = USER

    def start(self):
        self.check_means()
        self.password = self.ensure_user()
        super().start()

    def ensure_user(self):
        with _one_at_a_time():
            path = os.path.join(STATE, "password")
            if not _has_user():
                with contextlib.suppress(FileNotFoundError):
                    os.unlink(path)
                self.run("useradd", "--system", "--no-create-home", "--home-dir", "/nonexistent",
                         "--shell", "/usr/sbin/nologin", USER)
            if not os.path.exists(path):
                password = "p@ss/w%rd? #" + secrets.token_hex(16)
                self.run("chpasswd", input=f"{USER}:{password}\n")
                with open(path + ".new", "w", encoding="ascii") as file:
                    os.fchmod(file.fileno(), 0o600)
                    file.write(password)
                os.rename(path + ".new", path)
            with open(path, encoding="ascii") as file:
                return file.read()

    def launch(self, base):
        os.makedirs("/run/sshd", exist_ok=True)  # compiled in: where sshd locks its children up
        self.serve_directory()
        self.make_keys()
        self.write("etc/known_hosts", self.known_hosts(base, "host"))
        self.write("etc/known_hosts_changed", self.known_hosts(base, "other"))
        self.write("etc/known_hosts_empty", "")
        config = self.write("etc/sshd_config", self.config(base))
        self.run("/usr/sbin/sshd", "-t", "-f", config)
        self.spawn("sshd", "/usr/sbin/sshd", "-D", "-e", "-f", config)
        self.info.update(
            port=base, user=USER, password=self.password, path=self.data,
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
AllowUsers {USER}
ForceCommand internal-sftp
AllowTcpForwarding no
"""
