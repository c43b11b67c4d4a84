"""Remote storages that are really full: evictions, abandoned uploads, and the remaining files."""

import os
import unittest

import storages
from archives import hold
from local_files import tree, write
from samples import day, info_text, left, read_info
from system_test import SystemTest
from waiting import wait_for

MIB = 1 << 20
FIRST = "2026-11-15"


class StoredBackup:
    """A backup that was put, with the methods that samples.left() calls."""

    def __init__(self, test, user, date):
        self.test = test
        self.root = test.r
        self.date = date
        self.stem = f"{date}.{user}"
        self.names = {f"F{self.stem}.tgz", f"{self.stem}.tgz", f"{self.stem}.info"}

    def is_whole(self):
        return self.names <= set(self.test.storage.names())

    def is_gone(self):
        return not self.names & set(self.test.storage.names())


class FullTest(SystemTest):
    kind = ""

    def setUp(self):
        super().setUp()
        self.storage = storages.shared(self, self.kind)
        self.storage.limit(self, 4 * MIB)
        self.r = self.root()
        self.r.token = self.storage.token()
        server = hold(self.r, FIRST)
        self.backups = [self.backup("web1", day(number, FIRST)) for number in range(3)]
        self.assertEqual(0, server.end())

    def source(self, name, size):
        return write(os.path.join(self.r.work, name), os.urandom(4096) * (size // 4096))

    def backup(self, user, date, size=MIB):
        info = write(os.path.join(self.r.work, f"{date}.{user}.new"),
                     info_text({"created": f"{date} 00:00:00", "type": "full"}))
        archive = self.source(f"F{date}.{user}.tgz", size)
        index = write(os.path.join(self.r.info_root, f"{date}.{user}.tgz"), b"index" * 100)
        for path, options in ((archive, ("--last_slice",)), (index, ("--isolated", "--no-delete"))):
            self.assert_success(self.r.run("--put", path, "--info-file", info, *options))
        os.remove(info)
        return StoredBackup(self, user, date)

    def names_of(self, backups):
        return sorted(set().union(*(backup.names for backup in backups)))

    def check_limit(self):
        """With a size limit the server evicts nothing for a full storage, and the upload is abandoned."""
        server = hold(self.r, day(3, FIRST), "--size-limit", str(100 * MIB))
        path = self.source(f"F{day(3, FIRST)}.web2.tgz", 2 * MIB)
        self.assert_success(self.r.run("--put", path))
        wait_for(lambda: not os.path.exists(path), "the end of the upload")
        self.assertEqual(0, server.end())
        self.assertEqual([os.path.basename(path) + ".attempts"], tree(self.r.work))
        self.assertEqual(self.names_of(self.backups), self.storage.names())
        os.remove(path + ".attempts")

    def check_eviction(self):
        """Without a size limit the server evicts the oldest backup, and the upload succeeds."""
        server = hold(self.r, day(3, FIRST))
        made = self.backup("web2", day(3, FIRST), MIB + MIB // 2)
        self.assertEqual([], tree(self.r.work))
        self.assertEqual([backup.date for backup in self.backups[1:]], left(self.backups))
        self.assertEqual(self.names_of([*self.backups[1:], made]), self.storage.names())
        info = read_info(os.path.join(self.r.info_root, f"{made.stem}.info"))
        self.assertEqual(int(info["size"]), sum(
            len(data) for name, data in self.storage.files().items() if name in made.names))
        self.assertEqual(0, server.end())

    def check_too_large(self):
        """A file that is too large for the empty storage is kept locally, and no part of it stays on the storage."""
        server = hold(self.r, day(3, FIRST))
        client = server.node_client()
        path = self.source(f"F{day(3, FIRST)}.web3.tgz", 6 * MIB)
        self.assert_success(self.r.run("--put", path))
        self.r.wait_log("Upload failed", level=3, pid=client)
        self.assertEqual([os.path.basename(path)], tree(self.r.work))
        stored = self.storage.names()
        self.assertEqual([], [name for name in stored if "web3" in name])
        whole = [backup for backup in self.backups if backup.is_whole()]
        self.assertIn(self.backups[-1], whole)
        self.assertEqual(self.names_of([*whole, StoredBackup(self, "web2", day(3, FIRST))]), stored)
        small = self.source(f"F{day(3, FIRST)}.web4.tgz", 64 * 1024)
        self.assert_success(self.r.run("--put", small))
        wait_for(lambda: not os.path.exists(small), "the end of a small upload")
        self.assertEqual(sorted([*stored, f"F{day(3, FIRST)}.web4.tgz"]), self.storage.names())
        self.assertEqual(0, server.end())

    def check(self):
        self.check_limit()
        self.check_eviction()
        self.check_too_large()


for kind_ in ("S3", "SftpPassword", "WebdavBasic", "Ftps", "FtpsSecond"):
    globals()[kind_] = type(kind_, (FullTest,), {"kind": kind_, "test_full": FullTest.check})


if __name__ == "__main__":
    unittest.main()
