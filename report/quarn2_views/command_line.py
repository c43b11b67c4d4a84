"""The options that the programs share, and their messages."""

import argparse
import os
import sys

from .source import Report
from .texts import escaped

DONE, FAILED, USAGE = 0, 1, 2
# Options that are passed to quarn2_report unchanged: name, value, help.
_PASSED = (("path", "DIR", "the info root, as for quarn2_report"),
           ("storage", "NAME", "the name of a user's own storage"),
           ("size-limit", "BYTES", "the size limit; by default that of the running server"),
           ("count-limit", "FULL:DAILY", "the count limit; by default that of the running server"),
           ("date", "DATE", "the reference date instead of today"))


def add_report_options(parser):
    for name, value, text in _PASSED:
        parser.add_argument("--" + name, metavar=value, help=text)
    parser.add_argument("--max-age", metavar="HOURS", help="the age of the newest backup from which a user is overdue")
    parser.add_argument("--anonymous", action="store_true", help="write hashes instead of the names of users")
    parser.add_argument("--report", metavar="PROGRAM", default=_default_program(),
                        help="the path of quarn2_report; by default it is in the directory of this program")
    parser.add_argument("--timeout", metavar="SECONDS", type=_seconds, default=300,
                        help="terminate quarn2_report after this time and treat it as failed (default: %(default)s)")


def _default_program():
    return os.path.join(os.path.dirname(os.path.realpath(sys.argv[0])), "quarn2_report")


def _seconds(text):
    number = int(text)
    if number < 1:
        raise argparse.ArgumentTypeError("give at least 1 second")
    return number


def report_of(given):
    """Returns the Report that the options describe."""
    options = []
    for name, _, _ in _PASSED:
        value = getattr(given, name.replace("-", "_"))
        if value is not None:
            options.append(f"--{name}={value}")
    if given.anonymous:
        options.append("--anonymous")
    age = [] if given.max_age is None else [f"--max-age={given.max_age}"]
    return Report(given.report, options, age, given.timeout)


def complain(program, text):
    print(f"{program}: {escaped(text)}", file=sys.stderr, flush=True)
