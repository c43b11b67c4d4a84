"""The sample jobs: refused names, restores that fail, and evictions during a restore."""

import os
import shutil
import unittest
import urllib.parse

from archives import Maker, backup, first_day, hold, manifest, restore, run_sample
from local_files import write, write_executable
from samples import day
from system_test import SystemTest
from waiting import wait_for

SUNDAY = "2026-11-15"

HOSTILE_USERS = ["x';touch${IFS}EVIL;'", "$(touch${IFS}EVIL)", "`touch${IFS}EVIL`", "x;touch${IFS}EVIL", "../web1",
                 "-rf", ".hidden", "a b", "a\nb", "%p%b", "", "w*"]
HOSTILE_ARCHIVES = ["x';touch${IFS}EVIL;'/F2026-11-15.web1.2.dar", "F2026-11-15.web1.$(touch${IFS}EVIL).dar",
                    "../../F2026-11-15.web1.1.dar", "/etc/F2026-11-15.web1.1.dar", "F2026-11-15.web2.1.dar",
                    "F2026-11-14.web1.1.dar", "web2/2026-11-15/F2026-11-15.web1.1.dar",
                    "web1/2026-11-15/../F2026-11-15.web1.1.dar", "F2026-11-15.web1.1.dar;touch${IFS}EVIL",
                    "F2026-11-15.web1.tgz.part", "F2026-11-15.web1.1.dar'", "-x.1.dar"]


class RestoreJob(SystemTest):
    def assert_refused(self, result, *words):
        self.assertEqual(1, result.returncode)
        self.assertRegex(result.stderr, r"\A(quarn2_report: .*\n)?restore-job: .*\n\Z")
        for word in words:
            self.assertIn(word, result.stderr)

    def test_impossible_restores_are_reported(self):
        root = self.root()
        target = os.path.join(root.base, "restored")
        self.assert_refused(restore(root, "web1", "yesterday", target), "yesterday", "custom")
        self.assert_refused(restore(root, "web1", SUNDAY, target), "no backup", "web1")
        self.assert_refused(restore(root, "web1", "custom", target), "no backup", "web1")
        write(os.path.join(root.info_root, SUNDAY + ".web1.info"),
              "finished=2026-11-15 01:00:00\ntype=full")
        self.assert_refused(restore(root, "web1", SUNDAY, target), SUNDAY, "does not name the last slice")

    def test_an_earlier_day_without_a_chain_is_refused(self):
        """A daily is refused when its full backup is missing; a restore never begins with a daily alone."""
        root = self.root()
        target = os.path.join(root.base, "restored")
        write(os.path.join(root.info_root, SUNDAY + ".web1.info"),
              "finished=2026-11-15 01:00:00\nlast-slice=I2026-11-15.web1.1.dar\ntype=incremental")
        for date in (SUNDAY, day(3, SUNDAY)):
            for dailies in ("last", "all"):
                self.assert_refused(restore(root, "web1", date, target, DAILIES=dailies), SUNDAY, "no full backup",
                                    "web1")

    def test_a_missing_report_program_is_reported(self):
        root = self.root()
        write(os.path.join(root.info_root, SUNDAY + ".web1.info"),
              "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-15.web1.1.dar\ntype=full")
        result = run_sample(root, "restore-job", "web1", SUNDAY, os.path.join(root.base, "restored"))
        self.assertEqual(1, result.returncode)
        self.assertIn("sbin/quarn2_report: No such file", result.stderr)
        self.assertTrue(result.stderr.endswith(f"restore-job: cannot determine the backups to restore for web1\n"))

    def test_a_user_name_is_never_run_as_a_command(self):
        root = self.root()
        for user in HOSTILE_USERS:
            with self.subTest(user=user):
                self.assert_refused(restore(root, user, SUNDAY, os.path.join(root.base, "restored")), "user name")
                self.assert_no_command_ran(root)

    def test_an_archive_name_from_the_storage_is_never_run_or_used_as_a_path(self):
        root = self.root()
        target = os.path.join(root.base, "restored")
        for name in HOSTILE_ARCHIVES:
            with self.subTest(name=name):
                write(os.path.join(root.info_root, SUNDAY + ".web1.info"),
                      f"finished=2026-11-15 01:00:00\nlast-slice={name}\ntype=full")
                self.assert_refused(restore(root, "web1", SUNDAY, target), "correct the info file", SUNDAY)
                self.assert_no_command_ran(root)
                self.assertEqual([], os.listdir(target))

    def test_a_custom_backups_archive_name(self):
        root = self.root()
        for name in ("F2026-11-20.web1.1.dar", "C2026-11-20.web2.1.dar", "C2026-11-20.web1.1.dar';touch${IFS}EVIL;'"):
            with self.subTest(name=name):
                write(os.path.join(root.info_root, "custom.web1.info"),
                      f"finished=2026-11-20 01:00:00\nlast-slice={name}\ntype=full")
                self.assert_refused(restore(root, "web1", "custom", os.path.join(root.base, "restored")),
                                    "correct the info file", "custom")
                self.assert_no_command_ran(root)

    def test_the_backup_job_refuses_commands_as_names(self):
        root = self.root()
        files = os.path.join(root.base, "files")
        first_day(files)
        for user in HOSTILE_USERS:
            with self.subTest(user=user):
                result = backup(root, SUNDAY, user, files)
                self.assertEqual(1, result.returncode)
                self.assertRegex(result.stderr, r"\Abackup-job: invalid user name ")
                self.assert_no_command_ran(root)
                self.assertEqual([], root.stored())

    def test_hostile_folders_are_backed_up_and_restored(self):
        root = self.root("x';touch ${IFS}EVIL;'$(touch EVIL) %p")
        root.token = "local://" + urllib.parse.quote(root.storage)
        files = os.path.join(root.base, "files")
        first_day(files)
        result = backup(root, SUNDAY, "web.1@example+a-b_c", files)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        target = os.path.join(root.base, "restored")
        result = restore(root, "web.1@example+a-b_c", SUNDAY, target)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertEqual(manifest(files), manifest(target))
        self.assert_no_command_ran(root)

    def assert_no_command_ran(self, root):
        left = {name for _, _, names in os.walk(root.base) for name in names}
        self.assertNotIn("EVIL", left)
        self.assertFalse(os.path.exists("EVIL"))

    def test_a_daily_whose_full_backup_is_gone_is_not_restored_onto_another(self):
        root = self.root()
        for date, fields in ((SUNDAY, "type=full\nlast-slice=F2026-11-15.web1.1.dar"),
                             (day(8, SUNDAY), f"base=F{day(7, SUNDAY)}.web1.tgz\ntype=incremental\n"
                                              "last-slice=I2026-11-23.web1.1.dar")):
            write(os.path.join(root.info_root, date + ".web1.info"),
                  "finished=2026-11-15 01:00:00\n" + fields)
        target = os.path.join(root.base, "restored")
        self.assert_refused(restore(root, "web1", day(8, SUNDAY), target), day(7, SUNDAY))

    def test_a_lost_slice_makes_the_restore_fail(self):
        for form in ("dar", "part"):
            with self.subTest(form=form):
                root = self.root(form)
                files = os.path.join(root.base, "files")
                first_day(files)
                server = hold(root, SUNDAY)
                made = Maker(root, form, "flat").put("web1", SUNDAY, "F", files)
                self.assertEqual(0, server.end())
                os.remove(os.path.join(root.storage, made["slices"][1]))
                result = restore(root, "web1", SUNDAY, os.path.join(root.base, "restored"))
                self.assertNotEqual(0, result.returncode)
                self.assertIn(made["slices"][1], result.stderr)


