"""quarn2-setup: tests a storage and writes the configuration of the nightly backups."""

import argparse
import getpass
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile

from . import settings as settings_module
from .processes import Children
from .replacement import replace
from .site import CONFIGURATION, TOKEN_FILE, Problem, Site, complain, read_token, say
from .storage_test import free_space, test_storage

PROGRAM = "quarn2-setup"
DONE, FAILED, USAGE = 0, 1, 2
_TEMPLATE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "night.conf")
# option, name in the configuration, question
_QUESTIONS = (
    ("users", "directory", "Directory whose subdirectories are the users"),
    ("size_limit", "size-limit", "Bytes that the storage may hold (0: no limit; K, M, G, T)"),
    ("count_limit", "count-limit", "Full and daily backups to keep for each user, FULL:DAILY"),
    ("format", "format", "Format of the archives, dar or tar.zst"),
    ("full_day", "full-day", "Day of the full backups"),
)
_DEFAULTS = {"users": "/home", "count_limit": "4:21", "format": "dar", "full_day": "Sunday"}


def options():
    parser = argparse.ArgumentParser(
        prog=PROGRAM, description="Sets up the nightly backups: tests the storage and writes the configuration.",
        epilog="Exit status: 0 set up, 1 the storage or the test failed, 2 an option or an answer is invalid.")
    parser.add_argument("--config", metavar="FILE", default=CONFIGURATION, help="configuration (default: %(default)s)")
    parser.add_argument("--token-file", metavar="FILE", default=TOKEN_FILE,
                        help="file in which to store the token (default: %(default)s)")
    parser.add_argument("--token-from", metavar="FILE",
                        help="file from which to read the storage token; '-' for standard input")
    parser.add_argument("--users", metavar="DIRECTORY", help="directory with a subdirectory for each user")
    parser.add_argument("--size-limit", metavar="BYTES", help="maximum number of bytes on the storage; 0 for no limit")
    parser.add_argument("--count-limit", metavar="FULL:DAILY", help="backups to keep for each user")
    parser.add_argument("--format", metavar="FORMAT", help="dar or tar.zst")
    parser.add_argument("--full-day", metavar="DAY", help="day of the week of the full backups")
    parser.add_argument("--defaults", action="store_true", help="ask no questions, even on a terminal")
    parser.add_argument("--overwrite", action="store_true", help="replace an existing configuration")
    return parser


def ask(question, proposal):
    answer = input(f"{question} [{proposal}]: ").strip()
    return answer or proposal


def get_token(given, is_interactive, path):
    """Reads the token from the file of --token-from, the token file or the terminal. No argument contains the token."""
    if given.token_from:
        try:
            source = sys.stdin if given.token_from == "-" else open(given.token_from, encoding="utf-8")
            with source:
                token = source.read().strip()
        except (OSError, UnicodeDecodeError) as error:
            raise Problem(f"--token-from '{given.token_from}' cannot be read: {error}") from None
    elif os.path.exists(path):
        say(f"uses the token in {path}")
        return read_token(path)
    elif is_interactive:
        token = getpass.getpass("Storage token, for example local:///srv/backups (not shown): ").strip()
    else:
        raise Problem(f"there is no token file '{path}'; give --token-from FILE")
    if not token or not token.isprintable():
        raise Problem("the storage token must be one line, for example local:///srv/backups")
    return token


def propose_limit(token, site):
    """Returns nine tenths of the free and used space as the size limit, 0 when the space is not known."""
    space = free_space(token, site.root)
    if space is None:
        say("free space: not known for this storage")
        return "0"
    free, stored = space
    say(f"free space: {free // 2**20} MiB, stored now: {stored // 2**20} MiB")
    return f"{(free + stored) * 9 // 10 // 2**20}M"


def collect(given, is_interactive, proposals):
    """Returns the values for the configuration: {name: text}."""
    values = {}
    for option, name, question in _QUESTIONS:
        value = getattr(given, option)
        if value is None:
            value = proposals[option]
            if is_interactive:
                value = ask(question, value)
        if not value.isprintable():
            raise Problem(f"{name} {value!r} cannot be used")
        values[name] = value
    return values


