"""The base of the system tests: install roots, processes, waiting and the log.

Every install root has its own copy of the program QUARN2_CP_BINARY, so that tests can run in parallel. No
function waits for a fixed time: every wait has a condition and a deadline.
"""

import ctypes
import fcntl
import os
import re
import select
import shlex
import shutil
import signal
import struct
import subprocess
import tempfile
import threading
import time
import unittest

BINARY = os.path.abspath(os.environ.get("QUARN2_CP_BINARY", "build/launcher/quarn2_cp"))
# The same program with a clock whose long pauses a test can end: see Root.end_pauses.
ENDED_PAUSES = os.path.abspath(os.environ.get("QUARN2_CP_ENDED_PAUSES",
                                              "build/tests/system/quarn2_cp_ended_pauses"))
DEADLINE = float(os.environ.get("QUARN2_CP_DEADLINE", "180"))
# The words of a wrapper command for every start of the program, such as valgrind: see scripts/valgrind.
WRAPPER = shlex.split(os.environ.get("QUARN2_CP_WRAPPER", ""))

PR_SET_CHILD_SUBREAPER = 36

LOG_LINE = re.compile(
    r"(?P<time>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) \[(?P<pid>\d+):(?P<tid>\d+)\] "
    r"(?P<program>\S+) (?P<module>\S+) (?P<level>\d): (?P<text>.*)")


def wait_for(condition, what, timeout=None, pause=0.002):
    """Calls `condition` until it returns a true value, and returns that value."""
    timeout = DEADLINE if timeout is None else timeout
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what() if callable(what) else what}")
        time.sleep(pause)
        pause = min(pause * 1.5, 0.05)


# --- Processes ---

_own = {}  # pid -> Popen of every process started here
_statuses = {}  # pid -> exit status of adopted processes
_reap_lock = threading.Lock()
# Prevents a fork while an executable is being written. Otherwise the child inherits the open file until its
# exec, and the start of an executable that is open for writing fails.
_exec_lock = threading.Lock()


def start(arguments, **options):
    with _exec_lock:
        process = subprocess.Popen(arguments, **options)
        # After thousands of starts, a new daemon may get the pid of an ended process, so ended processes are removed.
        for pid in [pid for pid, old in list(_own.items()) if old.poll() is not None]:
            del _own[pid]
        _own[process.pid] = process
    return process


def adopt_orphans():
    """Makes this process the parent of orphaned daemons, so that a test detects each daemon that still runs."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def stat_of(pid):
    """Returns (state, parent) of a process, or None when the process does not exist."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as stat:
            words = stat.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return words[0], int(words[1])


def reap(pid):
    """Reaps an adopted process; returns False while it cannot be reaped yet."""
    with _reap_lock:
        if pid in _own or pid in _statuses:
            return True
        try:
            ended, status = os.waitpid(pid, os.WNOHANG)
        except ChildProcessError:
            return True
        if ended == pid:
            _statuses[pid] = os.waitstatus_to_exitcode(status)
        return ended == pid


def gone(pid):
    own = _own.get(pid)
    if own:
        return own.poll() is not None
    stat = stat_of(pid)
    ended = stat is None or stat[0] in "ZX"
    # Reap after the state was read: a process that ends between an earlier reap and the read would be missed. A
    # process whose main thread has ended looks like a zombie while its other threads run. It cannot be reaped yet.
    return ended and reap(pid)


def wait_gone(pid, timeout=None):
    """Waits until the process has ended. Returns its exit status if reap() collected it, else None."""
    wait_for(lambda: gone(pid), f"the end of process {pid}", timeout)
    return _statuses.get(pid)


def children(parent=None):
    """Returns the pids of the running children of a process, by default of this process."""
    pids = own_children() if parent is None else children_by_scan(parent)
    return [pid for pid in pids if not gone(pid)]


def own_children():
    """Returns the pids in the kernel's list of this process's children. The kernel's list for another process is
    unreliable: it can lack a child while other children end."""
    try:
        pids = []
        for task in os.listdir("/proc/self/task"):
            with open(f"/proc/self/task/{task}/children", encoding="ascii") as listed:
                pids += map(int, listed.read().split())
        return pids
    except FileNotFoundError:  # a thread has ended, or the kernel has no such list
        return children_by_scan(os.getpid())


def children_by_scan(parent):
    pids = [int(name) for name in os.listdir("/proc") if name.isdigit()]
    return [pid for pid in pids if (stat_of(pid) or ("", None))[1] == parent]


def listens(pid):
    """Returns True when a process has a Unix socket that accepts connections."""
    accepts = 0x10000
    try:
        with open(f"/proc/{pid}/net/unix", encoding="utf-8", errors="replace") as table:
            rows = [line.split() for line in table.readlines()[1:]]
        sockets = {f"socket:[{row[6]}]" for row in rows if int(row[3], 16) & accepts}
        folder = f"/proc/{pid}/fd"
        return any(os.readlink(os.path.join(folder, fd)) in sockets for fd in os.listdir(folder))
    except (FileNotFoundError, ProcessLookupError):
        return False  # the process has ended, or a descriptor was closed
    except PermissionError:
        return True  # without root's rights the descriptors cannot be checked


