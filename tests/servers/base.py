"""The base class of the servers: a directory, processes with pid files, readiness, server.info."""

import base64
import contextlib
import grp
import hashlib
import os
import pwd
import secrets
import shutil
import signal
import socket
import subprocess
import time

from . import certificates, ports, processes

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
START_SECONDS = 120
INSTALL = "run 'scripts/install-deps servers' as root"


class ServerError(Exception):
    """Raised when a server cannot run. The message says how to fix the problem."""


def mounts_below(folder):
    """Returns the mount points below a folder, the innermost first."""
    prefix = os.path.join(os.path.realpath(folder), "")
    with open("/proc/self/mountinfo", encoding="utf-8", errors="surrogateescape") as mounts:
        points = [line.split()[4].encode("utf-8", "surrogateescape").decode("unicode_escape")
                  for line in mounts]
    return sorted((point for point in points if point.startswith(prefix)), key=len, reverse=True)


class Server:
    """One server (one or several processes) with all its files in one directory.

    As a context manager it starts and stops the server. `info` has the keys and values of server.info.
    """

    name = ""
    programs = ()  # the required programs
    owner = "root"  # the owner of the served files

    def __init__(self, directory):
        self.path = os.path.abspath(directory)
        self.data = self.file("data")
        self.info_path = self.file("server.info")
        self.info = {}
        self._own = {}  # pid -> Popen, for each process that this object started
        self._commands = {}  # process name -> its arguments

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def file(self, *parts):
        return os.path.join(self.path, *parts)

    # --- For the subclasses ---

    def launch(self, base):
        """Starts the processes on the ports from `base` upwards and completes `info`."""
        raise NotImplementedError

    def is_ready(self):
        """Returns True if the server answers requests."""
        raise NotImplementedError

    def prepare(self):
        """Prepares the running server, for example creates its users."""

    def write(self, path, text, mode=0o644):
        with open(self.file(path), "w", encoding="utf-8") as file:
            os.fchmod(file.fileno(), mode)
            file.write(text)
        return self.file(path)

    def run(self, *arguments, **options):
        """Runs a tool and returns its output. If the tool fails, raises ServerError with its output."""
        result = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                check=False, text=True,
                                **({} if "input" in options else {"stdin": subprocess.DEVNULL}),
                                **options)
        if result.returncode != 0:
            raise ServerError(f"{arguments[0]} failed: {result.stderr.strip()}"
                              f" {result.stdout.strip()}")
        return result.stdout

    def spawn(self, name, *arguments):
        """Starts a process that stays in the foreground. It inherits no descriptor of this process."""
        with open(self.file("log", name + ".out"), "ab") as out:
            process = subprocess.Popen(arguments, cwd=self.path, stdin=subprocess.DEVNULL,
                                       stdout=out, stderr=out, start_new_session=True)
        self._own[process.pid] = process
        self._commands[name] = arguments
        self.write(f"run/{name}.id", processes.identity(process.pid) or f"{process.pid} ended")

    def pid(self, name):
        """Returns the id of the process that spawn() has started under this name."""
        with open(self.file("run", name + ".id"), encoding="ascii") as file:
            return int(file.read().split()[0])

    def serve_directory(self):
        """Creates the directory of the served files and adds it to `info`."""
        os.makedirs(self.data, exist_ok=True)
        user = pwd.getpwnam(self.owner)
        os.chown(self.data, user.pw_uid, user.pw_gid)
        self.info.update(data=self.data, uid=user.pw_uid, gid=user.pw_gid)

    @property
    def group(self):
        return grp.getgrgid(pwd.getpwnam(self.owner).pw_gid).gr_name

    def certificate(self, name, part):
        return self.file("tls", f"{name}.{part}")

    def web_password(self):
        """Returns the line for the user in the password file of a web server. The hash is the fastest one, because the
        server computes it for each request, and a slow hash would dominate the measurements of small files."""
        digest = hashlib.sha1(self.info["password"].encode()).digest()
        return f"{self.info['user']}:{{SHA}}{base64.b64encode(digest).decode()}\n"

    def answers(self, port, greeting, request=b""):
        """Returns True if a server accepts a connection on the port and its reply begins with this greeting."""
        try:
            with socket.create_connection(("127.0.0.1", port), 1) as peer:
                peer.settimeout(5)
                peer.sendall(request)
                return peer.recv(len(greeting)) == greeting
        except OSError:
            return False

    def answers_http(self, port):
        return self.answers(port, b"HTTP/", b"GET / HTTP/1.0\r\n\r\n")

    # --- For tests ---

    def start(self):
        self.check_means()
        self.stop()
        shutil.rmtree(self.path, ignore_errors=True)
        for folder in ("run", "log", "etc", "tmp"):
            os.makedirs(self.file(folder))
        os.chmod(self.path, 0o755)
        self.check_reach()
        certificates.make(self.file("tls"))
        self.info = {"name": self.name, "host": "127.0.0.1", "user": "tester",
                     # The password contains the characters that need escaping in a token or in a password file.
                     "password": "p@ss/w%rd? #" + secrets.token_hex(4),
                     "ca": self.file("tls", "ca.crt"), "directory": self.path}
        try:
            with ports.reserved() as base:
                self.launch(base)
                self.wait_ready()
            self.prepare()
        except BaseException:
            self.end_processes()
            raise
        self.write_info()

    def wait_ready(self):
        end = time.monotonic() + START_SECONDS
        while not self.is_ready():
            self.check_alive()
            if time.monotonic() > end:
                raise ServerError(f"{self.name} is not ready after {START_SECONDS} s;"
                                  f" see {self.file('log')}")
            time.sleep(0.02)
        self.check_alive()

    def write_info(self):
        lines = "".join(f"{key}={value}\n" for key, value in self.info.items())
        os.rename(self.write("server.info.new", lines, 0o600), self.info_path)

    def kill(self, number=signal.SIGKILL):
        """Sends a signal to all processes of the server. SIGKILL ends all at once, like a crash of the machine."""
        main = self.processes()
        if number == signal.SIGKILL:
            processes.send(main, signal.SIGSTOP)  # Stopped processes start no more children.
        family = [each for process in main for each in processes.tree(process)]
        processes.send(family, number)
        if number == signal.SIGKILL:
            processes.wait_end(family, 10)

    def revive(self):
        """Restarts the killed processes with the same ports and data."""
        killed = [pid for pid, process in self._own.items() if process.poll() is not None]
        for pid in killed:
            del self._own[pid]
        for name, arguments in self._commands.items():
            if self.pid(name) in killed:
                self.spawn(name, *arguments)
        self.wait_ready()

    def stop(self):
        """Stops the processes in this directory's pid files and removes all files but the logs."""
        self.end_processes()
        for point in mounts_below(self.path):
            subprocess.run(["umount", "--lazy", point], check=False)
        if not os.path.isdir(self.file("run")):
            return
        for name in os.listdir(self.path):
            if name != "log":
                path = self.file(name)
                if os.path.isdir(path) and not os.path.islink(path):
                    shutil.rmtree(path, ignore_errors=True)
                else:
                    os.unlink(path)

    # --- Internal ---

    def processes(self):
        """Returns the identities of this directory's running processes, the last started first."""
        with contextlib.suppress(FileNotFoundError):
            names = [name for name in os.listdir(self.file("run")) if name.endswith(".id")]
            paths = sorted((self.file("run", name) for name in names), key=os.path.getmtime)
            found = []
            for path in reversed(paths):
                with open(path, encoding="ascii") as file:
                    found.append(file.read())
            return [process for process in found if processes.runs(process)]
        return []

    def end_processes(self):
        for process in self.processes():
            processes.stop(process)
        for process in self._own.values():
            process.wait(START_SECONDS)
        self._own.clear()

    def check_alive(self):
        for process in self._own.values():
            if process.poll() is not None:
                raise ServerError(f"{process.args[0]} ended with {process.returncode}:\n"
                                  f"{self.last_words()}")

    def last_words(self):
        words = ""
        for name in sorted(os.listdir(self.file("log"))):
            with open(self.file("log", name), encoding="utf-8", errors="replace") as log:
                words += f"--- {name}\n" + "".join(log.readlines()[-20:])
        return words

    def check_means(self):
        if os.geteuid() != 0:
            raise ServerError("the test servers need root: they serve files as other users, and"
                              " tests fill small file systems; run the tests as root")
        missing = [program for program in self.programs if shutil.which(program) is None]
        if missing:
            raise ServerError(f"{self.name} lacks {', '.join(missing)}: {INSTALL}")

    def check_reach(self):
        """Checks that the user who serves the files, unless it is root, can enter their directory."""
        folder = self.path
        while folder != "/" and self.owner != "root":
            if not os.stat(folder).st_mode & 0o001:
                raise ServerError(f"the user {self.owner} cannot enter {folder}: run"
                                  f" 'chmod o+x {folder}', or build elsewhere")
            folder = os.path.dirname(folder)
