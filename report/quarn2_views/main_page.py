"""quarn2_page: writes the state of the backups as one HTML file."""

import argparse
import datetime
import time

from .command_line import DONE, FAILED, add_report_options, complain, report_of
from .history import History, date_text, ordinal, usual_intake
from .page_model import MAX_ROWS, Users, bar, evictions, figures, overdue_rows, verdict
from .replacement import replace_file
from .source import ReportFailed, reason_of
from .texts import escaped, size_text

PROGRAM = "quarn2_page"
# Only the owner and the group may read the page, because it contains the names of the users. The new file keeps the
# group of the existing file, such as the web server's.
_MODE = 0o640


def _days(text):
    number = int(text)
    if not 2 <= number <= 400:
        raise argparse.ArgumentTypeError("give 2 to 400 days")
    return number


def options():
    parser = argparse.ArgumentParser(
        prog=PROGRAM, usage="%(prog)s [options] FILE",
        description="Runs quarn2_report and writes its results to FILE, an HTML page that needs no other file.",
        epilog="Exit status: 0 written, 1 quarn2_report failed (the page then shows the error) or the file cannot be "
               "written, 2 the command line is invalid.")
    parser.add_argument("file", metavar="FILE", help="the page; an existing file is replaced atomically")
    add_report_options(parser)
    parser.add_argument("--days", metavar="DAYS", type=_days, default=60,
                        help="the number of days in the plots (default: %(default)s)")
    return parser


def one_object(report, *mode):
    """Returns the only object of a mode, and the findings."""
    objects, findings = report.objects(*mode)
    found = next(objects, None)
    if found is None:
        raise ReportFailed(f"quarn2_report {mode[0]} printed nothing")
    return found, findings


def read_history(report, given, last):
    """Reads the events of the storage. Without --storage, quarn2_report prints the events of all storages."""
    history = History(last - given.days + 1, last)
    for event in report.objects("--history", "--since", date_text(history.first))[0]:
        if given.storage or event["storage"] is None:
            history.add(event)
    return history


def read_plan(report, night):
    """Returns (planned evictions, reason for a missing plan). One of the two is empty."""
    size = [] if night is None else ["--bytes", str(night)]
    try:
        return evictions(report.objects("--plan", *size)[0]), ""
    except ReportFailed as error:
        return None, f"There is no plan: {escaped(str(error))}"


def read_model(report, given):
    """Returns the values of the template. Raises ReportFailed."""
    from .page import plots

    status, findings = one_object(report, "--status")
    check, _ = one_object(report, "--check")
    users = Users()
    for backup in report.objects("--list")[0]:
        users.add(backup)
    last = ordinal(status["date"]) or datetime.date.today().toordinal()
    history = read_history(report, given, last)
    night = usual_intake(history)
    plan, plan_failure = read_plan(report, night)
    rows = users.rows({one["user"] for one in status["overdue"]})
    return {"failure": "", "verdict": verdict(check), "findings_number": len(findings),
            "findings": [escaped(text) for text in findings[:MAX_ROWS]], "figures": figures(status), "bar": bar(status),
            "overdue": overdue_rows(status), "overdue_number": len(status["overdue"]),
            "max_age": status["max_age_hours"], "night": size_text(night) if night else "", "evictions": plan,
            "plan_failure": plan_failure, "users": rows, "users_number": len(rows),
            "storage_name": status["storage_name"], **plots(history, users.lives, status["protected"])}


def title_of(given, model):
    if not given.storage:
        return "Backups"
    return "Backups of the storage " + escaped(model.get("storage_name") or ("" if given.anonymous else given.storage))


def main(arguments):
    given = options().parse_args(arguments)
    try:
        from .page import page_of
    except ImportError as error:
        complain(PROGRAM, f"a Python module is missing: {error}; run: apt install python3-jinja2 python3-pygal")
        return FAILED
    now = time.time()
    try:
        model = read_model(report_of(given), given)
    except Exception as error:  # After any error, replace the old page, which would look current.
        complain(PROGRAM, f"{reason_of(error)}; the page says only that there is no report")
        model = {"failure": escaped(reason_of(error))}
    made = datetime.datetime.fromtimestamp(now).strftime("%Y-%m-%d %H:%M")
    model.update(title=title_of(given, model), made=int(now), made_text=made)
    try:
        replace_file(given.file, page_of(model), _MODE)
    except OSError as error:
        complain(PROGRAM, f"'{given.file}' cannot be written: {error.strerror}")
        return FAILED
    return FAILED if model["failure"] else DONE
