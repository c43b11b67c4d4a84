"""Servers that are killed during an upload and started again. The test ends the pause before the retry."""

import os
import unittest

import storages
from archives import hold
from install_root import ENDED_PAUSES
from local_files import tree, write
from samples import DATE, info_text, read_info
from system_test import SystemTest
from waiting import wait_for

MIB = 1 << 20
PATIENCE = 240
FIRST = f"F{DATE}.web1.tgz"


class InterruptedUpload:
    """A storage on its own server, and an upload to it that takes some seconds."""

    def __init__(self, test, server_name, make):
        self.test = test
        self.server = storages.own_server(test.addCleanup, server_name)
        self.storage = make(test, self.server.info)
        self.r = test.root(server_name, program=ENDED_PAUSES)
        parameters = {"part_size": 5 * MIB} if server_name == "s3" else {}
        self.r.token = self.storage.token(limit_rate=3 * MIB, timeout=20, **parameters)
        self.r.log_level = 6
        self.daemon = hold(self.r, DATE)
        self.client = self.daemon.node_client()

    def put(self, user, data, *options):
        path = write(os.path.join(self.r.work, f"F{DATE}.{user}.tgz"), data)
        self.test.assert_success(self.r.run("--put", path, *options))
        return path

    def info(self, user):
        return write(os.path.join(self.r.work, user + ".new"),
                     info_text({"created": f"{DATE} 00:00:00", "type": "full"}))

    def finished(self, user):
        """Makes a complete backup through the node client. Returns its stored names."""
        info = self.info(user)
        self.put(user, "archive", "--info-file", info, "--last_slice")
        index = write(os.path.join(self.r.info_root, f"{DATE}.{user}.tgz"), "index")
        self.test.assert_success(self.r.run("--put", index, "--info-file", info, "--isolated",
                                            "--no-delete"))
        os.remove(info)
        return [f"{DATE}.{user}.info", f"{DATE}.{user}.tgz", f"F{DATE}.{user}.tgz"]

    def interrupt(self):
        """Kills the server when a part of the upload has arrived."""
        self.before = sorted(self.finished("old") + self.finished("older"))
        self.data = os.urandom(MIB) * 18
        self.job_info = self.info("web1")
        self.path = self.put("web1", self.data, "--info-file", self.job_info, "--last_slice")
        wait_for(lambda: set(self.storage.names()) > set(self.before), "a part of the upload")
        self.server.kill()

    def wait_first_failure(self):
        self.r.wait_log("Wait 60 seconds before next attempt", level=6, timeout=PATIENCE)
        self.test.assertEqual(["Cant upload"], [text[:11] for text in self.r.log_texts(4)])

    def resume(self):
        """While the first upload waits, puts and deletes other backups with the same node client."""
        made = self.finished("new")
        self.test.assertLessEqual(set(made), set(self.storage.names()))
        self.test.assert_success(self.r.run("--delete",
                                            os.path.join(self.r.info_root, f"{DATE}.old.info")))
        self.expected = [f"{DATE}.older.info", f"{DATE}.older.tgz", f"F{DATE}.older.tgz", *made]
        self.test.assertLessEqual(set(self.expected), set(self.storage.names()))
        self.test.assertFalse({f"{DATE}.old.info", f"F{DATE}.old.tgz"} & set(self.storage.names()))

    def end(self):
        self.test.assertTrue(os.path.exists(self.path))
        self.r.end_pauses()
        wait_for(lambda: not os.path.exists(self.path), "the second attempt", PATIENCE)
        index = write(os.path.join(self.r.info_root, f"{DATE}.web1.tgz"), "index")
        self.test.assert_success(self.r.run("--put", index, "--info-file", self.job_info,
                                            "--isolated", "--no-delete"))
        os.remove(self.job_info)
        self.test.assertEqual(0, self.daemon.end())
        names = [*self.expected, f"{DATE}.web1.info", f"{DATE}.web1.tgz", FIRST]
        # A killed Apache leaves the received part in a temporary file, which it does not serve.
        found = [name for name in self.storage.names() if not name.startswith(".davfs.tmp")]
        self.test.assertEqual(sorted(names), found)
        self.test.assertEqual(self.data, self.storage.files()[FIRST])
        self.test.assertEqual([], tree(self.r.work))
        self.test.assertEqual(1, len(self.r.log(4)), self.r.log(4))
        info = read_info(os.path.join(self.r.info_root, f"{DATE}.web1.info"))
        self.test.assertIn("finished", info)


class KilledServers(SystemTest):
    def test_uploads_are_tried_again(self):
        uploads = {}
        for name, make in (("sftp", storages.sftp_key), ("webdav", storages.webdav_basic),
                           ("ftp", storages.ftps), ("s3", storages.s3)):
            uploads[name] = InterruptedUpload(self, name, make)
        self.each(uploads, InterruptedUpload.interrupt)
        self.each(uploads, InterruptedUpload.wait_first_failure)
        self.each(uploads, lambda upload: upload.server.revive())
        self.each(uploads, InterruptedUpload.resume)
        self.each(uploads, InterruptedUpload.end)

    def each(self, uploads, step):
        """Runs a step on every upload. Reports an upload that fails and continues with the others."""
        for name in list(uploads):
            upload = uploads.pop(name)
            with self.subTest(storage=name):
                step(upload)
                uploads[name] = upload


if __name__ == "__main__":
    unittest.main()
