"""Failing downloads, with a second and a third attempt. The test ends the pauses between the attempts."""

import os
import subprocess
import unittest

from install_root import ENDED_PAUSES
from local_files import read, tree, write
from system_test import SystemTest
from waiting import DEADLINE


NAME = "F2026-11-20.web1.1.dar"


class Retry(SystemTest):
    def failing_get(self, name):
        """Starts a --get of a file that the storage lists and cannot read."""
        root = self.root(name, program=ENDED_PAUSES)
        root.log_level = 6
        obstacle = os.path.join(root.storage, NAME)
        os.symlink("/nowhere", obstacle)
        place = os.path.join(root.base, "restore")
        previous = write(os.path.join(place, "previous"), "the slice before")
        tmp_file = write(os.path.join(root.base, "fetched"), previous)
        process = root.spawn("--get", "--tmp-file", tmp_file, place + "//" + NAME,
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE)
        self.addCleanup(process.kill)
        return root, process, obstacle, place, tmp_file

    def test_three_attempts_with_pauses(self):
        mended, mended_get, obstacle, mended_place, mended_tmp = self.failing_get("mended")
        failing, failing_get, _, failing_place, failing_tmp = self.failing_get("failing")
        for root in (mended, failing):
            root.wait_log("Wait 60 seconds before next attempt", level=6)
        os.remove(obstacle)
        write(obstacle, "0123456789")
        self.assertEqual([None, None], [get.poll() for get in (mended_get, failing_get)])
        self.check_attempts(mended, 1)

        mended.end_pauses()
        out, err = mended_get.communicate(timeout=DEADLINE)
        self.assertEqual((0, b"", b""), (mended_get.returncode, out, err))
        self.assertEqual(b"0123456789", read(os.path.join(mended_place, NAME)))
        self.assertEqual([NAME], tree(mended_place))
        self.assertEqual(os.path.join(mended_place, NAME).encode(), read(mended_tmp))
        self.check_attempts(mended, 1)

        self.check_attempts(failing, 1)
        failing.end_pauses()
        out, err = failing_get.communicate(timeout=DEADLINE)
        self.assertEqual(2, failing.log_texts(6).count("Wait 60 seconds before next attempt"))
        self.assertEqual((1, b""), (failing_get.returncode, out))
        self.assertRegex(err.decode(), rf"\Aquarn2_cp: \S.*{NAME}.*\n\Z")
        self.check_attempts(failing, 3)
        self.assertEqual([NAME + ".attempts"], tree(failing_place))
        self.assertEqual(1, read(os.path.join(failing_place, NAME + ".attempts")).count(b"\n"))
        self.assertEqual(os.path.join(failing_place, "previous").encode(), read(failing_tmp))

    def check_attempts(self, root, count):
        lines = root.log(4)
        for number, line in enumerate(lines, 1):
            self.assertRegex(line.text, rf"\AFailed download : {NAME}\. What: .+\. "
                                        rf"Attempt: {number} of 3\Z")
        self.assertEqual(count, len(lines))


if __name__ == "__main__":
    unittest.main()
