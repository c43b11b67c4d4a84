"""Install roots. Each has its own copy of the program QUARN2_CP_BINARY, so that tests can run in parallel."""

import os
import shlex
import subprocess
import tempfile

from local_files import copy_executable, tree, write
from processes import start
from program_log import read_log, split_warnings
from waiting import DEADLINE, wait_for

BINARY = os.path.abspath(os.environ.get("QUARN2_CP_BINARY", "build/launcher/quarn2_cp"))
# The same program with a clock whose long pauses a test can end: see Root.end_pauses.
ENDED_PAUSES = os.path.abspath(os.environ.get("QUARN2_CP_ENDED_PAUSES",
                                              "build/tests/system/quarn2_cp_ended_pauses"))
# The words of a wrapper command for every start of the program, such as valgrind: see scripts/valgrind.
WRAPPER = shlex.split(os.environ.get("QUARN2_CP_WRAPPER", ""))


class Root:
    """An install root with a local storage beside it."""

    def __init__(self, test, name="root", program=BINARY):
        self.test = test
        self.base = tempfile.mkdtemp(prefix=name + "-", dir=test.folder)
        self.path = os.path.join(self.base, "root")
        self.storage = os.path.join(self.base, "storage")
        self.work = os.path.join(self.base, "work")  # the directory in which a job makes its archives
        self.info_root = os.path.join(self.path, "var/backup/tovarn")
        for folder in (os.path.join(self.path, "sbin"), self.storage, self.work, self.info_root):
            os.makedirs(folder)
        self.binary = os.path.join(self.path, "sbin/quarn2_cp")
        copy_executable(program, self.binary)
        self.token = "local://" + self.storage
        self.log_level = None

    def file(self, name):
        return os.path.join(self.path, name)

    def end_pauses(self):
        """Ends the current and all later pauses between attempts (needs program=ENDED_PAUSES)."""
        write(self.file("tmp/end_pauses"), "")

    def environment(self, **changes):
        """Returns the environment. BACKUP_TOKEN is the root's token by default; None removes a variable."""
        values = {name: value for name, value in os.environ.items()
                  if not name.startswith(("BACKUP_", "KRO_"))}
        values["BACKUP_TOKEN"] = self.token
        if self.log_level is not None:
            values["KRO_LOG_LEVEL"] = str(self.log_level)
        for name, value in changes.items():
            if value is None:
                values.pop(name, None)
            else:
                values[name] = str(value)
        return values

    def spawn(self, *arguments, env=None, cwd="/", wrapper=(), **pipes):
        """Starts the program. `wrapper` contains the words of a command that runs it."""
        return start([*wrapper, *WRAPPER, self.binary, *arguments], cwd=cwd,
                     env=self.environment(**(env or {})), **pipes)

    def run(self, *arguments, env=None, cwd="/", wrapper=(), timeout=None):
        """Runs a command to its end; the result has returncode, stdout, stderr, warnings."""
        process = self.spawn(*arguments, env=env, cwd=cwd, wrapper=wrapper,
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE)
        try:
            out, err = process.communicate(timeout=DEADLINE if timeout is None else timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise AssertionError(f"{arguments} did not end") from None
        errors, warnings = split_warnings(err.decode())
        result = subprocess.CompletedProcess(arguments, process.returncode, out.decode(), errors)
        result.warnings = warnings
        return result

    def log(self, level=None, pid=None):
        entries = read_log(self.file("var/quarn2_cp.log"))
        return [entry for entry in entries
                if (level is None or entry.level == level) and (pid is None or entry.pid == pid)]

    def log_texts(self, level=None, pid=None):
        return [entry.text for entry in self.log(level, pid)]

    def wait_log(self, text, level=None, pid=None, count=1, timeout=None):
        """Waits until the log contains the text `count` times. Returns the log entries with the text."""
        def found():
            entries = [entry for entry in self.log(level, pid) if entry.text == text]
            return entries if len(entries) >= count else None
        return wait_for(found, lambda: f"log line {text!r} in {self.log()}", timeout)

    def stored(self):
        return tree(self.storage)

    def local(self):
        return tree(self.info_root)

    def unfinished(self):
        """Returns the names of the ledger's entries."""
        return [name for name in tree(self.file("var/quarn2_cp.ledger")) if name != ".lock"]
