"""Uploads that the storage refuses: a full file system, evictions, abandoned uploads."""

import os
import re
import shutil
import subprocess
import unittest

from master_link import ScriptedServer, control
from local_files import read, tree, write
from processes import stat_of
from samples import chain, day, info_text, left
from server_command import Server
from system_test import SystemTest
from waiting import wait_for

MIB = 1 << 20


class FullStorageTest(SystemTest):
    """A storage on its own small file system; needs the right to mount one."""

    def setUp(self):
        super().setUp()
        self.root_ = self.root()
        result = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs",
                                 self.root_.storage], capture_output=True, text=True, check=False)
        if result.returncode != 0:
            self.fail("this test mounts a tmpfs and so must run as root: " + result.stderr)
        self.addCleanup(subprocess.run, ["umount", "-l", self.root_.storage], check=True)

    def source(self, name, size=2 * MIB):
        path = os.path.join(self.root_.work, name)
        return write(path, os.urandom(1024) * (size // 1024))


class Refused(FullStorageTest):
    def test_dropone_counts_down_to_zero_and_the_third_refusal_ends_the_upload(self):
        root = self.root_
        server = ScriptedServer(root)
        path = self.source("F2026-11-20.web1.tgz")
        call = server.reserved_call("PUT " + path + " DELETE", 2 * MIB, count=2)
        self.assertEqual(f"OK F2026-11-20.web1.tgz {2 * MIB}", call.answer())
        server.expect("DROPONE 1", "OK")
        server.expect("DROPONE 0", "OK")
        root.wait_log("Upload failed", level=3, pid=server.pid)
        self.assertTrue(server.is_silent())
        # The source is kept, and the storage has no part of the file.
        self.assertEqual((["F2026-11-20.web1.tgz"], []), (tree(root.work), root.stored()))

        # The node client remembers the failure: the backup's next command fails after its reservation.
        call = server.reserved_call("PUT " + self.source("F2026-11-20.web1.tgz", 1024), 1024)
        self.assertEqual("", call.answer())
        self.assertEqual((0, ""), server.end())

    def test_without_backups_to_drop_the_first_refusal_ends_the_upload(self):
        server = ScriptedServer(self.root_)
        path = self.source("F2026-11-20.web1.tgz")
        self.assertRegex(server.reserved_call("PUT " + path, 2 * MIB, count=0).answer(), "OK")
        self.root_.wait_log("Upload failed", level=3, pid=server.pid)
        self.assertTrue(server.is_silent(0.1))

    def test_an_upload_continues_after_the_server_has_made_space(self):
        root = self.root_
        write(os.path.join(root.storage, "old"), b"x" * (900 * 1024))
        server = ScriptedServer(root)
        path = self.source("F2026-11-20.web1.tgz", 512 * 1024)
        call = server.reserved_call("PUT " + path + " DELETE", 512 * 1024, count=5)
        self.assertRegex(call.answer(), r"\AOK ")
        server.expect("DROPONE 4")
        os.unlink(os.path.join(root.storage, "old"))
        server.answer("OK")
        wait_for(lambda: not os.path.exists(path), "the end of the upload")
        self.assertEqual(["F2026-11-20.web1.tgz"], root.stored())
        self.assertEqual(512 * 1024,
                         os.path.getsize(os.path.join(root.storage, "F2026-11-20.web1.tgz")))

    def test_a_refused_dropone_releases_the_reservation_and_abandons_the_upload(self):
        root = self.root_
        server = ScriptedServer(root)
        path = self.source("F2026-11-20.web1.tgz")
        call = server.reserved_call("PUT " + path, 2 * MIB, count=3)
        self.assertRegex(call.answer(), r"\AOK ")
        server.expect("DROPONE 2", "ERR Upload failed and limit is set")
        server.expect(f"RELEASE {2 * MIB}", "OK")
        wait_for(lambda: "F2026-11-20.web1.tgz" not in tree(root.work), "the file's removal")
        self.assertEqual(["F2026-11-20.web1.tgz.attempts"], tree(root.work))
        attempts = read(path + ".attempts").decode()
        self.assertTrue(re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d.*\n", attempts), attempts)
        # After a failure of this kind, the next command of the backup succeeds.
        call = server.reserved_call("PUT " + self.source("F2026-11-20.web1.tgz", 1024), 1024)
        self.assertEqual("OK F2026-11-20.web1.tgz 1024", call.answer())
        self.assertEqual((0, ""), server.end())
        self.assertEqual(["F2026-11-20.web1.tgz"], root.stored())

    def test_a_release_sends_the_size_of_the_latest_put(self):
        root = self.root_
        server = ScriptedServer(root)
        first = self.source("F2026-11-20.web1.tgz")
        self.assertRegex(server.reserved_call("PUT " + first, 2 * MIB, count=3).answer(), "OK")
        server.expect("DROPONE 2")
        # The scripted server has not answered DROPONE yet, so the next reservation waits for the link.
        second = server.call("PUT " + self.source("F2026-11-20.web2.tgz", 4096))
        root.wait_log("quarn2::Expect::Result* NodeSide::operator()(ResHandle)", pid=server.pid, count=2)
        wait_for(lambda: stat_of(server.pid)[0] == "S", "the command's wait for the link")
        self.assertFalse(second.has_answer(0.1))
        server.answer("ERR no")
        lines = [server.stream.line()]
        server.answer("OK 3" if lines[0].startswith("RESERVE") else "OK")
        lines.append(server.stream.line())
        server.answer("OK 3" if lines[1].startswith("RESERVE") else "OK")
        self.assertEqual(["RELEASE 4096", "RESERVE 4096"], sorted(lines))
        self.assertEqual("OK F2026-11-20.web2.tgz 4096", second.answer())

    def test_putlast_on_a_full_storage_fails_the_command(self):
        root = self.root_
        server = ScriptedServer(root)
        path = self.source("F2026-11-20.web1.tgz")
        call = server.reserved_call("PUTLAST " + path + " DELETE", 2 * MIB, count=1)
        server.expect("DROPONE 0", "OK")
        self.assertEqual("", call.answer())
        self.assertEqual(["Upload failed"], root.log_texts(3, server.pid))
        self.assertTrue(os.path.exists(path))
        self.assertEqual("OK", control(root, "STAT"))

    def test_a_small_file_still_fits_beside_a_refused_one(self):
        root = self.root_
        server = ScriptedServer(root)
        big = server.reserved_call("PUT " + self.source("F2026-11-20.web1.tgz"), 2 * MIB)
        self.assertRegex(big.answer(), r"\AOK ")
        root.wait_log("Upload failed", level=3, pid=server.pid)
        small = server.reserved_call("PUTLAST " + self.source("F2026-11-20.web2.tgz", 1024), 1024)
        self.assertEqual("OK F2026-11-20.web2.tgz 1024", small.answer())
        self.assertEqual(["F2026-11-20.web2.tgz"], root.stored())


class ServerMakesRoom(FullStorageTest):
    def test_a_server_without_a_limit_drops_old_backups_until_the_upload_fits(self):
        root = self.root_
        data = b"x" * (90 * 1024)
        backups = chain(root, "web1", "FFF", data=data)
        self.assertLess(shutil.disk_usage(root.storage).free, 256 * 1024)
        server = Server(root, "--date", "2026-11-20").wait_ready()
        info = write(os.path.join(root.work, "job.info"),
                     info_text({"created": "2026-11-20 00:00:00", "type": "full"}))
        path = self.source("F2026-11-20.web2.tgz", 640 * 1024)
        self.assert_success(root.run("--put", path, "--info-file", info, "--last_slice"))
        wait_for(lambda: not os.path.exists(path), "the end of the upload")
        self.assertEqual([day(0)], left(backups))
        self.assertIn("F2026-11-20.web2.tgz", root.stored())
        self.assertEqual(0, server.end())

    def test_an_upload_that_wants_room_while_its_server_ends_keeps_its_file(self):
        root = self.root_
        chain(root, "web1", "FFF")
        # The upload is slow, so that the server ends before the storage is full.
        root.token += "?limit_rate=500000"
        server = Server(root, "--date", "2026-11-20").wait_ready()
        path = self.source("F2026-11-20.web2.tgz")
        self.assert_success(root.run("--put", path, "--no-delete"))
        self.assertEqual(0, server.end())
        self.assertEqual(["F2026-11-20.web2.tgz"], tree(root.work))
        self.assertEqual([], [name for name in root.stored() if "web2" in name])


if __name__ == "__main__":
    unittest.main()
