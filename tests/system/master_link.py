"""Scripted ends of the master link between server and node client, and a client of the control socket.

ScriptedServer is the size control server of a real `--client`, over its pipes. ScriptedNode replaces the
node client that a real daemon starts, and passes the client's pipes to the test.
"""

import contextlib
import os
import select
import socket
import struct
import subprocess
import sys
import time

from local_files import write_executable
from server_command import Server
from waiting import DEADLINE, read_available, wait_for


def frame(text):
    data = text.encode() if isinstance(text, str) else text
    return struct.pack("<I", len(data)) + data


class Stream:
    """Reads lines and frames of the protocol from a pipe."""

    def __init__(self, fd):
        self.fd = fd
        self.buffer = b""

    def fill(self, timeout):
        """Reads available bytes into the buffer. Returns False at the end of the pipe, None after the timeout."""
        piece = read_available(self.fd, timeout)
        if piece is None:
            return None
        self.buffer += piece
        return bool(piece)

    def take(self, size, what, timeout=None):
        end = time.monotonic() + (DEADLINE if timeout is None else timeout)
        while len(self.buffer) < size:
            came = self.fill(max(0, end - time.monotonic()))
            if came is None:
                raise AssertionError(f"no {what} in time; so far {self.buffer!r}")
            if not came:
                raise AssertionError(f"the link ended before {what}; so far {self.buffer!r}")
        taken, self.buffer = self.buffer[:size], self.buffer[size:]
        return taken

    def line(self, timeout=None):
        end = time.monotonic() + (DEADLINE if timeout is None else timeout)
        while b"\n" not in self.buffer:
            came = self.fill(max(0, end - time.monotonic()))
            if came is None:
                raise AssertionError(f"no line in time; so far {self.buffer!r}")
            if not came:
                raise AssertionError(f"the link ended before a line; so far {self.buffer!r}")
        line, _, self.buffer = self.buffer.partition(b"\n")
        return line.decode()

    def frame(self, timeout=None):
        (size,) = struct.unpack("<I", self.take(4, "frame", timeout))
        return self.take(size, "frame body", timeout).decode()

    def is_silent(self, seconds):
        """Returns True when no data arrives within this time and the other side does not close the pipe."""
        return not self.buffer and self.fill(seconds) is None

    def wait_end(self, timeout=None):
        """Waits until the other side closes the pipe. Returns the bytes that arrived before that."""
        end = time.monotonic() + (DEADLINE if timeout is None else timeout)
        while True:
            came = self.fill(max(0, end - time.monotonic()))
            if came is None:
                raise AssertionError("the other side does not close the link")
            if not came:
                return self.buffer


# --- The control socket ---

class ControlCall:
    """One command on the control socket; answer() reads the answer later."""

    def __init__(self, root, command, storage=""):
        path = root.file("tmp/quarn2_cp.sock" + ("#" + storage if storage else ""))
        self.connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.connection.settimeout(DEADLINE)
        self.connection.connect(path)
        root.test.addCleanup(self.connection.close)
        for piece in [command] if isinstance(command, str) else command:
            self.connection.sendall(piece.encode())
        self.connection.shutdown(socket.SHUT_WR)

    def answer(self):
        received = b""
        while piece := self.connection.recv(65536):
            received += piece
        self.connection.close()
        return received.decode()

    def has_answer(self, seconds=0):
        return bool(select.select([self.connection], [], [], seconds)[0])


def control(root, command, storage=""):
    return ControlCall(root, command, storage).answer()


# --- A scripted server for a real node client ---

