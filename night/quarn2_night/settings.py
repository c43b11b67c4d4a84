"""The configuration of the nightly backups: /etc/kro5/night.conf."""

import os
import re
import shlex
import stat

from . import settings_file
from .names import is_path_below, is_user
from .node import Node
from .site import TOKEN_FILE, Problem, read_protected

DAYS = ["Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"]
UNITS = {"": 1, "K": 2**10, "M": 2**20, "G": 2**30, "T": 2**40}
MIN_SLICE = 64 * 2**10
LEVELS = {"gzip": 9, "bzip2": 9, "xz": 9, "zstd": 19}


class Invalid(Exception):
    """An invalid value. The text describes the accepted values."""


# --- One function for each kind of value ---

def _bytes(value):
    match = re.fullmatch("([0-9]{1,15})([KMGT]?)", value.text)
    if not match:
        raise Invalid("a number of bytes, with K, M, G or T for powers of 1024")
    return int(match.group(1)) * UNITS[match.group(2)]


def _slice(value):
    size = _bytes(value)
    if size < MIN_SLICE:
        raise Invalid("at least 64K")
    return size


def _counts(value):
    if not re.fullmatch("[0-9]{1,6}:[0-9]{1,6}", value.text):
        raise Invalid("FULL:DAILY, two numbers of backups for each user, for example 4:21")
    return value.text


def _number(low, high):
    def parse(value):
        if not re.fullmatch("[0-9]{1,6}", value.text) or not low <= int(value.text) <= high:
            raise Invalid(f"a number from {low} to {high}")
        return int(value.text)
    return parse


def _one_of(*words):
    def parse(value):
        if value.text not in words:
            raise Invalid("one of " + ", ".join(words))
        return value.text
    return parse


def _path(value):
    if not value.text.startswith("/") or not value.text.isprintable():
        raise Invalid("an absolute path")
    return value.text


def _directory(value):
    path = _path(value)
    if not os.path.isdir(path):
        raise Invalid("a directory that exists")
    return path


def _compression(value):
    if value.text == "none":
        return None
    name, _, level = value.text.partition(":")
    if name not in LEVELS or not re.fullmatch("[0-9]{1,2}", level) or not 1 <= int(level) <= LEVELS[name]:
        raise Invalid("none, or one of " + ", ".join(f"{name}:1 to {name}:{high}" for name, high in LEVELS.items()))
    return name, int(level)


def _excludes(value):
    for line in value.lines:
        if not is_path_below(line) or line.startswith("./"):
            raise Invalid("one path or pattern in each line, relative to the user's directory, without '..'")
    return value.lines


def _user_list(value):
    users = []
    for line in value.lines:
        name, _, path = (part.strip() for part in line.partition(" "))
        if not is_user(name) or not path.startswith("/"):
            raise Invalid("NAME /DIRECTORY in each line")
        users.append((name, path))
    if len({name for name, _ in users}) != len(users):
        raise Invalid("each user once")
    return users


def _names(value):
    return value.text.split()


def _nodes(value):
    nodes = value.text.split()
    for text in nodes:
        try:
            Node(text)
        except Problem:
            raise Invalid("host names or addresses, or NAME:DESTINATION:PORT") from None
    if len(set(nodes)) != len(nodes):
        raise Invalid("each node once")
    return nodes


def _command(value):
    """Parses a program and its arguments. They are not passed to a shell; quotes group words into one argument."""
    try:
        words = shlex.split(value.text)
    except ValueError:
        raise Invalid("a program and its arguments, with matching quotes") from None
    if not words or not words[0].startswith("/"):
        raise Invalid("the absolute path of a program, and its arguments")
    try:
        status = os.stat(words[0])
    except OSError as error:
        raise Invalid(f"a program that exists ({error.strerror})") from None
    if not stat.S_ISREG(status.st_mode) or not os.access(words[0], os.X_OK):
        raise Invalid("a program that can be executed")
    if status.st_uid not in (0, os.geteuid()) or status.st_mode & 0o022:
        raise Invalid("a program that only root can change")
    return words


# section, name: (parser, default)
_RULES = {
    ("storage", "token-file"): (_path, TOKEN_FILE),
    ("storage", "size-limit"): (_bytes, 0),
    ("storage", "count-limit"): (_counts, "4:21"),
    ("storage", "nodes"): (_nodes, ()),
    ("users", "directory"): (_directory, None),
    ("users", "list"): (_user_list, None),
    ("users", "command"): (_command, None),
    ("users", "skip"): (_names, ()),
    ("backup", "format"): (_one_of("dar", "tar.zst"), "dar"),
    ("backup", "full-day"): (_one_of(*DAYS), "Sunday"),
    ("backup", "slice-size"): (_slice, 2 * 2**30),
    ("backup", "compression"): (_compression, ("zstd", 3)),
    ("backup", "exclude"): (_excludes, ()),
    ("night", "users-at-once"): (_number(1, 64), 1),
    ("night", "retries"): (_number(0, 5), 1),
    ("night", "on-failure"): (_one_of("continue", "stop"), "continue"),
    ("night", "work-directory"): (_directory, None),
    ("hooks", "before-user"): (_command, None),
    ("hooks", "after-user"): (_command, None),
    ("hooks", "after-night"): (_command, None),
    ("hooks", "timeout"): (_number(1, 86400), 3600),
}


class Settings:
    """The values. `token_file`, `size_limit` and so on are attributes; see _RULES."""

    def __init__(self, values):
        for (section, name), value in values.items():
            prefix = section + "_" if section in ("users", "hooks") else ""
            setattr(self, (prefix + name).replace("-", "_"), value)


def _check_together(values, given, path):
    sources = [("users", name) for name in ("directory", "list", "command") if ("users", name) in given]
    if len(sources) != 1:
        where = " and ".join(given[source].place for source in sources) or path
        yield f"{where}: section [users] needs exactly one of directory, list and command"
    compression = values["backup", "compression"]
    if values["backup", "format"] == "tar.zst" and (compression is None or compression[0] != "zstd"):
        place = given.get(("backup", "compression"), given["backup", "format"]).place
        yield f"{place}: format tar.zst needs a compression of zstd:1 to zstd:19"


def parse_value(section, name, text):
    """Returns the value of one setting. Raises Invalid."""
    return _RULES[section, name][0](settings_file.Value(text, name))


def defaults():
    """Returns the default Settings, for a program without a configuration file. They contain no users."""
    return Settings({key: default for key, (_, default) in _RULES.items()})


def load(path):
    """Returns the Settings of a configuration file. Raises Problem with all errors of the file, one per line."""
    given, errors = settings_file.parse(read_protected(path, "configuration", True), path)
    values = {key: default for key, (_, default) in _RULES.items()}
    for key, value in given.items():
        if key not in _RULES:
            known = ", ".join(name for section, name in _RULES if section == key[0])
            sections = "storage, users, backup, night and hooks"
            errors.append(f"{value.place}: unknown name '{key[1]}' in section [{key[0]}]; "
                          + (f"known are: {known}" if known else f"the sections are: {sections}"))
            continue
        try:
            values[key] = _RULES[key][0](value)
        except Invalid as error:
            errors.append(f"{value.place}: {key[1]} = '{value.text}' cannot be used: expected {error}")
    if not errors:
        errors += _check_together(values, given, path)
    if errors:
        raise Problem("\n".join(sorted(errors, key=_line_number)))
    return Settings(values)


def _line_number(error):
    match = re.search(r":([0-9]+)", error)
    return int(match.group(1)) if match else 0
