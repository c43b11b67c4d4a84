"""Backup jobs as a script runs them, for tests of interrupted and incomplete backups."""

import os
import signal
import subprocess

from local_files import read, write
from processes import wait_gone
from samples import day, info_text
from server_command import Server
from system_test import SystemTest
from waiting import wait_for

DATE = "2026-11-20"
NIGHTS = [day(offset) for offset in range(3)]


def tmpfs(test, folder, size):
    """Mounts a small file system on the folder until the test ends."""
    os.makedirs(folder, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=700", "tmpfs", folder], check=True)
    test.addCleanup(subprocess.run, ["umount", "-l", folder], check=True)


def fill(folder):
    """Fills the file system of the folder. Returns the path of the file that uses the space."""
    path = os.path.join(folder, "fill")
    try:
        with open(path, "wb", buffering=0) as file:
            while True:
                file.write(b"x" * 4096)
    except OSError:
        return path


class BackupJob:
    """One run of a backup job, as a script does it: puts the slices, then the index as the last file."""

    def __init__(self, root, user="web1", date=DATE, kind="full", slices=2, size=1000, in_info_root=False):
        self.root, self.user, self.date, self.kind = root, user, date, kind
        self.letter = {"full": "F", "incremental": "I", "custom": "C"}[kind]
        self.slices, self.size = slices, size
        self.stem = f"custom.{user}" if kind == "custom" else f"{date}.{user}"
        self.folder = os.path.join(root.work, f"{self.letter}{date}.{user}")
        self.info = os.path.join(root.info_root if in_info_root else self.folder,
                                 f"{self.stem}.info" if in_info_root else "job")

    def begin(self):
        write(self.info, info_text({"type": self.kind, "created": f"{self.date} 00:00:00"}))
        return self

    def name(self, number):
        return f"{self.letter}{self.date}.{self.user}.{number}.dar"

    def put(self, name, *options, data=None, **more):
        path = write(os.path.join(self.folder, name), os.urandom(self.size) if data is None else data)
        return self.root.run("--put", path, "--info-file", self.info, *options, **more)

    def slice(self, number, **more):
        return self.put(self.name(number), "--operation", **more)

    def last(self, **more):
        path = write(os.path.join(self.root.info_root, f"{self.stem}.1.dar"), b"index")
        return self.root.run("--put", path, "--info-file", self.info, "--isolated", "--no-delete", **more)

    def run(self):
        self.begin()
        for number in range(1, self.slices + 1):
            self.root.test.assert_success(self.slice(number))
        self.root.test.assert_success(self.last())
        return self

    def names(self):
        return {self.name(number) for number in range(1, self.slices + 1)} | {f"{self.stem}.info"}

    def is_stored(self):
        return self.names() <= set(self.root.stored())


class IncompleteTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()
        self.r.test = self
        self.servers = 0

    def serve(self, *arguments, date=DATE, **more):
        server = Server(self.r, "--date", date, *arguments, **more).wait_ready()
        self.servers += 1
        self.r.wait_log(f"Client. Backup token = '{self.r.token}'", count=self.servers)
        return server

    def night(self, *arguments, **more):
        return BackupJob(self.r, *arguments, **more)

    def wait_uploaded(self, job, number):
        """Waits until the slice is uploaded and its local file is removed. The ledger entry contains the slice
        earlier, so the ledger is not enough."""
        name = job.name(number)
        entry = self.r.file(f"var/quarn2_cp.ledger/{name.split('.')[0]}.{job.user}")
        wait_for(lambda: f"stored {job.size} {name}" in read(entry).decode(), f"the upload of {name}")
        wait_for(lambda: not os.path.exists(os.path.join(job.folder, name)), f"the removal of the local {name}")

    def assert_fails(self, result, *texts):
        self.assertEqual(1, result.returncode, result)
        for text in texts:
            self.assertIn(text, result.stderr)

    def die(self, server):
        """Kills the node client and the daemon; their files stay."""
        for pid in (server.node_client(), server.daemon):
            os.kill(pid, signal.SIGKILL)
            wait_gone(pid)
        server.release()
