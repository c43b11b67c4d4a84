"""Child processes: each has its own process group, so that an interrupted nightly run can end all of them."""

import os
import signal
import subprocess
import threading
import time

from .site import Problem, escaped

_GRACE_SECONDS = 10
_MESSAGE_BYTES = 4000


class Interrupted(Exception):
    """The program received a termination signal."""


class Children:
    """Starts child processes and tracks the running ones. stop() ends them and prevents further starts."""

    def __init__(self):
        # The lock is reentrant, because a signal handler may call stop() while the main thread holds it.
        self._lock = threading.RLock()
        self._running = set()
        self.stopped = threading.Event()

    def start(self, command, **options):
        options.setdefault("stdin", subprocess.DEVNULL)
        with self._lock:
            if self.stopped.is_set():
                raise Interrupted()
            try:
                process = subprocess.Popen(command, start_new_session=True, **options)
            except OSError as error:
                raise Problem(f"{command[0]} cannot be started: {error.strerror}") from None
            self._running.add(process)
        return process

    def wait(self, process, timeout=None):
        """Returns the exit status. Raises subprocess.TimeoutExpired."""
        status = process.wait(timeout)
        self.release(process)
        return status

    def release(self, process):
        """Excludes this process from stop()."""
        with self._lock:
            self._running.discard(process)

    def run(self, command, **options):
        """Runs a command to its end and returns its exit status."""
        return self.wait(self.start(command, **options))

    def end(self, processes):
        """Ends these processes and their groups."""
        for process in processes:
            self._signal(process, signal.SIGTERM)
        end = time.monotonic() + _GRACE_SECONDS
        for process in processes:
            while not _has_ended(process) and time.monotonic() < end:
                time.sleep(0.02)
            # Kill the rest of the process group too, because a child of its leader may ignore SIGTERM.
            self._signal(process, signal.SIGKILL)
            self.wait(process)

    def stop(self):
        with self._lock:
            self.stopped.set()
        self._signal_all(signal.SIGTERM)
        timer = threading.Timer(_GRACE_SECONDS, self._signal_all, [signal.SIGKILL])
        timer.daemon = True
        timer.start()

    def _signal_all(self, number):
        with self._lock:
            running = list(self._running)
        for process in running:
            self._signal(process, number)

    @staticmethod
    def _signal(process, number):
        # A process that was reaped has no group of its own any more, so its id is not used.
        if process.returncode is None:
            try:
                os.killpg(process.pid, number)
            except ProcessLookupError:
                pass


def _has_ended(process):
    """Returns True when the process has ended. Does not reap it, so that its group keeps its id."""
    if process.returncode is not None:
        return True
    try:
        return os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None
    except ChildProcessError:
        return True


class Messages:
    """The file that collects the error texts of the processes of one job."""

    def __init__(self, path):
        self.path = path
        self.file = open(path, "ab")

    def lines(self):
        """Returns the last lines, without control characters."""
        self.file.flush()
        with open(self.path, "rb") as file:
            file.seek(max(0, os.fstat(file.fileno()).st_size - _MESSAGE_BYTES))
            text = file.read().decode(errors="replace")
        return [escaped(line) for line in text.split("\n") if line.strip()]

    def last(self):
        """Returns ": TEXT" with the last line, or an empty text."""
        lines = self.lines()
        return ": " + lines[-1] if lines else ""

    def close(self):
        self.file.close()


def describe(status):
    """Describes an exit status of subprocess."""
    if status < 0:
        return f"was ended by signal {-status}"
    return f"ended with exit status {status}"