# A wrapper for the program. It runs `first` before call number `number`. After each call it writes the number of
# archive files in the target's directory to the file counts.
WRAPPER = """#!/bin/sh
for last; do :; done
echo call >>'{base}/calls'
if [ "$(wc -l <'{base}/calls')" = {number} ]; then {first}; fi
'{real}' "$@" || exit
ls "${{last%%//*}}" | grep -c '^[FI].*\\(dar\\|tgz.*\\)$' >>'{base}/counts'
"""


class DuringARestore(SystemTest):
    def site(self, form, limit_above, number, first):
        """Makes two full backups of web1, starts a server with a size limit, and wraps the program."""
        root = self.root(form)
        maker = Maker(root, form, "flat")
        kept = {}
        files = os.path.join(root.base, "files")
        first_day(files)
        server = hold(root, day(7, SUNDAY))
        for date in (SUNDAY, day(7, SUNDAY)):
            write(os.path.join(files, "date"), date)
            maker.put("web1", date, "F", files)
            kept[date] = manifest(files)
        self.assertEqual(0, server.end())
        size = sum(os.path.getsize(os.path.join(root.storage, name)) for name in root.stored())
        server = hold(root, day(7, SUNDAY), "--size-limit", str(size + limit_above))
        new = write(os.path.join(root.work, f"F{day(7, SUNDAY)}.web2.tgz"), b"x" * 100000)
        real = root.binary + ".real"
        shutil.move(root.binary, real)
        write_executable(root.binary, WRAPPER.format(
            base=root.base, real=real, number=number, first=first.format(real=real, new=new)))
        return root, kept, server

    def restore_during_eviction(self, form, date):
        root, kept, server = self.site(form, 50000, 3, "'{real}' --put --no-delete '{new}'")
        target = os.path.join(root.base, "restored")
        result = restore(root, "web1", date, target)
        # The upload of the new slice may still run when its --put has ended.
        wait_for(lambda: f"F{day(7, SUNDAY)}.web2.tgz" in root.stored(), "the new slice")
        self.assertNotIn(SUNDAY + ".web1.info", root.stored() + root.local())
        self.assertEqual(0, server.end())
        return result, kept[date], target

    def test_the_server_evicts_another_backup(self):
        for form in ("dar", "part"):
            with self.subTest(form=form):
                result, files, target = self.restore_during_eviction(form, day(7, SUNDAY))
                self.assertEqual(("", 0), (result.stderr, result.returncode))
                self.assertEqual(files, manifest(target))

    def test_the_server_evicts_the_backup_that_is_restored(self):
        for form in ("dar", "part"):
            with self.subTest(form=form):
                result, _, _ = self.restore_during_eviction(form, SUNDAY)
                self.assertNotEqual(0, result.returncode)
                self.assertIn(f"F{SUNDAY}.web1", result.stderr)

    def test_the_local_disk_has_at_most_one_slice(self):
        for form in ("dar", "part"):
            with self.subTest(form=form):
                root, kept, server = self.site(form, 1000000, 1, "true")
                target = os.path.join(root.base, "restored")
                self.assertEqual(0, restore(root, "web1", SUNDAY, target).returncode)
                self.assertEqual(kept[SUNDAY], manifest(target))
                with open(os.path.join(root.base, "counts"), encoding="ascii") as file:
                    counts = file.read().split()
                self.assertGreaterEqual(len(counts), 4)
                self.assertEqual({"1"}, set(counts))
                self.assertEqual(0, server.end())


if __name__ == "__main__":
    unittest.main()