def configuration(values, token_file):
    """Returns the text of the sample configuration with these values."""
    with open(_TEMPLATE, encoding="utf-8") as file:
        text = file.read()
    for name, value in dict(values, **{"token-file": token_file}).items():
        line = f"{name} = {value}"
        text, count = re.subn(rf"(?m)^#?{re.escape(name)} = .*$", lambda _, line=line: line, text, count=1)
        if count != 1:
            raise Problem(f"'{_TEMPLATE}' has no setting {name}; install the program again")
    return text


def enable_timer():
    unit = "quarn2-night.timer"
    if not os.path.isdir("/run/systemd/system") or not os.path.exists(f"/lib/systemd/system/{unit}"):
        say("there is no systemd timer here: run quarn2-night once a night")
        return
    status = subprocess.run(["systemctl", "enable", "--now", unit], stdin=subprocess.DEVNULL, check=False).returncode
    say(f"{unit} runs quarn2-night every night" if status == 0
        else f"{unit} could not be enabled: run: systemctl enable --now {unit}")


class Setup:
    """One run of the program. Until the test has succeeded, all files stay in the temporary directory `work`."""

    def __init__(self, site, given, is_interactive, work):
        self.site, self.given, self.is_interactive, self.work = site, given, is_interactive, work
        self.keeps = os.path.exists(given.config) and not given.overwrite
        self.text = None

    def prepare(self):
        """Returns (settings, token)."""
        token_file = self.given.token_file
        if self.keeps:
            say(f"keeps {self.given.config}; --overwrite replaces it")
            settings = settings_module.load(self.given.config)
            return settings, get_token(self.given, self.is_interactive, settings.token_file)
        token = get_token(self.given, self.is_interactive, token_file)
        proposals = dict(_DEFAULTS, size_limit=self.given.size_limit or propose_limit(token, self.site))
        self.text = configuration(collect(self.given, self.is_interactive, proposals), token_file)
        proposed = os.path.join(self.work, "night.conf")
        replace(proposed, self.text, 0o600, 0o750)
        try:
            return settings_module.load(proposed), token
        except Problem as error:
            raise Problem(re.sub(rf"(?m)^{re.escape(proposed)}:\d+: ", "", str(error))) from None

    def finish(self, settings, token):
        replace(settings.token_file, token + "\n", 0o600, 0o750)
        if self.text is not None:
            if os.path.exists(self.given.config):
                shutil.copy2(self.given.config, self.given.config + ".old")
            replace(self.given.config, self.text, 0o640, 0o750)
            say(f"wrote {self.given.config} and {settings.token_file}")
        if self.given.config == CONFIGURATION:
            enable_timer()
        say("done; quarn2-night --dry-run shows what the next night will do")


def main(arguments):
    given = options().parse_args(arguments)
    os.umask(0o077)
    site = Site()
    children = Children()

    def interrupt(*_):
        children.stop()
        raise KeyboardInterrupt

    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(number, interrupt)
    is_interactive = sys.stdin.isatty() and not given.defaults
    status = USAGE
    work = tempfile.mkdtemp(prefix="quarn2-setup.", dir=os.environ.get("TMPDIR") or "/var/tmp")
    try:
        site.check()
        setup = Setup(site, given, is_interactive, work)
        settings, token = setup.prepare()
        status = FAILED
        test_storage(site, children, settings, token, work)
        setup.finish(settings, token)
        return DONE
    except (Problem, OSError) as error:
        for line in str(error).split("\n"):
            complain(PROGRAM, line)
        complain(PROGRAM, "nothing was changed; correct this and run quarn2-setup again")
        return status
    except (KeyboardInterrupt, EOFError):
        complain(PROGRAM, "interrupted; nothing was changed")
        return status
    finally:
        shutil.rmtree(work)