class ScriptedServer:
    def __init__(self, root, storage="", token=None, greet=True, env=None):
        self.root = root
        self.storage = storage
        environment = {"KRO_LOG_LEVEL": 8, "BACKUP_TOKEN": None}
        environment.update(env or {})
        self.process = root.spawn("--client", env=environment, stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0)
        self.stream = Stream(self.process.stdout.fileno())
        root.test.addCleanup(self.close)
        if greet:
            self.send(frame(storage) + frame(root.token if token is None else token))
            self.wait_serving()

    @property
    def pid(self):
        return self.process.pid

    @property
    def socket_path(self):
        return self.root.file("tmp/quarn2_cp.sock" + ("#" + self.storage if self.storage else ""))

    def wait_serving(self):
        def serving():
            if self.process.poll() is not None:
                raise AssertionError(f"--client ended: {self.process.stderr.read()}")
            return any(entry.text.startswith("Client. Backup token = ")
                       for entry in self.root.log(5, self.pid))
        wait_for(serving, "a serving node client")

    def send(self, data):
        self.process.stdin.write(data)

    def answer(self, text):
        self.send(frame(text))

    def expect(self, line, answer=None):
        """Checks the client's next line, and sends `answer` if it is given."""
        self.root.test.assertEqual(line, self.stream.line())
        if answer is not None:
            self.answer(answer)

    def is_silent(self, seconds=0.3):
        return self.stream.is_silent(seconds)

    def call(self, command):
        return ControlCall(self.root, command, self.storage)

    def reserved_call(self, command, size, count=0):
        """Sends a command and grants its reservation."""
        call = self.call(command)
        self.expect(f"RESERVE {size}", f"OK {count}")
        return call

    def hang_up(self):
        if not self.process.stdin.closed:
            self.process.stdin.close()

    def wait_end(self, timeout=None):
        """Waits until the client ends. Returns its exit status and standard error."""
        status = self.process.wait(DEADLINE if timeout is None else timeout)
        return status, self.process.stderr.read().decode()

    def end(self):
        self.hang_up()
        return self.wait_end()

    def close(self):
        self.hang_up()
        try:
            self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(DEADLINE)
            raise AssertionError("the node client had to be killed") from None
        finally:
            self.process.stdout.close()
            self.process.stderr.close()


# --- A scripted node client for a real daemon ---

# The stub runs until the test closes the connection. A stub that the test has not accepted, because the daemon
# started it again, ends when its input closes.
STUB = """#!{python} -IS
import os, select, socket, sys
link = socket.socket(socket.AF_UNIX)
link.connect({path!r})
socket.send_fds(link, ["\\0".join(sys.argv).encode()], [0, 1])
own = os.dup(0)
null = os.open("/dev/null", os.O_RDWR)
os.dup2(null, 0)
os.dup2(null, 1)
ends = select.poll()
ends.register(link, select.POLLIN)
ends.register(own, 0)
while link.fileno() in dict(ends.poll()):
    if not link.recv(1):
        break
    ends.unregister(own)
    os.close(own)
"""


class ScriptedNode:
    """Replaces ROOT/sbin/quarn2_cp by a stub; the program becomes quarn2_cp.real."""

    def __init__(self, root):
        self.root = root
        path = os.path.join(root.base, "node.sock")
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen(5)
        self.listener.settimeout(DEADLINE)
        root.test.addCleanup(self.listener.close)
        stub = root.binary
        root.binary = stub + ".real"
        os.rename(stub, root.binary)
        write_executable(stub, STUB.format(python=sys.executable, path=path))

    def accept(self):
        connection, _ = self.listener.accept()
        arguments, received, _, _ = socket.recv_fds(connection, 65536, 2)
        with contextlib.suppress(BrokenPipeError):  # the server and the stub have ended
            connection.send(b"a")
        link = NodeLink(connection, received[0], received[1], arguments.decode().split("\0"))
        self.root.test.addCleanup(link.close)
        return link


class NodeLink:
    def __init__(self, connection, in_fd, out_fd, arguments):
        self.connection = connection
        self.arguments = arguments
        self.stream = Stream(in_fd)
        self.out = out_fd

    def frame(self):
        return self.stream.frame()

    def send(self, data):
        data = data.encode() if isinstance(data, str) else data
        while data:
            data = data[os.write(self.out, data):]

    def ask(self, line):
        """Sends one command and returns its answer."""
        self.send(line + "\n")
        return self.frame()

    def is_silent(self, seconds=0.3):
        return self.stream.is_silent(seconds)

    def close_output(self):
        """Closes the pipe to the server, as the kernel does when a node client dies."""
        if self.out >= 0:
            os.close(self.out)
            self.out = -1

    def close(self):
        self.close_output()
        if self.stream.fd >= 0:
            os.close(self.stream.fd)
            self.stream.fd = -1
        self.connection.close()


def scripted_session(root, *arguments, env=None):
    """Returns (server, link): a ready server with a scripted node client. link.opening has the opening frames."""
    node = ScriptedNode(root)
    server = Server(root, *arguments, env=env)
    link = node.accept()
    opening = (link.frame(), link.frame())
    server.wait_ready()
    link.opening = opening
    return server, link
