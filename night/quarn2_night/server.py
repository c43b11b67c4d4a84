"""Keeps the size control server running: it runs as long as the standard input of `--server` is open."""

import fcntl
import os
import struct
import subprocess
import threading
import time

from .processes import describe
from .site import Problem, clean_environment, say

_REPORT_SECONDS = 60
# struct flock of 64-bit Linux: type, whence, start, length, process.
_FLOCK = "hhqqi4x"


class Server:
    """A running size control server. start() returns when the server is ready, end() when its daemon has ended."""

    def __init__(self, site, children, token, arguments, info_root=None):
        self.site = site
        self.children = children
        self.environment = dict(clean_environment(), BACKUP_TOKEN=token)
        self.command = [site.program, "--server", *arguments]
        if info_root:
            self.command += ["--path", info_root]
        self.process = None
        self._restart = threading.Lock()

    def start(self):
        self.process = self.children.start(self.command, env=self.environment, stdin=subprocess.PIPE,
                                           stdout=subprocess.PIPE)
        # Waits for the end of the output, because the command closes it when the server is ready or has failed.
        self.process.stdout.read()
        self.process.stdout.close()
        try:
            status = self.children.wait(self.process, 0.2)
        except subprocess.TimeoutExpired:
            # stop() must not end the server, because an interrupted nightly run still needs it and ends it with end().
            self.children.release(self.process)
            return self
        self.process.stdin.close()
        raise Problem(f"the size control server did not start: {self.site.program} --server {describe(status)}; "
                      f"see {self.site.log}")

    def ensure(self):
        """Starts the server again when its daemon has ended, for example by a signal. Raises Problem when it cannot
        start."""
        with self._restart:
            if self._daemon() or self.children.stopped.is_set():
                return
            say("the size control server has ended too early; it is started again")
            self._release()
            self.start()

    def _release(self):
        self.process.stdin.close()
        self.children.wait(self.process)

    def end(self):
        """Releases the server and waits until its daemon has applied the limits and ended."""
        daemon = self._daemon()
        self._release()
        begin = time.monotonic()
        is_reported = False
        while daemon and self._daemon() == daemon:
            if not is_reported and time.monotonic() - begin > _REPORT_SECONDS:
                say(f"waiting for the end of the size control server (process {daemon}): another job may hold it")
                is_reported = True
            if self.children.stopped.is_set() and time.monotonic() - begin > _REPORT_SECONDS:
                return
            time.sleep(0.05)

    def _daemon(self):
        """Returns the process that has the record lock of the pid file, 0 when no daemon runs, -1 when the process
        id is not known."""
        try:
            with open(self.site.pid_file, "rb") as file:
                question = struct.pack(_FLOCK, fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
                # The file is open for reading only: F_SETLK of a write lock would fail, but F_GETLK works.
                answer = fcntl.fcntl(file, fcntl.F_GETLK, question)
        except OSError:
            return 0
        kind, _, _, _, process = struct.unpack(_FLOCK, answer)
        return 0 if kind == fcntl.F_UNLCK else process or -1
