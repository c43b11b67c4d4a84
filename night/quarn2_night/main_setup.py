"""quarn2-setup: tests a storage and writes the configuration of the nightly backups."""

import argparse
import contextlib
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile

from . import settings as settings_module
from .processes import Children
from .questions import CONFIG, FORMAT, LATER, SIZE_LIMIT, TOKEN, TOKEN_PATH, ask
from .replacement import replace
from .site import CONFIGURATION, Problem, Site, complain, read_token, say
from .storage_test import free_space, test_storage

PROGRAM = "quarn2-setup"
DONE, FAILED, USAGE = 0, 1, 2
_SIGNALS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)
_TEMPLATE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "night.conf")


def options():
    parser = argparse.ArgumentParser(
        prog=PROGRAM, description="Sets up the nightly backups: tests the storage and writes the configuration. On a "
        "terminal it asks for each value that no option gives.",
        epilog="Exit status: 0 set up, 1 the test failed or the set-up was interrupted, 2 an option cannot be used.")
    for value in (CONFIG, TOKEN_PATH, TOKEN, FORMAT, *LATER):
        value.add_to(parser)
    parser.add_argument("--defaults", action="store_true", help="ask nothing, also on a terminal")
    parser.add_argument("--overwrite", action="store_true", help="replace a configuration that exists")
    return parser


def read_given_token(path):
    """Returns the token of the option --token-from."""
    if path == "-" and sys.stdin.isatty():
        raise Problem("--token-from '-' cannot be used: expected a file or a pipe as standard input; without this option "
                      "quarn2-setup asks for the token and does not show it")
    try:
        with open(sys.stdin.fileno() if path == "-" else path, encoding="utf-8", closefd=path != "-") as source:
            text = source.read()
    except (OSError, UnicodeDecodeError) as error:
        raise Problem(f"--token-from '{path}' cannot be read: {error}") from None
    return TOKEN.accept(text, f"--token-from '{path}': ")


def propose_limit(token, site):
    """Returns nine tenths of the free and used space as the size limit, 0 when the space is not known."""
    space = free_space(token, site.root)
    if space is None:
        say("free space: not known for this storage")
        return "0"
    free, stored = space
    say(f"free space: {free // 2**20} MiB, stored now: {stored // 2**20} MiB")
    return f"{(free + stored) * 9 // 10 // 2**20}M"


