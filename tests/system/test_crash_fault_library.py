"""Checks that the fault library (tests/support/fault_points.h) wraps every changing call of the program."""

import ctypes
import errno
import os
import re
import shutil
import signal
import subprocess
import sys
import unittest

from faults import CHANGES, KINDS, LIBRARY, ROLES, Fault, FaultControl
from install_root import BINARY
from samples import Backup, DATE
from system_test import SystemTest

# For each kind of call, Python expressions that make one such call with ctypes. Each runs in its own process.
CALLS = {
    "open": ["c.open64(b'new', os.O_CREAT | os.O_WRONLY, 0o600)", "c.openat(-100, b'n2', 0o101, 0o600)",
             "c.fopen(b'n3', b'w')", "c.creat(b'n4', 0o600)"],
    "write": ["c.write(fd, b'x' * 10, 10)", "c.pwrite64(fd, b'x', 1, 0)", "c.writev(fd, None, 0)",
              "c.copy_file_range(fd, None, fd, None, 0, 0)", "c.sendfile(fd, fd, None, 0)"],
    "allocate": ["c.ftruncate(fd, 5)", "c.truncate64(b'old', 5)", "c.fallocate(fd, 0, 0, 5)"],
    "rename": ["c.rename(b'old', b'renamed')", "c.renameat2(-100, b'renamed', -100, b'old', 0)"],
    "unlink": ["c.unlink(b'no')", "c.unlinkat(-100, b'no', 0)", "c.remove(b'no')", "c.rmdir(b'no')"],
    "mkdir": ["c.mkdir(b'd', 0o700)", "c.mkdirat(-100, b'e', 0o700)"],
    "link": ["c.link(b'old', b'second')", "c.symlink(b'old', b'third')"],
    "sync": ["c.fsync(fd)", "c.fdatasync(fd)", "c.syncfs(fd)"],
    "send": ["c.write(pipe[1], b'x', 1)", "c.send(pipe[1], b'x', 1, 0)"],
    "connect": ["c.connect(fd, None, 0)", "c.bind(fd, None, 0)"],
    "lock": ["c.flock(fd, 6)", "c.fcntl(fd, 6, ctypes.create_string_buffer(64))"],
    "fork": ["c.execve(b'/no', None, None)", "c.fork() or os._exit(0)"],
    "attributes": ["c.chmod(b'old', 0o600)", "c.fchmod(fd, 0o600)", "c.fchown(fd, -1, -1)"],
    "read": ["c.pread64(fd, buffer, 1, 0)", "c.read(fd, buffer, 1)"],
    "receive": ["c.write(pipe[1], b'x', 1) and c.read(pipe[0], buffer, 1)"],
    "descriptor": ["c.open64(b'old', os.O_RDONLY)", "c.socket(1, 1, 0)", "c.fcntl(fd, 1030, 3)"],
}
PROGRAM = """
import ctypes, mmap, os, sys
c = ctypes.CDLL(None)
buffer = ctypes.create_string_buffer(64)
fd = os.open("old", os.O_CREAT | os.O_RDWR, 0o600)
pipe = os.pipe()
call = compile(sys.argv[1], "call", "eval")
control = mmap.mmap(os.open(os.environ["QUARN2_FAULT_FILE"], os.O_RDWR), 0)
control[20:24] = b"\\x01\\0\\0\\0"
result = eval(call)
control[20:24] = bytes(4)
os._exit(int(result == -1))
"""

# The C library's functions that change something outside of the process, with all variants of their names.
CHANGING = re.compile(
    r"(__)?(open|openat|creat|p?writev?2?|copy_file_range|sendfile|splice|fallocate|posix_fallocate|f?truncate"
    r"|rename|renameat2?|unlink(at)?|remove|rmdir|mkdir(at)?|mk[nod]*s?temps?|mkdtemp|mknod(at)?|mkfifo(at)?"
    r"|link(at)?|symlink(at)?|fsync|fdatasync|syncfs|sync|msync|send(to|msg|mmsg)?|bind|connect|flock|lockf"
    r"|v?fork|posix_spawnp?|exec[lv]p?e?|fexecve|f?l?chmod(at)?|f?l?chown(at)?|utimes?|utimensat|futimens"
    r"|f?l?setxattr|f?l?removexattr|fopen|freopen|fcntl|ioctl)(64)?(_2|_chk)?")


