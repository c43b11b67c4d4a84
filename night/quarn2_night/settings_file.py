"""Reads a configuration file: sections, `name = value`, and indented lines that continue a value.

The standard library's configparser does not keep the numbers of the lines, which the error messages need.
"""

import re


class Value:
    """The lines of one value. `place` is FILE:LINE."""

    def __init__(self, text, place):
        self.lines = [text] if text else []
        self.place = place

    @property
    def text(self):
        return " ".join(self.lines)


def parse(text, path):
    """Returns ({(section, name): Value}, errors)."""
    values, errors = {}, []
    section, last = "", None
    for number, line in enumerate(text.split("\n"), 1):
        place = f"{path}:{number}"
        stripped = line.strip()
        if not stripped or stripped[0] in "#;":
            continue
        if line[0] in " \t":
            if last is None:
                errors.append(f"{place}: the indented line continues no value")
            else:
                last.lines.append(stripped)
            continue
        last = None
        header = re.fullmatch(r"\[([a-z]+)\]", stripped)
        if header:
            section = header.group(1)
            continue
        name, equals, value = (part.strip() for part in stripped.partition("="))
        if not equals or not re.fullmatch("[a-z-]+", name):
            errors.append(f"{place}: expected [section] or name = value")
        elif (section, name) in values:
            errors.append(f"{place}: {name} is given twice; the first is in {values[section, name].place}")
        else:
            last = values[section, name] = Value(value, place)
    return values, errors
