"""Runs one night: starts the size control server, backs up every user, ends the server, and reports."""

import concurrent.futures
import fcntl
import os
import stat
import subprocess

from . import unfinished
from .info import Backups
from .job import DONE, FAILED, SKIPPED, Outcome, UserJob
from .names import is_user
from .processes import Children, Interrupted, describe
from .server import Server
from .site import Problem, clean_environment, complain, say

ALL_DONE, SOME_FAILED = 0, 1


class Night:
    def __init__(self, site, settings, token, date, is_full):
        self.site, self.settings, self.token = site, settings, token
        self.date, self.is_full = date, is_full
        # Uses a separate directory, because each nightly run removes all directories DATE.USER in it.
        self.work = os.path.join(settings.work_directory or site.state, "quarn2-night-work")
        self.backups = Backups(site.info_root, site.ledger)
        self.children = Children()
        self.lock = self.server = None

    def limits(self):
        return ["--date", self.date, "--size-limit", str(self.settings.size_limit), "--count-limit",
                self.settings.count_limit]

    def server_arguments(self):
        return self.limits() + [word for node in self.settings.nodes for word in ("--node", node)]

    # -- The lock --

    def take_lock(self):
        """Raises Problem when another nightly run has not ended. The kernel releases the lock when this process
        ends."""
        os.makedirs(self.site.state, 0o700, exist_ok=True)
        path = os.path.join(self.site.state, "lock")
        self.lock = open(os.open(path, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600), "r+",
                         encoding="ascii")
        try:
            fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            holder = self.lock.read(100).strip() or "of unknown id"
            raise Problem(f"another quarn2-night is running: process {holder}; wait for its end, or end it with: "
                          f"kill {holder.split(' ')[0]}") from None
        self.lock.truncate(0)
        self.lock.write(f"{os.getpid()} for {self.date}\n")
        self.lock.flush()

    # -- The night --

    def run(self, users, problems):
        """Returns the outcomes. `users` are tuples (name, directory), `problems` tuples (name, text) of other users."""
        os.makedirs(self.site.info_root, 0o750, exist_ok=True)
        self.make_work()
        self.clean_up_interrupted_night()
        outcomes = [Outcome("a user", FAILED, text) for _, text in problems]
        self.server = Server(self.site, self.children, self.token, self.server_arguments()).start()
        try:
            outcomes += self.back_up(users)
        finally:
            outcomes += self.end()
        return outcomes

    def end(self):
        """Adds the unfinished backups to the server's list and ends the server. If this fails, the next nightly run
        adds them."""
        try:
            try:
                # All jobs have ended, so the server does not change the list while note() adds lines to it. The server
                # reads the list when it ends.
                unfinished.note(self.site, self.token, unfinished.left_over(self.work, self.backups))
            finally:
                self.server.end()
            # The server must have ended, because a failing upload still writes to the directory of its job.
            unfinished.remove_work(self.work)
            return []
        except (Problem, OSError) as error:
            return [Outcome("the removal of unfinished backups", FAILED, f"{error}; the next night tries it again")]

    def make_work(self):
        os.makedirs(self.work, 0o700, exist_ok=True)
        status = os.lstat(self.work)
        if not stat.S_ISDIR(status.st_mode) or status.st_uid != os.geteuid() or status.st_mode & 0o077:
            raise Problem(f"'{self.work}' must be a directory that only this user can use; remove it")

    def clean_up_interrupted_night(self):
        jobs = unfinished.left_over(self.work, self.backups)
        if jobs:
            say("an earlier night was interrupted; its unfinished backups are removed: "
                + ", ".join(f"{date}.{user}" for user, date, _ in jobs))
        unfinished.note(self.site, self.token, jobs)
        unfinished.remove_work(self.work)

    def back_up(self, users):
        left = [UserJob(self, user, directory) for user, directory in users]
        outcomes = {}
        for attempt in range(self.settings.retries + 1):
            if attempt > 0:
                say(f"trying again: {', '.join(job.user for job in left)}")
            for job, outcome in self.round(left):
                outcomes[job.user] = outcome
                report(outcome)
            left = [job for job in left if outcomes[job.user].state == FAILED]
            if not left or self.children.stopped.is_set() or self.settings.on_failure == "stop":
                break
        return list(outcomes.values())

    def round(self, jobs):
        """Yields (job, outcome) as the jobs end. At most users-at-once of them run at the same time."""
        is_over = False

        def run(job):
            if is_over:
                return Outcome(job.user, FAILED, "not begun, because on-failure is stop")
            try:
                self.server.ensure()
                return job.run()
            except Interrupted:
                return Outcome(job.user, FAILED, "interrupted")
            except Problem as error:
                return Outcome(job.user, FAILED, str(error))
            except Exception as error:  # an error of one user must not stop the other backups
                return Outcome(job.user, FAILED, f"unexpected error: {error!r}")

        with concurrent.futures.ThreadPoolExecutor(self.settings.users_at_once) as pool:
            futures = {pool.submit(run, job): job for job in jobs}
            for future in concurrent.futures.as_completed(futures):
                outcome = future.result()
                if outcome.state == FAILED and self.settings.on_failure == "stop":
                    is_over = True
                yield futures[future], outcome

    # -- The end --

    def notify(self, outcomes, status, summary):
        command = self.settings.hooks_after_night
        if command is None:
            return status
        failed = " ".join(outcome.user for outcome in outcomes if outcome.state == FAILED and is_user(outcome.user))
        environment = dict(clean_environment(), QUARN2_DATE=self.date, QUARN2_STATUS=str(status),
                           QUARN2_FAILED=failed)
        text = self.failure_of_hook(command, summary.encode(errors="replace"), environment)
        if text:
            complain("quarn2-night", f"the hook {command[0]} {text}")
            return status or SOME_FAILED
        return status

    def failure_of_hook(self, command, text, environment):
        """Runs the hook with the text on its standard input. Returns the failure as a text, None after a success."""
        children = Children()  # the hook runs after an interrupted night too
        try:
            process = children.start(command, stdin=subprocess.PIPE, env=environment)
            process.communicate(text, self.settings.hooks_timeout)
            status = children.wait(process)
            return describe(status) if status != 0 else None
        except subprocess.TimeoutExpired:
            children.end([process])
            return f"ran longer than {self.settings.hooks_timeout} s"
        except (Problem, OSError) as error:
            return f"failed: {error}"


def report(outcome):
    say(str(outcome))
    for line in outcome.messages:
        say(f"{outcome.user}: | {line}")


def summary_of(date, outcomes):
    """Returns the summary for the end of the output and for the hook after the nightly run."""
    def count(state):
        return sum(outcome.state == state for outcome in outcomes)
    lines = [f"night of {date}: {count(DONE)} backed up, {count(SKIPPED)} skipped, {count(FAILED)} failed"]
    lines += [str(outcome) for outcome in outcomes if outcome.state == FAILED]
    return "\n".join(lines) + "\n"
