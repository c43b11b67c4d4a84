"""quarn2_metrics: writes the state of the backups as metrics for Prometheus."""

import argparse
import os
import sys
import time

from .command_line import DONE, FAILED, add_report_options, complain, report_of
from .metrics import report_metrics, status_metrics, user_metrics
from .replacement import replace_file
from .source import ReportFailed, reason_of

PROGRAM = "quarn2_metrics"
# Every user may read the file, because the collector runs as another user. It contains names of users only with
# --per-user.
_MODE = 0o644


def options():
    parser = argparse.ArgumentParser(
        prog=PROGRAM, usage="%(prog)s [options] [FILE]",
        description="Runs quarn2_report and writes its figures in the text format of Prometheus to FILE, for the textfile "
                    "collector of node_exporter, or to standard output.",
        epilog="Exit status: 0 written, 1 quarn2_report failed (the file then reports that) or the file cannot be "
               "written, 2 the command line is invalid.")
    parser.add_argument("file", metavar="FILE", nargs="?", help="the file to replace; its name must end in .prom")
    add_report_options(parser)
    parser.add_argument("--per-user", action="store_true", help="also write three metrics for each user")
    return parser


def parse(arguments):
    parser = options()
    given = parser.parse_args(arguments)
    # The collector reads only files named *.prom. It would ignore any other file without an error.
    if given.file is not None and not given.file.endswith(".prom"):
        parser.error(f"{given.file!r} does not end in .prom")
    return given


def read_metrics(given):
    """Returns the metrics and the name of the storage. Raises ReportFailed."""
    report = report_of(given)
    objects, findings = report.objects("--status")
    status = next(objects, None)
    if status is None:
        raise ReportFailed("quarn2_report printed no status")
    metrics = status_metrics(status, len(findings))
    if given.per_user:
        metrics += user_metrics(report.objects("--list")[0])
    return metrics, status["storage_name"] or ""


def write(given, content):
    if given.file is not None:
        replace_file(given.file, content, _MODE)
        return
    # Does not use sys.stdout: after a failed write, it keeps the data in its buffer, and fails again when the program
    # exits.
    while content:
        content = content[os.write(sys.stdout.fileno(), content):]


def storage_label(given):
    """Returns the label `storage` for a failed report, in which the hash of the name is not known."""
    if given.anonymous and given.storage:
        return "anonymous"
    # Replaces invalid UTF-8 in the same way as quarn2_report.
    return (given.storage or "").encode(errors="surrogateescape").decode(errors="replace")


def main(arguments):
    given = parse(arguments)
    try:
        from .exposition import text_of
    except ImportError as error:
        complain(PROGRAM, f"a Python module is missing: {error}; run: apt install python3-prometheus-client")
        return FAILED
    is_success, metrics, storage = True, [], storage_label(given)
    try:
        metrics, storage = read_metrics(given)
    except Exception as error:  # After any error, replace the old figures, which would look current.
        complain(PROGRAM, f"{reason_of(error)}; the metrics say only that the report failed")
        is_success = False
    metrics += report_metrics(is_success, time.time())
    try:
        write(given, text_of(metrics, storage))
    except OSError as error:
        complain(PROGRAM, f"'{given.file or 'standard output'}' cannot be written: {error.strerror}")
        return FAILED
    return DONE if is_success else FAILED