def configuration(values):
    """Returns the text of the sample configuration with these values: {setting: text}."""
    with open(_TEMPLATE, encoding="utf-8") as file:
        text = file.read()
    for (_, name), value in values.items():
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

    def __init__(self, site, children, given, work):
        self.site, self.children, self.given, self.work = site, children, given, work
        self.is_interactive = sys.stdin.isatty() and not given.defaults
        self.config = given.config or CONFIG.default
        self.keeps = os.path.exists(self.config) and not given.overwrite
        # `settings`: those of an existing configuration that is kept. `values`: those for a new configuration,
        # {setting: text}. `written`: the paths of the new files.
        self.settings, self.values, self.written = None, {}, []
        self.token = None

    # -- The options --

    def check_options(self):
        """Takes the values of the options. Raises Problem with all errors."""
        errors = []
        steps = [self.site.check, self.load_kept, self.take_token]
        steps += [lambda value=value: self.take(value) for value in (CONFIG, TOKEN_PATH, FORMAT, *LATER)]
        for step in steps:
            try:
                step()
            except Problem as error:
                errors.append(str(error))
        if errors:
            raise Problem("\n".join(errors))

    def load_kept(self):
        if self.keeps and not os.path.isdir(self.config):
            self.settings = settings_module.load(self.config)

    def take(self, value):
        """Takes a value from its option. Without the option, takes the default if the user will not be asked for it."""
        text = getattr(self.given, value.attribute)
        is_asked = self.is_interactive and value not in (CONFIG, TOKEN_PATH)
        if text is None and not is_asked and not self.keeps:
            text = value.default
        if text is not None:
            self.values[value.setting] = value.accept(text, value.option + " ")

    def take_token(self):
        if self.given.token_from:
            self.token = read_given_token(self.given.token_from)
        elif self.keeps and self.settings is None:
            return  # without the settings, the path of the token file is not known
        elif os.path.exists(self.token_file()):
            self.token = read_token(self.token_file())
            say(f"uses the token in {self.token_file()}; --token-from replaces it")
        elif not self.is_interactive:
            raise Problem(f"there is no token file '{self.token_file()}'; give --token-from FILE")

    def token_file(self):
        return self.settings.token_file if self.keeps else self.given.token_file or TOKEN_PATH.default

    # -- The questions and the test --

    def run(self):
        if self.keeps:
            say(f"keeps {self.config}; --overwrite replaces it")
            self.test(self.settings)
            return
        self.ask(FORMAT, FORMAT.default)
        settings = settings_module.defaults()
        settings.format = self.values[FORMAT.setting]
        self.test(settings)
        for value in LATER:
            if value.setting not in self.values:
                self.ask(value, propose_limit(self.token, self.site) if value is SIZE_LIMIT else value.default)

    def ask(self, value, proposal):
        if value.setting in self.values:
            return
        self.values[value.setting] = ask(value, proposal) if self.is_interactive else value.accept(proposal)

    def test(self, settings):
        """Tests the storage of the token. If the token is from an option or a file, tests it once. Otherwise asks
        for a token until its test succeeds."""
        if self.token is not None:
            self.test_token(settings, self.token)
        else:
            self.token = ask(TOKEN, then=lambda token: self.test_token(settings, token))

    def test_token(self, settings, token):
        # A failed test may leave files in its directory, so each test has its own.
        test_storage(self.site, self.children, settings, token, tempfile.mkdtemp(dir=self.work))

    # -- The files --

    def finish(self):
        text = None if self.keeps else self.new_configuration()
        with uninterrupted():
            self.write(self.token_file(), self.token + "\n", 0o600)
            if text is not None:
                self.keep_previous()
                self.write(self.config, text, 0o640)
        say("wrote " + " and ".join(self.written))
        if self.config == CONFIGURATION:
            enable_timer()
        say("done; quarn2-night --dry-run shows what the next night will do")

    def new_configuration(self):
        """Returns the text of the configuration. Raises Problem when quarn2-night could not use it."""
        text = configuration({setting: value for setting, value in self.values.items() if setting})
        proposed = os.path.join(self.work, "night.conf")
        replace(proposed, text, 0o600)
        settings_module.load(proposed)
        return text

    def keep_previous(self):
        if os.path.exists(self.config):
            with open(self.config, encoding="utf-8", errors="surrogateescape") as file:
                self.write(self.config + ".old", file.read(), os.stat(self.config).st_mode & 0o777)

    def write(self, path, text, mode):
        replace(path, text, mode, 0o750)
        self.written.append(path)

    def outcome(self):
        """Describes the changes of a set-up that failed."""
        return f"it has written {' and '.join(self.written)}" if self.written else "nothing was changed"


@contextlib.contextmanager
def uninterrupted():
    """Delays the signals that end the program until the block has ended."""
    signal.pthread_sigmask(signal.SIG_BLOCK, _SIGNALS)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, _SIGNALS)


def end_on_signals(children):
    def interrupt(*_):
        children.stop()
        raise KeyboardInterrupt

    for number in _SIGNALS:
        signal.signal(number, interrupt)


def main(arguments):
    given = options().parse_args(arguments)
    os.umask(0o077)
    children = Children()
    end_on_signals(children)
    status = USAGE
    work = tempfile.mkdtemp(prefix="quarn2-setup.", dir=os.environ.get("TMPDIR") or "/var/tmp")
    setup = Setup(Site(), children, given, work)
    try:
        setup.check_options()
        status = FAILED
        setup.run()
        setup.finish()
        return DONE
    except (Problem, OSError) as error:
        for line in str(error).split("\n"):
            complain(PROGRAM, line)
        complain(PROGRAM, f"{setup.outcome()}; correct this and run {PROGRAM} again")
        return status
    except (KeyboardInterrupt, EOFError) as error:
        if setup.is_interactive:
            print(flush=True)  # ends the line of the question
        reason = "the input has ended" if isinstance(error, EOFError) else "interrupted"
        complain(PROGRAM, f"{reason}; {setup.outcome()}; run {PROGRAM} again")
        return FAILED
    finally:
        for number in _SIGNALS:
            signal.signal(number, signal.SIG_IGN)
        shutil.rmtree(work)
