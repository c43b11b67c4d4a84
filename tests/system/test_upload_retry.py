"""Failing uploads, with a second and a third attempt. The test ends the pauses between the attempts."""

import os
import shutil
import unittest

from install_root import ENDED_PAUSES
from master_link import ScriptedServer
from local_files import read, tree, write
from system_test import SystemTest
from waiting import wait_for

NAME = "F2026-11-20.web1.tgz"


class Retry(SystemTest):
    def failing_upload(self, name):
        """Starts an upload that cannot succeed, because its storage name is a directory."""
        root = self.root(name, program=ENDED_PAUSES)
        obstacle = os.path.join(root.storage, NAME)
        os.makedirs(os.path.join(obstacle, "x"))
        server = ScriptedServer(root)
        path = write(os.path.join(root.work, NAME), "0123456789")
        call = server.reserved_call("PUT " + path + " DELETE", 10)
        self.assertEqual(f"OK {NAME} 10", call.answer())
        return root, server, obstacle

    def test_three_attempts_with_pauses(self):
        mended, mended_server, obstacle = self.failing_upload("mended")
        failing, failing_server, _ = self.failing_upload("failing")
        for root in (mended, failing):
            root.wait_log("Wait 60 seconds before next attempt", level=6)
        shutil.rmtree(obstacle)

        # The next commands of both backups wait for the results of the uploads.
        put = mended_server.reserved_call(
            "PUT " + write(os.path.join(mended.work, "F2026-11-20.web1.tgz.part2"), "x"), 1)
        # The node client reserves nothing for the info file before it has checked that the backup is complete.
        last = failing_server.call(
            "PUTLAST " + write(os.path.join(failing.work, "2026-11-20.web1.info"), "size=1"))
        self.assertFalse(put.has_answer(1) or last.has_answer())
        self.assertEqual([1, 1], [len(root.log(4)) for root in (mended, failing)])

        mended.end_pauses()
        wait_for(lambda: NAME in mended.stored(), "the second attempt")
        self.assertEqual("OK F2026-11-20.web1.tgz.part2 1", put.answer())
        self.assertEqual((0, ""), mended_server.end())
        self.assertEqual([NAME, "F2026-11-20.web1.tgz.part2"], mended.stored())
        self.assertEqual(b"0123456789", read(os.path.join(mended.storage, NAME)))
        self.assertEqual(["F2026-11-20.web1.tgz.part2"], tree(mended.work))
        self.assertEqual(1, len(mended.log(4)))

        failing.end_pauses()
        self.assertEqual("RELEASE 6", failing_server.stream.line())
        failing_server.answer("OK")
        self.assertEqual("", last.answer())
        self.check_three_attempts(failing, failing_server)

    def check_three_attempts(self, root, server):
        lines = root.log(4, server.pid)
        for number, line in enumerate(lines, 1):
            self.assertRegex(line.text, rf"\ACant upload: {NAME}\. What: .+\. "
                                        rf"Attempt: {number} of 3\Z")
        self.assertEqual(3, len(lines))
        self.assertEqual(2, root.log_texts(6).count("Wait 60 seconds before next attempt"))
        self.assertEqual(["Failed upload"], root.log_texts(3, server.pid))
        self.assertEqual(["2026-11-20.web1.info", NAME + ".attempts"], tree(root.work))
        self.assertEqual([], root.stored())
        self.assertEqual((0, ""), server.end())


if __name__ == "__main__":
    unittest.main()
