"""Backup, loss of the info root, rescan and restore of real archives, compared byte for byte."""

import os
import shutil
import unittest

from archives import (Maker, first_day, hold, manifest, next_day, rescan, restore, tree_bytes,
                      wipe)
from samples import day
from system_test import SystemTest

SUNDAY = "2026-11-15"
USERS = ("example", "shop.example", "a.b.1.c")


class LostInfoRoot(SystemTest):
    def make(self, form, place, users=USERS, chained=False):
        """Makes a full, two dailies and a custom backup of each user. Returns (root, {(user, date): files})."""
        root = self.root(f"{form}-{place}")
        maker = Maker(root, form, place)
        kept = {}
        server = hold(root, day(2, SUNDAY))
        for user in users:
            files = os.path.join(root.base, "files", user)
            first_day(files)
            full = base = maker.put(user, SUNDAY, "F", files)
            self.assertEqual(form != "tgz", len(full["slices"]) >= 3, full["slices"])
            kept[user, SUNDAY] = manifest(files)
            for number in (1, 2):
                next_day(files, number)
                made = maker.put(user, day(number, SUNDAY), "I", files, base)
                base = made if chained else full
                kept[user, day(number, SUNDAY)] = manifest(files)
            shutil.rmtree(os.path.join(files, "mail"))
            maker.put(user, day(2, SUNDAY), "C", files)
            kept[user, "custom"] = manifest(files)
        self.assertEqual(0, server.end())
        return root, kept

    def assert_restores(self, root, kept, **changes):
        for number, ((user, date), files) in enumerate(kept.items()):
            with self.subTest(user=user, date=date):
                target = os.path.join(root.base, f"restored-{number}")
                result = restore(root, user, date, target, **changes)
                self.assertEqual(("", 0), (result.stderr, result.returncode))
                self.assertEqual(files, manifest(target))

    def check(self, form, place):
        root, kept = self.make(form, place)
        before = tree_bytes(root.info_root)
        wipe(root)
        rescan(root)
        after = tree_bytes(root.info_root)
        self.assertEqual(4 * len(USERS) * 2, len(before))
        self.assertEqual(sorted(before), sorted(after))
        self.assertEqual(before, after)
        self.assert_restores(root, kept)

    def test_slices_of_dar_flat(self):
        self.check("dar", "flat")

    def test_slices_of_dar_in_directories(self):
        self.check("dar", "dir")

    def test_single_file_flat(self):
        self.check("tgz", "flat")

    def test_single_file_in_directories(self):
        self.check("tgz", "dir")

    def test_parts_flat(self):
        self.check("part", "flat")

    def test_parts_in_directories(self):
        self.check("part", "dir")

    def test_dailies_based_on_the_previous_daily(self):
        for form in ("dar", "part"):
            with self.subTest(form=form):
                root, kept = self.make(form, "flat", users=("web1",), chained=True)
                wipe(root)
                rescan(root)
                self.assert_restores(root, kept, DAILIES="all")

    def test_a_date_between_backups_restores_the_previous_backup(self):
        root, kept = self.make("tgz", "flat", users=("web1",))
        target = os.path.join(root.base, "restored")
        self.assertEqual(0, restore(root, "web1", day(9, SUNDAY), target).returncode)
        self.assertEqual(kept["web1", day(2, SUNDAY)], manifest(target))

    def test_without_the_isolated_catalogue(self):
        root, kept = self.make("dar", "flat", users=("web1",))
        for date in (SUNDAY, day(2, SUNDAY)):
            os.remove(os.path.join(root.info_root, f"{date}.web1.1.dar"))
        self.assert_restores(root, {key: kept[key] for key in (("web1", day(2, SUNDAY)),)})


if __name__ == "__main__":
    unittest.main()
