"""The names that the programs accept. Names become parts of paths, so only known characters are allowed."""

import datetime
import re

_USER = re.compile(r"[A-Za-z0-9_][A-Za-z0-9_.@+-]{0,127}")
_DATE = re.compile(r"[0-9]{4}-[0-9]{2}-[0-9]{2}")

USER_RULE = "a user name has letters, digits and any of '_.@+-', and begins with a letter, a digit or '_'"


def is_user(text):
    return _USER.fullmatch(text) is not None


def is_date(text):
    if not _DATE.fullmatch(text):
        return False
    try:
        datetime.date.fromisoformat(text)
    except ValueError:
        return False
    return True


def is_archive_of(name, user, date):
    """True when `name`, a name from an info file, can be the last slice of this backup.

    Info files come from the storage, so their names are not trusted.
    """
    below = f"{user}/{date}/"
    if name.startswith(below):
        name = name[len(below):]
    first = r"C[0-9]{4}-[0-9]{2}-[0-9]{2}" if date == "custom" else "[FI]" + re.escape(date)
    ending = r"\.(?:[1-9][0-9]{0,8}\.dar|(?:tgz|tar\.zst)(?:\.part[1-9][0-9]{0,8})?)"
    return re.fullmatch(first + r"\." + re.escape(user) + ending, name) is not None


def is_path_below(text):
    """True for a relative path that stays below its directory."""
    parts = text.split("/")
    return bool(text) and text.isprintable() and not text.startswith("/") and ".." not in parts