def command_line(pid):
    try:
        with open(f"/proc/{pid}/cmdline", "rb") as line:
            return line.read().replace(b"\0", b" ").decode(errors="replace").strip()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def descriptors(pid):
    """Returns the open descriptors of a process: {number: target}."""
    found = {}
    for name in os.listdir(f"/proc/{pid}/fd"):
        try:
            found[int(name)] = os.readlink(f"/proc/{pid}/fd/{name}")
        except FileNotFoundError:
            pass
    return found


def access_mode(pid, fd):
    """Returns the mode in which the descriptor was opened: O_RDONLY, O_WRONLY or O_RDWR."""
    with open(f"/proc/{pid}/fdinfo/{fd}", encoding="ascii") as info:
        flags = next(line.split()[1] for line in info if line.startswith("flags:"))
    return int(flags, 8) & os.O_ACCMODE


def write_lock_holder(path):
    """Returns the pid of the process that holds a record lock on the file, 0 when no process does."""
    with open(path, "r+b") as file:
        asked = struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
        kind, _, _, _, pid = struct.unpack("hhqqi4x", fcntl.fcntl(file, fcntl.F_GETLK, asked))
        return 0 if kind == fcntl.F_UNLCK else pid


def read_available(fd, timeout):
    """Returns bytes of a pipe as soon as it has some, b"" at its end, None after the timeout."""
    ready, _, _ = select.select([fd], [], [], timeout)
    return os.read(fd, 65536) if ready else None


def split_warnings(errors):
    """Returns standard error without the lines of warnings, and the texts of the warnings."""
    lines = errors.splitlines(keepends=True)
    begin = "quarn2_cp: warning: "
    return ("".join(line for line in lines if not line.startswith(begin)),
            [line[len(begin):].rstrip("\n") for line in lines if line.startswith(begin)])


# --- Install roots ---

class LogEntry:
    def __init__(self, line):
        match = LOG_LINE.fullmatch(line)
        if not match:
            raise AssertionError(f"not a log line: {line!r}")
        self.time = match["time"]
        self.pid = int(match["pid"])
        self.tid = int(match["tid"])
        self.program = match["program"]
        self.module = match["module"]
        self.level = int(match["level"])
        self.text = match["text"]

    def __repr__(self):
        return f"[{self.pid}] {self.level}: {self.text}"


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
        with _exec_lock:
            shutil.copy2(program, self.binary)
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
        try:
            with open(self.file("var/quarn2_cp.log"), encoding="utf-8",
                      errors="backslashreplace") as log:
                lines = log.read().split("\n")
        except FileNotFoundError:
            return []
        # The last element is empty, or a line that the program has not completely written yet.
        entries = [LogEntry(line) for line in lines[:-1]]
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


def tree(folder):
    """Returns all files below a folder, as sorted relative names."""
    found = []
    for directory, _, names in os.walk(folder):
        found += [os.path.relpath(os.path.join(directory, name), folder) for name in names]
    return sorted(found)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(data.encode() if isinstance(data, str) else data)
    return path


def write_executable(path, text):
    with _exec_lock:
        write(path, text)
        os.chmod(path, 0o700)


class Watch:
    """A context manager. Between entry and exit, a thread calls look() repeatedly."""

    pause = 0.02

    def __init__(self):
        self.over = threading.Event()
        self.thread = threading.Thread(target=self.run)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join()

    def run(self):
        while not self.over.is_set():
            self.look()
            self.over.wait(self.pause)


# --- The server command ---

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
            return  # a test script replaces the node client
        end = time.monotonic() + timeout
        # The socket file alone proves nothing, because an earlier client may have left it.
        while time.monotonic() < end and not any(map(listens, children(self.daemon))):
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


# --- Tests ---

class SystemTest(unittest.TestCase):
    """Provides a temporary folder and checks that no process outlives the test."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        adopt_orphans()
        if not os.access(BINARY, os.X_OK):
            raise AssertionError(f"QUARN2_CP_BINARY does not name the program: {BINARY}")

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="quarn2-cp-")
        self.addCleanup(shutil.rmtree, self.folder)
        # A server that the whole class shares has children that existed before the test.
        self.children_before = set(children())
        self.addCleanup(self.check_no_process_left)

    def root(self, name="root", **options):
        return Root(self, name, **options)

    def check_no_process_left(self):
        end = time.monotonic() + DEADLINE
        while self.new_children() and time.monotonic() < end:
            time.sleep(0.01)
        left = [(pid, command_line(pid)) for pid in self.new_children()]
        for pid, _ in left:
            os.kill(pid, signal.SIGKILL)
            wait_gone(pid)
        if left:
            self.fail(f"processes outlived the test: {left}")

    def new_children(self):
        return set(children()) - self.children_before

    def assert_error(self, result, text):
        """Checks that the command failed with exactly this message."""
        self.assertEqual(("quarn2_cp: " + text + "\n", "", 1),
                         (result.stderr, result.stdout, result.returncode))

    def assert_success(self, result):
        self.assertEqual(("", 0), (result.stderr, result.returncode))
