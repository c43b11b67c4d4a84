"""Texts for people, in the form of the text output of quarn2_report."""

import datetime

_UNITS = ("B", "kB", "MB", "GB", "TB", "PB", "EB")


def escaped(text):
    """Replaces the characters that could change how other text is shown, such as bidirectional control characters."""
    return "".join(_escaped_letter(letter) for letter in text)


def _escaped_letter(letter):
    if letter.isprintable() and letter != "\\":
        return letter
    return letter.encode("unicode_escape").decode()


def size_text(number):
    """Returns a size in bytes with three significant digits and a decimal unit."""
    if number is None:
        return "unknown"
    value, unit = float(number), 0
    # 999.5 would be rounded to 1000.
    while abs(value) >= 999.5 and unit + 1 < len(_UNITS):
        value /= 1000
        unit += 1
    if unit == 0:
        return f"{number} B"
    digits = 2 if abs(value) < 9.995 else 1 if abs(value) < 99.95 else 0
    return f"{value:.{digits}f} {_UNITS[unit]}"


def count_text(number, one, many=None):
    """Returns "1 user" or "2 users"."""
    return f"{number} {one if number == 1 else many or one + 's'}"


def day_seconds(date):
    """Returns the local beginning of a day as seconds since 1970, or None for a text that is not a date."""
    return seconds(date, "%Y-%m-%d")


def seconds(text, form="%Y-%m-%d %H:%M:%S"):
    """Returns a local time in the format `form` as seconds since 1970, or None for any other text."""
    try:
        return datetime.datetime.strptime(text, form).timestamp()
    except (TypeError, ValueError, OverflowError):
        return None
