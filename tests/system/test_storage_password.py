"""A change of arch_password between two backups: rescans and restores with the old, the new and no password."""

import os
import unittest

import storages
from archives import Maker, first_day, hold, manifest, next_day, rescan, restore, tree_bytes, wipe
from local_files import read, tree
from samples import day, read_info
from system_test import SystemTest

SUNDAY = "2026-11-15"
OLD_DAY = day(-7, SUNDAY)
OLD, NEW = "the first password", "another/one & more?"
LIST = ".encrypted_indexes"


class PasswordTest(SystemTest):
    kind = ""

    def make(self, form, place):
        """Makes a backup with the old password, then a backup with the new password."""
        self.storage = storages.shared(self, self.kind)
        self.r = self.root()
        maker = Maker(self.r, form, place)
        files = os.path.join(self.r.base, "files")
        first_day(files)
        self.made, self.files = {}, {}
        for number, (date, password) in enumerate(((OLD_DAY, OLD), (SUNDAY, NEW)), 1):
            self.use(password)
            server = hold(self.r, date)
            self.made[date] = maker.put("web1", date, "F", files)
            self.files[date] = manifest(files)
            self.assertEqual(0, server.end())
            next_day(files, number)
        self.local = tree_bytes(self.r.info_root)
        self.hashes = {date: read_info(self.path(made["info"]))["key_hash"]
                       for date, made in self.made.items()}
        self.assertNotEqual(self.hashes[OLD_DAY], self.hashes[SUNDAY])

    def use(self, password):
        self.r.token = self.storage.token(arch_password=password)

    def path(self, name):
        return os.path.join(self.r.info_root, name)

    def check_rescan(self, password, known, strange, key_hash):
        """Checks that a rescan decrypts the indexes of the `known` dates, and leaves those of the `strange` dates
        encrypted and lists them."""
        self.use(password)
        wipe(self.r)
        rescan(self.r)
        stored = self.storage.files()
        expected = {}
        for date, made in self.made.items():
            expected[made["info"]] = self.local[made["info"]]
            if date in known:
                expected[made["index"]] = self.local[made["index"]]
            else:
                expected[made["index"] + ".aes"] = stored[made["index"]]
        lines = [f"{self.made[date]['index']}.aes={key_hash}" for date in strange]
        if lines:
            expected[LIST] = "\n".join(lines).encode()
        self.assertEqual(expected, tree_bytes(self.r.info_root))

    def check_restores(self, password, date, works):
        self.use(password)
        target = os.path.join(self.r.base, f"restored-{date}-{works}")
        result = restore(self.r, "web1", date, target)
        if works:
            self.assertEqual(("", 0), (result.stderr, result.returncode))
            self.assertEqual(self.files[date], manifest(target))
        else:
            self.assertNotEqual(0, result.returncode)
            self.assertRegex(result.stderr, "quarn2_cp: .*arch_password")
            self.assertEqual([], tree(target))
            self.check_get_refused(date)

    def check_get_refused(self, date):
        name = self.made[date]["archive"][0]
        place = os.path.join(self.r.base, "refused")
        result = self.r.run("--get", f"{place}//{name}")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertRegex(result.stderr, r"\Aquarn2_cp: .*arch_password.*\n\Z")
        self.assertEqual([], tree(place))
        for secret in (OLD, NEW):
            self.assertNotIn(secret, result.stderr)

    def check(self, form, place):
        self.make(form, place)
        self.check_rescan(NEW, [SUNDAY], [OLD_DAY], self.hashes[SUNDAY])
        self.check_restores(NEW, SUNDAY, True)
        self.check_restores(NEW, OLD_DAY, False)
        self.check_restores(OLD, OLD_DAY, True)
        self.check_rescan(OLD, [OLD_DAY], [SUNDAY], self.hashes[OLD_DAY])
        self.check_rescan(None, [], [OLD_DAY, SUNDAY], "")
        self.check_delete(place)

    def check_delete(self, place):
        """Checks that a deletion removes the local copy of an encrypted index too. The deletion removes the line of
        the list of encrypted indexes only in the flat layout, because the list is in the directory of the info
        file."""
        self.use(NEW)
        rescan(self.r)
        self.assert_success(self.r.run("--delete", self.path(self.made[OLD_DAY]["info"])))
        left = self.made[SUNDAY]
        self.assertEqual(sorted([*left["archive"], left["index"], left["info"]]),
                         self.storage.names())
        self.assertEqual(sorted([left["index"], left["info"], LIST]), self.r.local())
        if place == "flat":
            self.assertEqual(b"", read(self.path(LIST)))
        rescan(self.r)
        self.assertEqual(sorted([left["index"], left["info"]]), self.r.local())


for number_, kind_ in enumerate(("S3", "SftpKey", "WebdavBasic", "Ftps")):
    form_, place_ = (("tgz", "flat"), ("part", "dir"), ("part", "flat"), ("tgz", "dir"))[number_]
    globals()[kind_] = type(kind_, (PasswordTest,), {
        "kind": kind_,
        "test_change": lambda test, form=form_, place=place_: test.check(form, place)})


if __name__ == "__main__":
    unittest.main()
