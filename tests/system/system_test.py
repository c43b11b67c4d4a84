"""The base class of the system tests."""

import os
import shutil
import signal
import tempfile
import time
import unittest

from install_root import BINARY, Root
from processes import adopt_orphans, children, command_line, wait_gone
from waiting import DEADLINE


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
        # Ignores processes that existed before the test: a server that the whole class shares may have children.
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
