"""quarn2-night: the backups of all users in one night."""

import argparse
import datetime
import os
import signal
import subprocess
import threading

from . import settings as settings_module
from .archive import missing_tools
from .job import FAILED, SKIPPED, UserJob
from .names import is_date, is_user
from .night import ALL_DONE, SOME_FAILED, Night, summary_of
from .processes import Interrupted
from .site import CONFIGURATION, Problem, Site, complain, read_token, say
from .users import find_users

PROGRAM = "quarn2-night"
UNUSABLE, NOT_STARTED = 2, 3


def options():
    parser = argparse.ArgumentParser(prog=PROGRAM, description="Makes the nightly backups of all users.", epilog=(
        "Exit status: 0 every user has a backup, 1 the backup of a user or a hook failed, 2 the command line or the "
        "configuration is invalid, 3 no backup was started."))
    parser.add_argument("--config", metavar="FILE", default=CONFIGURATION, help="configuration (default: %(default)s)")
    parser.add_argument("--date", metavar="DATE", help="date of the backups instead of today, YYYY-MM-DD")
    parser.add_argument("--user", metavar="NAME", action="append",
                        help="back up only this user; can be given several times")
    parser.add_argument("--full", action="store_true", help="make full backups, whatever the day of the week")
    parser.add_argument("--check", action="store_true", help="only check the configuration")
    parser.add_argument("--dry-run", action="store_true", help="print which backups would be made, and change nothing")
    return parser


def parse(arguments):
    parser = options()
    given = parser.parse_args(arguments)
    if given.date and not is_date(given.date):
        parser.error(f"--date '{given.date}' cannot be used: expected YYYY-MM-DD")
    for user in given.user or ():
        if not is_user(user):
            parser.error(f"--user {user!r} cannot be used: no user has this name")
    return given


def check(config):
    """Returns (site, settings, token). Raises Problem with all errors."""
    site = Site()
    errors, settings, token = [], None, None
    try:
        site.check()
    except Problem as error:
        errors.append(str(error))
    try:
        settings = settings_module.load(config)
        token = read_token(settings.token_file)
        errors += missing_tools(settings.format)
    except Problem as error:
        errors.append(str(error))
    if errors:
        raise Problem("\n".join(errors))
    return site, settings, token


def choose(users, problems, wanted):
    """Returns the users and the problems, limited to the names in `wanted` if there are any."""
    if not wanted:
        return users, problems
    known = {name for name, _ in users}
    for name in wanted:
        if name not in known:
            raise Problem(f"--user {name}: the configuration has no such user")
    return [user for user in users if user[0] in wanted], [problem for problem in problems if problem[0] in wanted]


def dry_run(night, users, problems):
    say(f"night of {night.date}: size limit {night.settings.size_limit or 'none'}, "
        f"count limit {night.settings.count_limit}")
    for user, directory in users:
        if night.backups.find(user, night.date):
            say(f"{user}: {SKIPPED}: there is a backup of {night.date} already")
            continue
        base = UserJob(night, user, directory).base()
        kind = f"a daily on the full backup of {base.date}" if base else "a full backup"
        say(f"{user}: {kind} of {directory}")
    for _, problem in problems:
        say(f"{FAILED}: {problem}")
    print_plan(night)


def print_plan(night):
    """Prints the deletions that the server would make, if the installed quarn2_report has the mode --plan."""
    report = night.site.report
    if not os.access(report, os.X_OK):
        return
    described = subprocess.run([report, "--help"], capture_output=True, text=True, check=False)
    if "--plan" in described.stdout:
        subprocess.run([report, "--plan", *night.limits()], stdin=subprocess.DEVNULL, check=False)


def run_night(night, users, problems):
    try:
        outcomes = night.run(users, problems)
    except Interrupted:
        raise Problem("interrupted") from None
    status = SOME_FAILED if any(outcome.state == FAILED for outcome in outcomes) else ALL_DONE
    summary = summary_of(night.date, outcomes)
    for line in summary.splitlines():
        say(line)
    return night.notify(outcomes, status, summary)


def end_on_signals(children):
    """Starts a thread that stops the children when a signal arrives.

    A Python signal handler runs only when the main thread resumes. A signal that arrives just before the main thread
    begins to wait does not wake it.
    """
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    signal.set_wakeup_fd(writer, warn_on_full_buffer=False)
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(number, lambda *_: None)

    def wait():
        os.read(reader, 1)
        children.stop()

    threading.Thread(target=wait, daemon=True).start()


def main(arguments):
    given = parse(arguments)
    os.umask(0o077)
    try:
        site, settings, token = check(given.config)
    except Problem as error:
        for line in str(error).split("\n"):
            complain(PROGRAM, line)
        return UNUSABLE
    if given.check:
        say(f"{given.config}: no error")
        return ALL_DONE
    night = Night(site, settings, token, given.date or datetime.date.today().isoformat(), given.full)
    end_on_signals(night.children)
    is_begun = False
    try:
        if not given.dry_run:
            night.take_lock()
            is_begun = True
        users, problems = choose(*find_users(settings, night.children), given.user)
        if given.dry_run:
            dry_run(night, users, problems)
            return ALL_DONE
        return run_night(night, users, problems)
    except (Problem, OSError, Interrupted) as error:
        text = str(error) or "interrupted"
        complain(PROGRAM, text)
        if is_begun:
            night.notify([], NOT_STARTED, f"night of {night.date}: no backup was begun: {text}\n")
        return NOT_STARTED
