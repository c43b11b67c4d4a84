"""The --server command: its start, its end, and its files."""

import subprocess
import time

from local_files import read
from processes import children, is_listening, wait_gone
from program_log import split_warnings
from waiting import DEADLINE, read_available, wait_for


class Server:
    """One --server command. It keeps the server running until release()."""

    def __init__(self, root, *arguments, env=None, pass_fds=(), wrapper=()):
        self.root = root
        self.daemon = None
        self.output = b""
        self.errors = None
        self.warnings = []
        storage = ""
        for option, value in zip(arguments, arguments[1:]):
            if option in ("--storage", "-U"):
                storage = value
        self.suffix = "#" + storage if storage else ""
        self.process = root.spawn("--server", *arguments, env=env, pass_fds=pass_fds,
                                  wrapper=wrapper, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE)
        root.test.addCleanup(self.close)

    @property
    def pid(self):
        return self.process.pid

    @property
    def pid_file(self):
        return self.root.file("var/quarn2_cp.pid" + self.suffix)

    @property
    def lock_file(self):
        return self.root.file("var/quarn2_cp.lock" + self.suffix)

    def pid_parts(self):
        """Returns the pid file's process id, date, key and control parameters."""
        return read(self.pid_file).decode().split("\n", 3)

    def is_ready(self, timeout=0):
        """Returns True once the server is ready. Fails the test when the command ends without a ready server."""
        if self.process.stdout.closed:
            return True
        end = time.monotonic() + timeout
        while True:
            piece = read_available(self.process.stdout.fileno(), max(0, end - time.monotonic()))
            if piece is None:
                return False
            if not piece:
                break
            self.output += piece
        ready = [entry for entry in self.root.log(5, self.pid)
                 if entry.text.startswith("Size control server is ready. Date: ")]
        if not ready:
            status, errors = self.wait_end()
            raise AssertionError(f"--server ended with {status}: {errors}; {self.root.log()}")
        self.process.stdout.close()
        return True

    def wait_ready(self, timeout=None):
        if not self.is_ready(DEADLINE if timeout is None else timeout):
            raise AssertionError(f"the server is not ready; log: {self.root.log()}")
        self.daemon = int(self.pid_parts()[0])
        self.wait_socket()
        return self

    def wait_socket(self, timeout=10):
        """Waits for the node client's control socket, which opens a little after the server is ready. Does not
        fail after the timeout, because in some tests the client cannot open it."""
        if self.root.binary.endswith(".real"):
            return  # a test script replaces the node client, so there is no socket
        end = time.monotonic() + timeout
        # The socket file alone proves nothing, because an earlier client may have left it.
        while time.monotonic() < end and not any(map(is_listening, children(self.daemon))):
            time.sleep(0.01)

    def wait_end(self, timeout=None):
        """Waits until the --server command ends. Returns its exit status and its standard error without warnings."""
        if self.errors is None:
            self.errors = b""
            end = time.monotonic() + (DEADLINE if timeout is None else timeout)
            while True:
                piece = read_available(self.process.stderr.fileno(), max(0, end - time.monotonic()))
                if piece is None:
                    raise AssertionError("the --server command does not end")
                if not piece:
                    break
                self.errors += piece
        errors, self.warnings = split_warnings(self.errors.decode())
        return self.process.wait(DEADLINE), errors

    def release(self):
        """Releases the server, as a job does at its end. Returns the result of wait_end()."""
        if not self.process.stdin.closed:
            self.process.stdin.close()
        return self.wait_end()

    def end(self):
        """Releases the server and waits until the daemon ends. Returns the daemon's exit status."""
        self.release()
        return wait_gone(self.daemon)

    def node_client(self):
        """Returns the process id of the daemon's node client."""
        return wait_for(lambda: children(self.daemon), "a node client")[0]

    def close(self):
        if not self.process.stdin.closed:
            self.process.stdin.close()
        try:
            self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(DEADLINE)
            raise AssertionError("the --server command had to be killed") from None
        finally:
            for stream in (self.process.stdout, self.process.stderr):
                stream.close()
