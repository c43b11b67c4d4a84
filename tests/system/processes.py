"""Starts and reaps processes, and reads their state from /proc."""

import ctypes
import fcntl
import os
import struct
import subprocess
import threading

from waiting import wait_for

PR_SET_CHILD_SUBREAPER = 36

_own = {}  # pid -> Popen of every process started here
_statuses = {}  # pid -> exit status of adopted processes
_reap_lock = threading.Lock()
# Prevents a fork while an executable is being written. Otherwise the child inherits the open file until its
# exec, and the start of an executable that is open for writing fails.
fork_lock = threading.Lock()


def start(arguments, **options):
    with fork_lock:
        process = subprocess.Popen(arguments, **options)
        # After thousands of starts, a new daemon may get the pid of an ended process, so ended processes are removed.
        for pid in [pid for pid, old in list(_own.items()) if old.poll() is not None]:
            del _own[pid]
        _own[process.pid] = process
    return process


def forget_started():
    """Forgets the processes that start() has started, because the caller has reaped all children itself."""
    _own.clear()


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


def has_ended(pid):
    own = _own.get(pid)
    if own:
        return own.poll() is not None
    stat = stat_of(pid)
    ended = stat is None or stat[0] in "ZX"
    # Reads the state first and reaps afterwards. The other order would miss a process that ends between the two steps.
    # A process whose main thread has ended looks like a zombie while its other threads run. It cannot be reaped yet.
    return ended and reap(pid)


def wait_gone(pid, timeout=None):
    """Waits until the process has ended. Returns its exit status if reap() collected it, else None."""
    wait_for(lambda: has_ended(pid), f"the end of process {pid}", timeout)
    return _statuses.get(pid)


def children(parent=None):
    """Returns the pids of the running children of a process, by default of this process."""
    pids = own_children() if parent is None else children_by_scan(parent)
    return [pid for pid in pids if not has_ended(pid)]


def own_children():
    """Returns the pids in the kernel's list of this process's children. The kernel's list for another process is
    unreliable: it can lack a child while other children end."""
    try:
        pids = []
        for task in os.listdir("/proc/self/task"):
            with open(f"/proc/self/task/{task}/children", encoding="ascii") as listed:
                pids += map(int, listed.read().split())
        return pids
    except FileNotFoundError:  # a thread has ended, or the kernel provides no list of children
        return children_by_scan(os.getpid())


def children_by_scan(parent):
    pids = [int(name) for name in os.listdir("/proc") if name.isdigit()]
    return [pid for pid in pids if (stat_of(pid) or ("", None))[1] == parent]


def is_listening(pid):
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
