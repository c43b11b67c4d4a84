"""Backup, eviction, deletion, rescan, restore and clear on each storage of a real server, plain and encrypted.

A table defines one test class for each storage, so that the name of a failed test contains the storage.
"""

import os
import unittest

import storages
from archives import Maker, first_day, hold, manifest, next_day, rescan, restore, tree_bytes, wipe
from local_files import read
from samples import day, read_info
from system_test import SystemTest

SUNDAY = "2026-11-15"
PASSWORD = "correct horse & battery?"
ENCRYPTED = b"QN2ENC1\n"
ARCHIVES = (b"\x1f\x8b", b"\x00\x00\x00{")  # the first bytes of archives of gzip and dar

# (archive format, directory layout) of the plain backups and, if there are any, of the encrypted backups.
FORMS = {
    "S3": (("dar", "dir"), ("part", "flat")),
    "S3Http": (("tgz", "flat"), ("dar", "dir")),
    "SftpKey": (("dar", "flat"), ("part", "dir")),
    "SftpPassword": (("part", "dir"), ("tgz", "flat")),
    "WebdavBasic": (("dar", "dir"), ("dar", "flat")),
    "WebdavDigest": (("part", "flat"), ("tgz", "dir")),
    "WebdavSecond": (("tgz", "dir"), ("part", "dir")),
    "Ftps": (("part", "dir"), ("dar", "dir")),
    "Ftp": (("tgz", "flat"), ("part", "flat")),
    "FtpsSecond": (("dar", "flat"), ("tgz", "dir")),
    "FtpsThird": (("dar", "dir"),),
    "FtpsFourth": (("tgz", "flat"),),
}


class Lifecycle:
    """One sequence of commands on a storage, with the root and the backups that the storage must have."""

    def __init__(self, test, storage, form, place, password):
        self.test = test
        self.storage = storage
        self.password = password
        self.root = test.root()
        self.root.token = storage.token(arch_password=password)
        self.maker = Maker(self.root, form, place)
        self.backups = {}  # (user, date) -> result of Maker.put()
        self.files = {}  # (user, date) -> manifest

    def put(self, user, date, letter, base=None):
        source = os.path.join(self.root.base, "files", user)
        if not os.path.exists(source):
            first_day(source)
        made = self.maker.put(user, date, letter, source, base)
        key = user, "custom" if letter == "C" else date
        self.backups[key], self.files[key] = made, manifest(source)
        return made

    def change_files(self, user, number):
        next_day(os.path.join(self.root.base, "files", user), number)

    def delete(self, user, date):
        path = os.path.join(self.root.info_root, self.backups.pop((user, date))["info"])
        self.test.assert_success(self.root.run("--delete", path))

    def back_up_and_evict(self):
        """Puts, evicts and deletes backups, and checks the files on the storage."""
        server = hold(self.root, SUNDAY)
        self.put("web1", day(-7, SUNDAY), "F")
        self.put("shop.example", SUNDAY, "F")
        full = self.put("web1", SUNDAY, "F")
        self.put("web1", SUNDAY, "C")
        self.delete("shop.example", SUNDAY)
        self.test.assertEqual(0, server.end())
        self.check_storage()

        server = hold(self.root, day(1, SUNDAY), "--size-limit", str(self.used() + 30000))
        self.change_files("web1", 1)
        self.put("web1", day(1, SUNDAY), "I", full)
        del self.backups["web1", day(-7, SUNDAY)]
        self.test.assertEqual(0, server.end())
        self.check_storage()

    def used(self):
        """Checks that the sizes in the info files match the files. Returns the used bytes."""
        files = self.storage.files()
        used = sum(len(data) for data in files.values())
        told = sum(int(read_info(os.path.join(self.root.info_root, name))["size"])
                   for name in files if name.endswith(".info"))
        self.test.assertEqual(used, told)
        return used

    def check_storage(self):
        files = self.storage.files()
        expected = sum(([*made["archive"], made["index"], made["info"]]
                        for made in self.backups.values()), [])
        self.test.assertEqual(sorted(expected), sorted(files))
        for made in self.backups.values():
            self.check_info(files[made["info"]], made)
            for name in [*made["archive"], made["index"]]:
                self.check_content(name, files[name], name == made["archive"][0])
            local = read(os.path.join(self.root.info_root, made["index"]))
            self.test.assertEqual(not self.password, local == files[made["index"]])

    def check_info(self, data, made):
        local = read_info(os.path.join(self.root.info_root, made["info"]))
        self.test.assertEqual(dict(line.split("=", 1) for line in data.decode().split("\n")), local)
        self.test.assertEqual(made["archive"][-1], local["last-slice"].split()[0])
        self.test.assertEqual(bool(self.password), "key_hash" in local)

    def check_content(self, name, data, first):
        self.test.assertEqual(bool(self.password), data.startswith(ENCRYPTED), name)
        if first or not self.maker.form == "part":
            self.test.assertEqual(not self.password, data.startswith(ARCHIVES), name)

    def rebuild_and_restore(self):
        """Removes the info root, rebuilds it with a rescan, and restores the backups."""
        before = tree_bytes(self.root.info_root)
        wipe(self.root)
        rescan(self.root)
        self.test.assertEqual(before, tree_bytes(self.root.info_root))
        for user, date in (("web1", day(1, SUNDAY)), ("web1", "custom")):
            target = os.path.join(self.root.base, "restored-" + date)
            result = restore(self.root, user, date, target)
            self.test.assertEqual(("", 0), (result.stderr, result.returncode))
            self.test.assertEqual(self.files[user, date], manifest(target))

    def clear(self):
        self.test.assert_success(self.root.run("--clear"))
        self.test.assertEqual([], self.storage.names())
        self.test.assertFalse(os.path.exists(self.root.info_root))


class LifecycleTest(SystemTest):
    kind = ""

    def run_lifecycle(self, form, place, password=None):
        storage = storages.shared(self, self.kind)
        lifecycle = Lifecycle(self, storage, form, place, password)
        lifecycle.back_up_and_evict()
        lifecycle.rebuild_and_restore()
        lifecycle.clear()

    def plain(self):
        self.run_lifecycle(*FORMS[self.kind][0])

    def encrypted(self):
        self.run_lifecycle(*FORMS[self.kind][1], PASSWORD)


for kind_, forms_ in FORMS.items():
    tests_ = {"kind": kind_, "test_plain": LifecycleTest.plain}
    if len(forms_) > 1:
        tests_["test_encrypted"] = LifecycleTest.encrypted
    globals()[kind_] = type(kind_, (LifecycleTest,), tests_)


if __name__ == "__main__":
    unittest.main()
