"""The paths of the install root, and functions that all of the programs use."""

import os
import stat
import sys

CONFIGURATION = "/etc/kro5/night.conf"
TOKEN_FILE = "/etc/kro5/token"
DEFAULT_ROOT = "/usr/local/kro5"


class Problem(Exception):
    """An error for the administrator: which object, what failed, what to do."""


def _install_root():
    here = os.path.dirname(os.path.realpath(sys.argv[0]))
    if os.path.basename(here) == "sbin" and os.path.exists(os.path.join(here, "quarn2_cp")):
        return os.path.dirname(here)
    return os.environ.get("KRO_ROOT") or DEFAULT_ROOT


class Site:
    """The paths of the install root. The program quarn2_cp uses the same paths."""

    def __init__(self):
        self.root = _install_root()
        self.program = os.path.join(self.root, "sbin/quarn2_cp")
        self.report = os.path.join(self.root, "sbin/quarn2_report")
        self.info_root = os.path.join(self.root, "var/backup/tovarn")
        self.ledger = os.path.join(self.root, "var/quarn2_cp.ledger")
        self.pid_file = os.path.join(self.root, "var/quarn2_cp.pid")
        self.log = os.path.join(self.root, "var/quarn2_cp.log")
        self.state = os.path.join(self.root, "var/night")

    def check(self):
        if not os.access(self.program, os.X_OK):
            raise Problem(f"there is no program {self.program}; KRO_ROOT names the install root")


def escaped(text):
    """Returns the text in one line, without characters that could control a terminal."""
    return "".join(letter if letter.isprintable() else letter.encode("unicode_escape").decode() for letter in text)


def say(text):
    print(escaped(text), flush=True)


def complain(program, text):
    print(f"{program}: {escaped(text)}", file=sys.stderr, flush=True)


def read_protected(path, what, others_may_read):
    """Returns the text of a file that only root or the current user can write to.

    Raises Problem for a symbolic link, for a file of another user, and for a mode that gives other users too much access.
    """
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_NONBLOCK)
    except OSError as error:
        raise Problem(f"{what} '{path}': {error.strerror}") from None
    with open(descriptor, "rb") as file:
        status = os.fstat(descriptor)
        if not stat.S_ISREG(status.st_mode):
            raise Problem(f"{what} '{path}' is not a plain file")
        if status.st_uid not in (0, os.geteuid()):
            raise Problem(f"{what} '{path}' belongs to user {status.st_uid}; run: chown root '{path}'")
        forbidden = 0o022 if others_may_read else 0o077
        if status.st_mode & forbidden:
            mode = "go-w" if others_may_read else "600"
            raise Problem(f"{what} '{path}' has mode {stat.S_IMODE(status.st_mode):04o}; run: chmod {mode} '{path}'")
        try:
            return file.read().decode()
        except (OSError, UnicodeDecodeError) as error:
            raise Problem(f"{what} '{path}' cannot be read: {error}") from None


def read_token(path):
    """Returns the storage token. An error never quotes it."""
    lines = [line for line in read_protected(path, "token file", False).splitlines() if line.strip()]
    if len(lines) != 1:
        raise Problem(f"token file '{path}' has {len(lines)} lines; it must have one line, the storage token")
    return lines[0].strip()


def clean_environment():
    """Returns the environment for child processes: without the token, and without settings of other tools."""
    unwanted = ("BACKUP_", "TAR_", "ZSTD_", "DAR_", "JOB_", "RESTORE_", "QUARN2_NIGHT_")
    values = {name: value for name, value in os.environ.items() if not name.startswith(unwanted)}
    values["LC_ALL"] = "C.UTF-8"
    return values
