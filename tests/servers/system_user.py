"""A user of the operating system, for servers that look up users and passwords in the system.

All builds on a machine share the user. A file that only root can read contains its password.
"""

import contextlib
import fcntl
import os
import pwd
import secrets

USER = "quarn2-sftp-test"
STATE = "/var/lib/quarn2-sftp-test"


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


def ensure(run):
    """Creates the user if it does not exist and returns its password. `run` is a function that runs a program."""
    with _one_at_a_time():
        path = os.path.join(STATE, "password")
        if not _has_user():
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
            run("useradd", "--system", "--no-create-home", "--home-dir", "/nonexistent",
                "--shell", "/usr/sbin/nologin", USER)
        if not os.path.exists(path):
            password = "p@ss/w%rd? #" + secrets.token_hex(16)
            # Uses a hash that is fast to check, because a server checks it at each login.
            hashed = run("openssl", "passwd", "-6", "-stdin", input=password).strip()
            run("chpasswd", "--encrypted", input=f"{USER}:{hashed}\n")
            with open(path + ".new", "w", encoding="ascii") as file:
                os.fchmod(file.fileno(), 0o600)
                file.write(password)
            os.rename(path + ".new", path)
        with open(path, encoding="ascii") as file:
            return file.read()