class FaultLibrary(SystemTest):
    def setUp(self):
        super().setUp()
        self.assertTrue(os.path.exists(LIBRARY), "QUARN2_FAULT_POINTS names no library")
        self.fault_control = FaultControl(os.path.join(self.folder, "faults"))
        self.addCleanup(self.fault_control.close)
        self.number = 0

    def call(self, text, fault):
        """Makes the call once in a new process; returns its exit status."""
        self.number += 1
        folder = os.path.join(self.folder, str(self.number))
        os.mkdir(folder)
        self.fault_control.write(fault, ())
        return subprocess.run([sys.executable, "-B", "-S", "-c", PROGRAM, text], cwd=folder, check=False,
                              env={**os.environ, **self.fault_control.environment()}).returncode

    def test_every_kind_is_counted_and_can_get_a_fault(self):
        self.assertEqual(sorted(KINDS), sorted(CALLS))
        for kind, texts in CALLS.items():
            for text in texts:
                with self.subTest(call=text):
                    self.call(text, Fault(kinds=(kind,)))
                    self.assertEqual(1, self.fault_control.count, self.fault_control.points())
                    self.assertIn(self.fault_control.point(1).split()[1], text)
                    self.call(text, Fault("kill_before", 1, kinds=[other for other in KINDS
                                                                   if other not in (kind, "send")]))
                    self.assertEqual(0, self.fault_control.count, self.fault_control.points())
        for kind, texts in CALLS.items():
            status = self.call(texts[0], Fault("kill_before", 1, kinds=(kind,)))
            self.assertEqual((-signal.SIGKILL, 1), (status, self.fault_control.injected), kind)

    def test_a_call_fails_with_the_error_or_transfers_half(self):
        text = "c.write(fd, b'x' * 10, 10) == 5 and -1"
        self.assertEqual(1, self.call(text, Fault("short", 1, kinds=("write",))))
        text = "-1 if c.write(fd, b'x', 1) == -1 and c.fsync(fd) == 0 else 0"
        self.assertEqual(1, self.call(text, Fault("fail", 1, errno.ENOSPC, ("write", "sync"))))
        text = "-1 if c.write(fd, b'x', 1) == -1 and c.fsync(fd) == -1 else 0"
        self.assertEqual(1, self.call(text, Fault("fail", 1, errno.ENOSPC, ("write", "sync"), True)))

    def test_a_torn_write_ends_at_a_page(self):
        text = "c.write(fd, b'x' * 10000, 10000)"
        self.assertEqual(-signal.SIGKILL, self.call(text, Fault("torn", 1, kinds=("write",))))
        self.assertEqual(8192, os.path.getsize(os.path.join(self.folder, str(self.number), "old")))


class ProgramWithFaultLibrary(SystemTest):
    def test_the_library_wraps_every_changing_call_of_the_program(self):
        imported = re.findall(r"\bU (\w+)@", subprocess.run(
            ["nm", "-D", BINARY], stdout=subprocess.PIPE, check=True, text=True).stdout)
        changing = sorted(name for name in imported if CHANGING.fullmatch(name))
        self.assertIn("rename", changing)
        library = ctypes.CDLL(LIBRARY)._handle
        known = subprocess.run(["nm", "-D", "--defined-only", LIBRARY], stdout=subprocess.PIPE,
                               check=True, text=True).stdout
        self.assertTrue(library)
        self.assertEqual([], [name for name in changing if f" T {name}\n" not in known])

    @unittest.skipUnless(shutil.which("strace"), "strace is not installed")
    def test_the_kernel_sees_no_change_that_was_not_counted(self):
        """During a deletion, strace reports exactly the calls that change files and that the library counts."""
        root = self.root()
        fault_control = FaultControl(os.path.join(self.folder, "faults"))
        self.addCleanup(fault_control.close)
        kinds = ("unlink", "rename", "sync", "mkdir", "attributes", "lock")
        fault_control.write(Fault(kinds=kinds), ROLES)
        backup = Backup(root, "web1", DATE, slices=3)
        trace = os.path.join(self.folder, "trace")
        calls = "unlink,unlinkat,rmdir,rename,renameat,renameat2,fsync,fdatasync,mkdir,mkdirat,chmod," \
                "fchmod,fchmodat,chown,fchown,flock"
        result = root.run("--delete", backup.info_path, env=fault_control.environment(),
                          wrapper=("strace", "-f", "-q", "-o", trace, "-e", "trace=" + calls))
        if "ptrace" in result.stderr:
            self.skipTest(result.stderr)
        self.assert_success(result)
        with open(trace, encoding="utf-8", errors="replace") as lines:
            seen = [line.split()[1].split("(")[0] for line in lines
                    if re.match(r"\d+ +\w+\(", line)]
        self.assertEqual([point.split()[1] for point in fault_control.points()], seen)

    def test_the_roles_of_a_servers_processes_are_distinguished(self):
        """The library assigns a separate role to each process of a server."""
        import crash_scenes
        fault_control = FaultControl(os.path.join(self.folder, "faults"))
        self.addCleanup(fault_control.close)
        scene = crash_scenes.PutLast(self, fault_control)
        scene.armed = 0
        scene.roles = ROLES
        self.assertTrue(scene.act(Fault(kinds=CHANGES)), scene.failed)
        self.assertEqual({"command", "client", "daemon"},
                         {point.split()[0] for point in fault_control.points()} - {"caller"})
        scene = crash_scenes.StartAndEnd(self, fault_control)
        self.assertTrue(scene.act(Fault(kinds=CHANGES)), scene.failed)
        self.assertEqual({"caller", "between", "daemon", "starter"},
                         {point.split()[0] for point in fault_control.points()})


if __name__ == "__main__":
    unittest.main()
