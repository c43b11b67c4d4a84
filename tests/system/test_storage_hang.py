"""Servers that hang for longer than `timeout`: commands fail in time and leave no partial files."""

import os
import signal
import subprocess
import time
import unittest

import storages
from local_files import read, tree, write
from system_test import SystemTest
from waiting import wait_for

MIB = 1 << 20
TIMEOUT = 3
GRACE = 40  # for a busy machine; the default timeout is 60
NAME = "F2026-11-20.web1.tgz"


class HangTest(SystemTest):
    server_name = ""
    server_options = {}
    make = None

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.server = storages.own_server(cls.addClassCleanup, cls.server_name, **cls.server_options)

    def setUp(self):
        super().setUp()
        self.storage = type(self).make(self, self.server.info)
        self.r = self.root()
        self.r.token = self.storage.token(timeout=TIMEOUT)
        self.source = write(os.path.join(self.r.work, NAME), os.urandom(MIB) * 12)
        for folder in (self.r.work, self.r.info_root):
            write(os.path.join(folder, "2026-11-20.web1.info"), f"last-slice={NAME}")
        self.target = os.path.join(self.r.base, "restored")
        self.assert_success(self.r.run("--update", self.source, env=self.patient()))
        self.addCleanup(self.resume)

    def halt(self):
        self.server.kill(signal.SIGSTOP)
        return time.monotonic()

    def resume(self):
        self.server.kill(signal.SIGCONT)

    def slow(self):
        """Returns a token with which a transfer takes some seconds."""
        return {"BACKUP_TOKEN": self.storage.token(timeout=TIMEOUT, limit_rate=2 * MIB,
                                                   **self.parts())}

    def parts(self):
        return {"part_size": 5 * MIB} if self.server_name == "s3" else {}

    def assert_fails_in_time(self, result, start, operations=1):
        self.assertLess(time.monotonic() - start, operations * TIMEOUT + GRACE)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertRegex(result.stderr, r"\Aquarn2_cp: \S.*\n\Z")
        for secret in self.storage.secrets():
            self.assertNotIn(secret, result.stderr)

    def assert_works_again(self):
        self.resume()
        write(self.source, b"new" * 1000)
        self.assert_success(self.r.run("--update", self.source, env=self.patient()))
        self.assertEqual([NAME], self.storage.names())
        self.assertEqual(read(self.source), self.storage.files()[NAME])
        self.assert_success(self.r.run("--get", f"{self.target}//{NAME}", env=self.patient()))
        self.assertEqual(read(self.source), read(os.path.join(self.target, NAME)))

    def patient(self):
        return {"BACKUP_TOKEN": self.storage.token(timeout=60)}

    def hang_before(self):
        local = self.r.local()
        for command, operations in ((("--update", self.source), 1),
                                    (("--get", f"{self.target}//{NAME}"), 2),
                                    (("--server", "--rescan"), 1)):
            with self.subTest(command=command[0]):
                start = self.halt()
                self.assert_fails_in_time(self.r.run(*command), start, operations)
        self.assertEqual(local, self.r.local())
        self.assertEqual([], tree(self.target))
        self.assert_works_again()

    def ends(self, process, start, operations):
        out, err = process.communicate(timeout=120)
        self.assert_fails_in_time(subprocess.CompletedProcess(
            process.args, process.returncode, out.decode(), err.decode()), start, operations)

    def started(self, *command):
        return self.r.spawn(*command, env=self.slow(), stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def hang_in_an_upload(self):
        self.storage.put(NAME, "old")
        process = self.started("--update", self.source)
        wait_for(lambda: set(self.storage.names()) - {NAME}, "a part of the upload")
        self.ends(process, self.halt(), 2)
        self.assertTrue(os.path.exists(self.source))
        self.assert_works_again()

    def hang_in_a_download(self):
        process = self.started("--get", f"{self.target}//{NAME}")
        wait_for(lambda: any(os.path.getsize(os.path.join(self.target, name))
                             for name in tree(self.target)), "a part of the download")
        self.ends(process, self.halt(), 2)
        self.assertEqual([], tree(self.target))
        self.assert_works_again()


for kind_, (server_, make_) in {"S3": ("s3", storages.s3), "Sftp": ("sftp", storages.sftp_key),
                                "Webdav": ("webdav", storages.webdav_basic),
                                "Ftps": ("ftp", storages.ftps)}.items():
    globals()[kind_] = type(kind_, (HangTest,), {
        "server_name": server_, "make": staticmethod(make_),
        # This test kills no server, so S3 can keep its files in memory. That makes its start three times faster.
        "server_options": {"store": "memstore"} if kind_ == "S3" else {},
        "test_before_it_is_asked": HangTest.hang_before,
        "test_in_an_upload": HangTest.hang_in_an_upload,
        "test_in_a_download": HangTest.hang_in_a_download})


if __name__ == "__main__":
    unittest.main()
