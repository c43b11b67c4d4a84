"""The base class of the tests of quarn2_report and of the programs that use it."""

import json
import glob
import os
import shutil
import subprocess

from local_files import write
from processes import start
from samples import info_text
from system_test import SystemTest
from waiting import DEADLINE

REPORT = os.path.abspath(os.environ.get("QUARN2_REPORT", "build/report/quarn2_report"))
# The directory of quarn2_metrics, quarn2_page and their modules.
VIEWS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../report")
HOSTILE = [b"\x1b[2Jcrimson", b"<script>alert(1)", b"quote\"'\\", b"line\nfeed", b"\xff\xfe\xc3",
           "\u202erevers".encode(), b"n" * 200]


class ReportTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()
        self.binary = self.r.file("sbin/quarn2_report")
        shutil.copy2(REPORT, self.binary)

    def spawn(self, *arguments, **options):
        return start([self.binary, *arguments], cwd="/", env=self.r.environment(BACKUP_TOKEN=None), **options)

    def report(self, *arguments):
        """Returns exit status, standard output and standard error."""
        process = self.spawn(*arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, err = process.communicate(timeout=DEADLINE)
        return process.returncode, out.decode(), err.decode()

    def fine(self, *arguments):
        status, out, err = self.report(*arguments)
        self.assertEqual((0, ""), (status, err))
        return out

    def objects(self, *arguments, status=0):
        """Returns the JSON objects of the lines."""
        returned, out, err = self.report(*arguments, "--json")
        self.assertEqual(status, returned, err)
        return [json.loads(line) for line in out.splitlines()]

    def status(self, *arguments, status=0):
        found, = self.objects("--status", *arguments, status=status)
        return found

    def put(self, date, user, kind="full", slices=2, **fields):
        """Puts a backup as a job does. The slices are no real archives."""
        letter = "F" if kind == "full" else "I"
        paths = [write(os.path.join(self.r.work, f"{letter}{date}.{user}.{number}.dar"), b"x" * 1000 * number)
                 for number in range(1, slices + 1)]
        self.put_slices(date, user, paths, kind, **fields)

    def make_dar(self, date, user, letter="F", size=15_000):
        """Makes an archive with dar, with slices of 10 KiB. Returns the paths of the slices."""
        content = write(os.path.join(self.r.work, "content/noise"), os.urandom(size))
        base = os.path.join(self.r.work, f"{letter}{date}.{user}")
        subprocess.run(["dar", "-N", "-Q", "-q", "-c", base, "-R", os.path.dirname(content), "-s", "10k"],
                       check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return sorted(glob.glob(glob.escape(base) + ".*.dar"))

    def put_slices(self, date, user, paths, kind="full", **fields):
        """Puts these slices, an index and the info file as a job does."""
        info = write(os.path.join(self.r.work, f"{date}.{user}.info"),
                     info_text({"type": kind, "created": f"{date} 01:00:00", "node": "node7", **fields}))
        for path in paths:
            last = ["--last_slice"] if path == paths[-1] else []
            self.assert_success(self.r.run("--put", "--info-file", info, *last, path))
        index = write(os.path.join(self.r.info_root, f"{date}.{user}.1.dar"), b"index")
        self.assert_success(self.r.run("--put", "--info-file", info, "--isolated", "--no-delete", index))

    def stored_size(self, name):
        return os.path.getsize(os.path.join(self.r.storage, name))
