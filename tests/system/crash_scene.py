"""The base class of the crash test scenes.

A scene is a test case with its own install root: an initial state, a job, and the conditions that must hold
afterwards. act() runs the job, and stops when a command fails. A Fault is an error or a kill that the test injects
into a call of a process. Between arm() and the end of the run, it applies to processes whose role is in `roles`.
check() contains the conditions that hold whenever no process runs. check_done() contains the conditions that hold
after a run without a fault, even if earlier runs had faults.
"""

import os
import re
import select
import subprocess
import time

from faults import Fault
from local_files import read, tree
from processes import forget_started
from program_log import LOG_LINE, LogEntry
from samples import DATE
from waiting import DEADLINE

GENEROUS = ("--date", DATE, "--count-limit", "1000:1000")
TEMPORARY = re.compile(r"\..+\.part~")
COUNTED = re.compile(r"\S+ Add \S+ backup (\S+)\.info\. new used .*")


ENTRY = re.compile(r"(?=\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[)")


class Failure(AssertionError):
    """Raised when a condition of a scene does not hold after an injected fault."""


def require(condition, text):
    if not condition:
        raise Failure(text() if callable(text) else text)


def names(folder):
    """Returns the files below a folder, without the temporary files of an interrupted writer."""
    return [name for name in tree(folder) if not TEMPORARY.fullmatch(os.path.basename(name))]


def wait_until_alone(timeout=DEADLINE):
    """Waits until no process of the run is left. The scene has already waited for the commands it started."""
    end = time.monotonic() + timeout
    while True:
        try:
            pid, _ = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if pid == 0:
            require(time.monotonic() < end, "a process outlived the run")
            time.sleep(0.002)


class Scene:
    roles = ("command",)
    restart = GENEROUS  # options of the server that starts after a fault

    def __init__(self, test, fault_control):
        self.r = test.root()
        self.fault_control = fault_control
        self.fault = Fault()
        self.failed = []  # (command, exit status, standard error) of each failed command
        self.lay_out()

    # --- Actions of a job ---

    def env(self, **changes):
        return {**self.fault_control.environment(), **changes}

    def arm(self):
        self.fault_control.write(self.fault, self.roles)

    def run(self, *arguments, **env):
        """Runs a command; returns False when it failed."""
        result = self.r.run(*arguments, env=self.env(**env))
        if result.returncode != 0:
            self.failed.append((arguments, result.returncode, result.stderr))
        return result.returncode == 0

    def serve(self, *arguments, **env):
        """Starts a --server command; returns its process once it is ready or has ended."""
        self.log_begin = len(self.log())
        server = self.r.spawn("--server", *arguments, env=self.env(**env), stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        ready, _, _ = select.select([server.stdout], [], [], DEADLINE)
        require(ready, "--server is neither ready nor ended")
        return server

    def release(self, server):
        """Ends the --server command, so that the server ends. Returns False when the command failed."""
        _, errors = server.communicate(timeout=DEADLINE)
        if server.returncode != 0:
            self.failed.append((("--server",), server.returncode, errors.decode()))
        return server.returncode == 0

    def act(self, fault):
        """Runs the job with an injected fault. Returns True when every command succeeded."""
        self.fault = fault
        self.failed = []
        self.fault_control.write(Fault(), ())
        try:
            self.work()
        finally:
            wait_until_alone()
            self.fault_control.stop()
            forget_started()
        return not self.failed

    def wait_for_client(self, server):
        """Waits for the node client; returns False when the server ends first."""
        end = time.monotonic() + DEADLINE
        while server.poll() is None:
            if any(entry.text.startswith("Client. Backup token")
                   for entry in self.log()[self.log_begin:]):
                return True
            require(time.monotonic() < end, "no node client")
            time.sleep(0.002)
        return False

    def log(self):
        """Returns the log's entries. A kill can truncate a line; the next entry then follows on the same line."""
        try:
            text = read(self.r.file("var/quarn2_cp.log")).decode(errors="backslashreplace")
        except FileNotFoundError:
            return []
        lines = [line.rstrip("\n") for line in ENTRY.split(text)]
        return [LogEntry(line) for line in lines if LOG_LINE.fullmatch(line)]

    # --- Functions that the scenes override ---

    def lay_out(self):
        """Creates the initial state."""

    def again(self):
        """Prepares the files for another run of the same job."""

    def work(self):
        raise NotImplementedError

    def check(self):
        """Checks the conditions that hold whenever no process runs."""

    def check_done(self):
        """Checks the conditions that hold after a complete run."""

    def remaining(self):
        """Returns the backups, as DATE.USER, that a server counts at the end."""
        return ()

    def holds_whole(self, stem):
        """Returns True when the backup DATE.USER has all of its files."""
        raise NotImplementedError

    # --- Checks of all scenes ---

    def check_counted(self):
        """Checks that a server that starts now counts only complete backups."""
        self.failed = []
        server = self.serve(*self.restart, KRO_LOG_LEVEL="7")
        self.release(server)
        wait_until_alone()
        forget_started()
        self.check_start()
        matches = [COUNTED.fullmatch(entry.text) for entry in self.log()[self.log_begin:]]
        self.counted = {match[1] for match in matches if match}
        for stem in self.counted:
            require(self.holds_whole(stem), lambda stem=stem: f"{stem} is counted and is not whole: "
                    f"{self.r.stored()} {self.r.local()}")

    def check_start(self):
        require(not self.failed, lambda: f"the server does not start: {self.failed} {self.log()[-3:]}")

    def check_no_leftovers(self):
        left_over = [name for folder in (self.r.base,) for name in tree(folder)
                     if TEMPORARY.fullmatch(os.path.basename(name))]
        require(not left_over, lambda: f"left over: {left_over}")
        # After a fault these files may be left. No process uses them, and the next server replaces them.
        for name in ("quarn2_cp.pid", "quarn2_cp.lock"):
            require(self.fault.number or not os.path.exists(self.r.file("var/" + name)),
                    f"{name} is left")
