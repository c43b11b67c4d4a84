"""The values that quarn2-setup needs. Each is an option and a question, and both accept the same values."""

import getpass
import os
import shutil
import textwrap

from . import settings
from .archive import missing_tools
from .site import CONFIGURATION, TOKEN_FILE, Problem, escaped


def show(text):
    """Prints a text on the terminal, and breaks its lines between words."""
    width = shutil.get_terminal_size().columns
    for line in text.split("\n"):
        print(textwrap.fill(escaped(line), width, break_long_words=False, break_on_hyphens=False), flush=True)


# --- Rules besides those of the configuration. Each raises settings.Invalid with the accepted values. ---

def _token(text):
    if not text or not text.isprintable():
        raise settings.Invalid("one line, for example local:///srv/backups")


def _file(text):
    if not text or os.path.isdir(text):
        raise settings.Invalid("the path of a file")


def _format(text):
    settings.parse_value("backup", "format", text)
    missing = missing_tools(text)
    if missing:
        raise Problem("\n".join(missing))


class Value:
    """`setting` is the (section, name) in the configuration. Without a `rule`, the rule of this setting checks the
    value."""

    def __init__(self, option, metavar, question, setting=None, rule=None, default=None):
        self.option, self.metavar, self.question, self.setting = option, metavar, question, setting
        self.rule = rule or (lambda text: settings.parse_value(*setting, text))
        self.default = default

    @property
    def attribute(self):
        """The name of the option in the result of argparse."""
        return self.option.removeprefix("--").replace("-", "_")

    @property
    def help(self):
        text = self.question[0].lower() + self.question[1:]
        return f"{text} (default: {self.default})" if self.default else text

    def add_to(self, parser):
        parser.add_argument(self.option, metavar=self.metavar, help=self.help)

    def accept(self, text, name=""):
        """Returns the text without blanks around it. For an invalid text, raises Problem with `name` and the
        accepted values."""
        text = text.strip()
        try:
            self.rule(text)
        except settings.Invalid as error:
            raise Problem(f"{name}{self.quote(text)} cannot be used: expected {error}") from None
        return text

    def quote(self, text):
        return f"'{escaped(text)}'"

    def read(self, proposal):
        """Reads an answer from the terminal. An empty answer accepts the proposal."""
        return input(f"[{proposal}]: ").strip() or proposal


class Secret(Value):
    """A value that is never printed. Its option is the path of a file that contains the value."""

    @property
    def help(self):
        return f"file that has the {self.name}; '-' for standard input"

    @property
    def name(self):
        return self.question.partition(",")[0].lower()

    def quote(self, text):
        return "the " + self.name

    def read(self, proposal):
        return getpass.getpass("(not shown): ")


TOKEN = Secret("--token-from", "FILE", "Storage token, for example local:///srv/backups", rule=_token)
CONFIG = Value("--config", "FILE", "Configuration", rule=_file, default=CONFIGURATION)
TOKEN_PATH = Value("--token-file", "FILE", "Where to keep the storage token", ("storage", "token-file"),
                   default=TOKEN_FILE)
FORMAT = Value("--format", "FORMAT", "Format of the archives, dar or tar.zst", ("backup", "format"), _format, "dar")
SIZE_LIMIT = Value("--size-limit", "BYTES", "Bytes that the storage may hold, with K, M, G or T for powers of 1024, or 0 "
                   "for no limit", ("storage", "size-limit"))
# The program asks for these values after the test of the storage, in this order.
LATER = (
    Value("--users", "DIRECTORY", "Directory whose subdirectories are the users", ("users", "directory"), default="/home"),
    SIZE_LIMIT,
    Value("--count-limit", "FULL:DAILY", "Full and daily backups to keep for each user, FULL:DAILY",
          ("storage", "count-limit"), default="4:21"),
    Value("--full-day", "DAY", "Day of the week of the full backups, for example Sunday", ("backup", "full-day"),
          default="Sunday"),
)


def ask(value, proposal="", then=lambda text: None):
    """Asks until the answer is valid and `then`, which gets the answer, raises no Problem. Returns the answer."""
    show(value.question)
    while True:
        try:
            answer = value.accept(value.read(proposal))
            then(answer)
            return answer
        except UnicodeDecodeError:
            show("the answer is not UTF-8 text; enter it again")
        except Problem as error:
            show(str(error))
