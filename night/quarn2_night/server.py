"""Holds the size control server: it runs as long as the standard input of `--server` is open."""

import os
import subprocess
import time

from .processes import describe
from .site import Problem, clean_environment, say

_REPORT_SECONDS = 60


class Server:
    """A running size control server. start() returns when it is ready; end() when its daemon has ended."""

    def __init__(self, site, children, token, arguments, info_root=None):
        self.site = site
        self.children = children
        self.environment = dict(clean_environment(), BACKUP_TOKEN=token)
        self.command = [site.program, "--server", *arguments]
        if info_root:
            self.command += ["--path", info_root]
        self.process = None

    def start(self):
        self.process = self.children.start(self.command, env=self.environment, stdin=subprocess.PIPE,
                                           stdout=subprocess.PIPE)
        # The command closes its standard output when the server is ready or has failed.
        self.process.stdout.read()
        self.process.stdout.close()
        try:
            status = self.children.wait(self.process, 0.2)
        except subprocess.TimeoutExpired:
            # An interrupted night ends its server in the normal way.
            self.children.release(self.process)
            return self
        self.process.stdin.close()
        raise Problem(f"the size control server did not start: {self.site.program} --server {describe(status)}; "
                      f"see {self.site.log}")

    def end(self):
        """Releases the server and waits until its daemon has applied the limits and ended."""
        daemon = self._daemon()
        self.process.stdin.close()
        self.children.wait(self.process)
        begin = time.monotonic()
        is_reported = False
        while daemon and self._daemon() == daemon and os.path.exists(f"/proc/{daemon}"):
            if not is_reported and time.monotonic() - begin > _REPORT_SECONDS:
                say(f"waiting for the end of the size control server (process {daemon}): another job may hold it")
                is_reported = True
            if self.children.stopped.is_set() and time.monotonic() - begin > _REPORT_SECONDS:
                return
            time.sleep(0.05)

    def _daemon(self):
        try:
            with open(self.site.pid_file, encoding="ascii") as file:
                return file.readline().strip()
        except (OSError, UnicodeDecodeError):
            return ""
