"""Runs the installed program with a storage, and injects failures into both. checks.py checks the results."""

import os
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../system"))

from disks import Disk, prepare as prepare_disks  # noqa: E402
from faults import Fault, FaultControl  # noqa: E402
from install_root import Root  # noqa: E402
from local_files import write  # noqa: E402
from processes import (adopt_orphans, children, command_line, has_ended, stat_of,  # noqa: E402
                       write_lock_holder)
from waiting import wait_for  # noqa: E402

CLOCK_AHEAD = os.environ.get("QUARN2_CLOCK_AHEAD")


def prepare():
    """Prepares this process. Must be called before the first World is created."""
    adopt_orphans()
    prepare_disks()


class Violation(Exception):
    """Raised when the program breaks a promise. `kind` is the name of the promise in docs/reliability/scenarios.md."""

    def __init__(self, kind, text):
        super().__init__(f"{kind}: {text}")
        self.kind = kind


class Folder:
    """Provides the folder and the methods that Root expects of a test case."""

    def __init__(self):
        base = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.folder = tempfile.mkdtemp(prefix="scenario-", dir=base)

    def addCleanup(self, *_):  # a method name of unittest
        pass

    def remove(self):
        shutil.rmtree(self.folder)


class World:
    """A simulated machine with its storage and its server."""

    # Seconds after which a command counts as blocked. The program's own pauses are shortened.
    patience = 30

    def __init__(self):
        self.place = Folder()
        self.root = Root(self.place)
        self.root.log_level = 8
        self.fault_control = FaultControl(os.path.join(self.place.folder, "faults"))
        self.make_disks()
        self.away = self.storage + ".away"
        self.other = os.path.join(self.root.base, "other")
        os.makedirs(self.other)
        write(os.path.join(self.root.base, "outside/file"), "not the program's")
        self.server = None  # the --server process that keeps the server running
        self.password = None  # arch_password of commands and servers that start from now on
        self.uploads_with = None  # arch_password of the running server's node client
        self.is_ahead = False  # True: new processes have a clock that is two days ahead
        self.daemon = None
        self.limits = None  # (size, fulls, dailies, date) of the running server
        self.log_at = 0
        self.settle_all()

    def make_disks(self):
        base = self.root.base
        os.rmdir(self.root.storage)
        self.disks = {"storage": Disk(os.path.join(base, "disk"), 4),
                      "var": Disk(self.root.file("var"), 16), "tmp": Disk(self.root.file("tmp"), 1)}
        self.storage = self.root.storage = os.path.join(base, "disk/storage")
        self.root.token = "local://" + self.storage
        for folder in (self.storage, self.root.info_root):
            os.makedirs(folder, exist_ok=True)
        for name, mode in (("var", 0o750), ("tmp", 0o700)):
            os.chmod(self.root.file(name), mode)

    def close(self):
        try:
            self.end_server(force=True)
        finally:
            self.fault_control.close()
            if os.environ.get("QUARN2_SCENARIO_KEEP"):
                kept = shutil.copytree(self.root.base, self.place.folder + ".kept", symlinks=True,
                                       ignore=shutil.ignore_patterns("*.sock", "filler"))
                print(f"kept: {kept}")
            for disk in self.disks.values():
                disk.close()
            self.place.remove()

    # --- Commands ---

    def environment(self, token=None):
        changes = dict(self.fault_control.environment())
        if self.is_ahead and CLOCK_AHEAD:
            changes["LD_PRELOAD"] = f"{CLOCK_AHEAD}:{changes['LD_PRELOAD']}"
        if self.password:
            changes["BACKUP_TOKEN"] = f"{self.root.token}?arch_password={self.password}"
        if token == "other":
            changes["BACKUP_TOKEN"] = "local://" + self.other
        elif token == "bad":
            changes["BACKUP_TOKEN"] = "locl:/" + self.storage
        return changes

    def run(self, *arguments, token=None):
        """Runs a command. Returns (exit status, standard error). Raises Violation when the command blocks."""
        process = self.root.spawn(*arguments, env=self.environment(token), stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        try:
            _, errors = process.communicate(timeout=self.patience)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise Violation("blocked", f"{arguments} does not end") from None
        return process.returncode, errors.decode(errors="replace").strip()

    def arm(self, fault):
        if fault:
            self.fault_control.write(
                Fault(fault["action"], fault["number"], fault.get("error", 0),
                      lasting=fault.get("lasting", False)), (fault["role"],))

    def disarm(self):
        """Ends the fault injection. Returns whether a fault was injected."""
        injected = self.fault_control.injected > 0
        self.fault_control.write(Fault(), ())
        return injected

    # --- The server ---

    def start_server(self, step):
        """Starts a server. Returns whether the server is ready."""
        self.uploads_with = self.password
        arguments = ["--date", step["date"], "--size-limit", str(step["size"]),
                     "--count-limit", step["count"]]
        if step.get("rescan"):
            arguments.append("--rescan")
        self.server = self.root.spawn("--server", *arguments, env=self.environment(step.get("token")),
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE)
        ready, _, _ = select.select([self.server.stdout], [], [], self.patience)
        if not ready:
            raise Violation("blocked", f"--server {arguments} is neither ready nor ended")
        try:
            self.server.wait(0.01)
        except subprocess.TimeoutExpired:
            self.daemon = self.daemon_pid()
            full, _, daily = step["count"].partition(":")
            self.limits = (step["size"], int(full), int(daily or 0), step["date"])
            if self.daemon is not None:
                return True
        self.release_server()
        return False

    def daemon_pid(self):
        path = self.root.file("var/quarn2_cp.pid")
        try:
            return write_lock_holder(path) or None
        except FileNotFoundError:
            return None

    def release_server(self):
        """Releases the server and waits until no process is left. Returns the --server command's standard error."""
        errors = b""
        if self.server is not None:
            try:
                _, errors = self.server.communicate(timeout=self.patience)
            except subprocess.TimeoutExpired:
                raise Violation("blocked", "--server does not end after its release") from None
        self.server = None
        self.daemon = None
        self.limits = None
        self.settle_all()
        return errors.decode(errors="replace")

    def end_server(self, force=False):
        if force:
            for pid in children():
                self.signal(pid)
            self.disarm()
        self.release_server()

    def serves(self):
        return self.daemon is not None and not has_ended(self.daemon)

    def client(self):
        return (children(self.daemon) or [None])[0] if self.serves() else None

    @staticmethod
    def signal(pid):
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def kill(self, who):
        pid = self.kill_only(who)
        if pid:
            wait_for(lambda: stat_of(pid) is None or stat_of(pid)[0] in "ZX",
                     "the end of a killed process", self.patience)
            if who != "client":
                has_ended(pid)
        self.settle()

    def kill_only(self, who):
        """Sends SIGKILL without waiting. Returns the pid, or None when there is no such process."""
        if who == "daemon":
            pid = self.daemon if self.serves() else None
        elif who == "caller":
            pid = self.server.pid if self.server and self.server.poll() is None else None
        else:
            pid = self.client()
        if pid:
            self.signal(pid)
        return pid

    # --- Waiting ---

    def wait_client(self):
        """If a server runs, waits until its node client accepts commands."""
        end = time.monotonic() + self.patience
        while self.serves() and not self.can_connect():
            if time.monotonic() > end:
                raise Violation("blocked", "no node client takes commands")
            time.sleep(0.002)

    def can_connect(self):
        with socket.socket(socket.AF_UNIX) as peer:
            try:
                peer.connect(self.root.file("tmp/quarn2_cp.sock"))
                return True
            except OSError:
                return False

    def ask_client(self):
        """Sends an empty command to the node client and waits for the answer. The client answers only after it has
        ended the previous command, even if the process of that command was killed."""
        end = time.monotonic() + 1
        while time.monotonic() < end and self.serves():
            with socket.socket(socket.AF_UNIX) as peer:
                peer.settimeout(self.patience)
                try:
                    peer.connect(self.root.file("tmp/quarn2_cp.sock"))
                    peer.shutdown(socket.SHUT_WR)
                    if peer.recv(16):
                        return
                except socket.timeout:
                    raise Violation("blocked", "the node client does not answer") from None
                except OSError:
                    pass
            time.sleep(0.005)

    def settle(self):
        """Waits until no command and no upload runs. If the server was killed, waits for its node client to end."""
        if self.server and self.server.poll() is not None:
            self.release_server()  # its --server process has ended, so the server ends too
        if not self.serves():
            self.daemon = None
            self.limits = None
            self.settle_all([self.server.pid] if self.server else [])
            return
        self.ask_client()
        end = time.monotonic() + self.patience
        lock = self.root.file("var/quarn2_cp.ledger/.lock")
        while os.path.exists(lock) and write_lock_holder(lock):
            if time.monotonic() > end:
                raise Violation("blocked", "an upload does not end")
            time.sleep(0.002)

    def settle_all(self, but=()):
        """Waits until all processes of the program have ended, except the pids in `but`."""
        end = time.monotonic() + self.patience
        while True:
            left = [pid for pid in children() if pid not in but]
            if not left:
                return
            if time.monotonic() > end:
                raise Violation("blocked", f"processes stay: {list(map(command_line, left))}")
            time.sleep(0.002)

    # --- The storage ---

    @property
    def main_storage(self):
        """The directory that contains the storage's files. unmount() renames it."""
        return self.away if os.path.isdir(self.away) else self.storage

    def unmount(self, how):
        if os.path.isdir(self.away):
            return
        os.rename(self.storage, self.away)
        if how == "empty":
            os.makedirs(self.storage)

    def mount(self):
        if os.path.isdir(self.away):
            shutil.rmtree(self.storage, ignore_errors=True)
            os.rename(self.away, self.storage)

    def used(self):
        """Returns the total size of the files on the storage in bytes, temporary files excluded."""
        total = 0
        for directory, _, names in os.walk(self.main_storage):
            for name in names:
                if not (name.startswith(".") and name.endswith(".part~")):
                    total += os.lstat(os.path.join(directory, name)).st_size
        return total

    # --- The log ---

    def new_log(self):
        """Returns the text that was logged since the previous call."""
        try:
            with open(self.root.file("var/quarn2_cp.log"), "rb") as log:
                log.seek(self.log_at)
                data = log.read()
        except FileNotFoundError:
            return ""
        self.log_at += len(data)
        return data.decode(errors="replace")


class RealTime(World):
    """A World with the program's own pauses. It injects no faults, because the library that would inject them also
    shortens the pauses."""

    patience = 300

    def environment(self, token=None):
        changes = super().environment(token)
        for name in self.fault_control.environment():
            del changes[name]
        return changes

    def arm(self, fault):
        pass
