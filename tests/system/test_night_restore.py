"""quarn2-restore: complete restores, single files, other machines, and hostile names."""

import os
import shutil
import unittest

from archives import Maker, first_day, hold, manifest, next_day
from local_files import read, tree, write
from nights import FORMATS, MONDAY, SUNDAY, TUESDAY, NightRoot
from samples import day
from system_test import SystemTest
from test_restore import HOSTILE_ARCHIVES, HOSTILE_USERS


class RestoreTest(SystemTest):
    def site(self, form="dar"):
        return NightRoot(self.root(form.replace(".", "-")), backup=f"format = {form}\nslice-size = 64K")

    def two_nights(self, form):
        """Returns a site with a full backup and a daily of web1, and the files of the two days."""
        site = self.site(form)
        first_day(site.user("web1"))
        kept = {SUNDAY: manifest(site.user("web1"))}
        site.good_night(SUNDAY)
        next_day(site.user("web1"), 1)
        kept[MONDAY] = manifest(site.user("web1"))
        site.good_night(MONDAY)
        return site, kept

    def target(self, site, name="restored"):
        return os.path.join(site.root.base, name)

    def assert_refused(self, result, status, *words):
        self.assertEqual(status, result.returncode, result.stderr)
        for word in words:
            self.assertIn(word, result.stderr)

    def assert_no_command_ran(self, site):
        self.assertNotIn("EVIL", {os.path.basename(name) for name in tree(site.root.base)})
        self.assertFalse(os.path.exists("EVIL"))


class Restores(RestoreTest):
    def test_single_files_and_directories(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site, kept = self.two_nights(form)
                target = self.target(site)
                site.good_restore("web1", MONDAY, target, "mail/letter one", "empty", "noise of day 1")
                found = manifest(target)
                wanted = {os.fsencode(name) for name in ("mail/letter one", "empty", "noise of day 1")}
                self.assertEqual({name: kept[MONDAY][name] for name in wanted},
                                 {name: what for name, what in found.items() if name != b"mail"})
                shutil.rmtree(target)
                site.good_restore("web1", SUNDAY, target, "./mail/old/")
                self.assertEqual(kept[SUNDAY][b"mail/old/letter"], manifest(target)[b"mail/old/letter"])
                shutil.rmtree(target)
                # The full backup has this directory, but on Monday it was gone.
                result = site.restore("web1", MONDAY, target, "mail/old", "empty")
                self.assert_refused(result, 1, "not in the backup: 'mail/old'")
                self.assertIn(b"empty", manifest(target))

    def test_files_are_overwritten_only_with_force(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site, kept = self.two_nights(form)
                target = self.target(site)
                write(os.path.join(target, "mail/letter one"), "written today")
                write(os.path.join(target, "mail/new"), "only here")
                before = manifest(target)
                self.assert_refused(site.restore("web1", MONDAY, target), 1, "has files", "--force")
                self.assertEqual(before, manifest(target))
                site.good_restore("--force", "web1", MONDAY, target)
                found = manifest(target)
                self.assertEqual(before[b"mail/new"], found.pop(b"mail/new"))
                self.assertEqual(kept[MONDAY], found)

    def test_force_does_not_replace_a_directory_by_a_file(self):
        site, _ = self.two_nights("dar")
        target = self.target(site)
        write(os.path.join(target, "empty/file"), "only here")
        self.assert_refused(site.restore("--force", "web1", MONDAY, target), 1, "empty' is a directory")
        self.assertEqual(b"only here", read(os.path.join(target, "empty/file")))

    def test_another_machine_needs_only_the_token(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site, kept = self.two_nights(form)
                other = NightRoot(self.root("other"))
                target = self.target(other)
                write(other.token_file, site.root.token)
                os.remove(other.config)
                token = ("--token-file", other.token_file)
                self.assert_refused(other.restore(*token, "web1", MONDAY, target), 1, "no full backup", "--rescan")
                stored = site.root.stored()
                result = other.run("quarn2-restore", *token, "--rescan", "--list")
                self.assertEqual([f"web1\t{SUNDAY}\tfull", f"web1\t{MONDAY}\tdaily"],
                                 [line.rpartition("\t")[0] for line in result.stdout.splitlines()])
                other.good_restore(*token, "--rescan", "web1", MONDAY, target)
                self.assertEqual(kept[MONDAY], manifest(target))
                self.assertEqual(stored, site.root.stored())
                self.assertEqual([], other.root.local())

    def test_backups_of_other_programs(self):
        for form in ("dar", "tgz", "part"):
            for place in ("flat", "dir"):
                with self.subTest(form=form, place=place):
                    site = NightRoot(self.root(form))
                    maker = Maker(site.root, form, place)
                    server = hold(site.root, MONDAY)
                    first_day(site.user("web1"))
                    full = maker.put("web1", SUNDAY, "F", site.user("web1"))
                    next_day(site.user("web1"), 1)
                    maker.put("web1", MONDAY, "I", site.user("web1"), full)
                    maker.put("web2", MONDAY, "C", site.user("web1"))
                    self.assertEqual(0, server.end())
                    for words in (("web1", TUESDAY), ("web2", "custom")):
                        target = self.target(site, words[0])
                        site.good_restore(*words, target)
                        self.assertEqual(manifest(site.user("web1")), manifest(target))

    def test_a_lost_slice_makes_the_restore_fail(self):
        for form, name in (("dar", f"F{SUNDAY}.web1.2.dar"), ("tar.zst", f"F{SUNDAY}.web1.tar.zst.part2")):
            with self.subTest(form=form):
                site, _ = self.two_nights(form)
                os.remove(os.path.join(site.root.storage, name))
                self.assert_refused(site.restore("web1", SUNDAY, self.target(site)), 1, name)


class Hostile(RestoreTest):
    def test_user_names(self):
        site = self.site()
        for user in HOSTILE_USERS:
            with self.subTest(user=user):
                result = site.restore("--", user, SUNDAY, self.target(site))
                # A name that begins with '-' is refused as an unknown option.
                self.assert_refused(result, 2, "unrecognized" if user == "-rf" else "a user name has letters")
                self.assert_no_command_ran(site)

    def test_paths(self):
        site, _ = self.two_nights("dar")
        for path in ("../x", "a/../../x", "/etc/passwd", "", "a\nb"):
            with self.subTest(path=path):
                self.assert_refused(site.restore("web1", SUNDAY, self.target(site), path), 2, "without '..'")

    def test_archive_names_in_info_files(self):
        site = self.site()
        names = HOSTILE_ARCHIVES + ["F2026-11-15.web1.tar.zst.part0", "F2026-11-15.web1.tar.zst;touch${IFS}EVIL",
                                    "F2026-11-15.web1.0.dar", "F2026-11-15.web1.tar.zst.part1\x1b[2J"]
        for name in names:
            with self.subTest(name=name):
                write(os.path.join(site.root.info_root, SUNDAY + ".web1.info"),
                      f"finished=2026-11-15 01:00:00\nlast-slice={name}\ntype=full")
                target = self.target(site)
                result = site.restore("web1", SUNDAY, target)
                self.assert_refused(result, 1, "last-slice")
                self.assertNotIn("\x1b", result.stderr)
                self.assert_no_command_ran(site)
                self.assertEqual([], os.listdir(target))

    def test_a_link_of_a_user_in_the_path_is_not_followed(self):
        site, kept = self.two_nights("dar")
        outside = os.path.join(site.root.base, "outside")
        os.mkdir(outside)
        home = os.path.join(site.root.base, "home")
        os.mkdir(home)
        link = os.path.join(home, "link")
        os.symlink(outside, link)
        site.good_restore("web1", SUNDAY, link)
        self.assertEqual(kept[SUNDAY], manifest(outside))
        os.rename(outside, outside + ".old")
        os.mkdir(outside)
        os.lchown(link, 12345, 12345)
        for target in (link, link + "/below"):
            self.assert_refused(site.restore("web1", SUNDAY, target), 1, "symbolic link 'link' of user 12345")
        self.assertEqual([], tree(outside))

    def test_a_user_who_exchanges_directories_during_the_restore(self):
        for form, tool in (("dar", "dar"), ("tar.zst", "tar")):
            with self.subTest(form=form):
                site, _ = self.two_nights(form)
                target = self.target(site)
                write(os.path.join(target, "file"), "here")
                outside = os.path.join(site.root.base, "outside")
                os.mkdir(outside)
                path = site.tool(tool, f'cd {target}; for each in .quarn2-restore.*; do mv "$each" ../moved; '
                                       f'ln -s {outside} "$each"; done; mkdir {outside}/files; /usr/bin/{tool} "$@"; status=$?; '
                                       f'find {outside} -type f >{site.root.base}/seen; exit $status')
                result = site.run("quarn2-restore", "--force", "web1", SUNDAY, target, PATH=path)
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertEqual(b"", read(os.path.join(site.root.base, "seen")))

    def test_a_link_in_the_directory_is_not_followed(self):
        site, _ = self.two_nights("dar")
        target, outside = self.target(site), os.path.join(site.root.base, "outside")
        for folder in (target, outside):
            os.mkdir(folder)
        os.symlink(outside, os.path.join(target, "mail"))
        self.assert_refused(site.restore("--force", "web1", SUNDAY, target), 1, "'mail' is a directory here or in the")
        self.assertEqual([], tree(outside))

    def test_the_directory_of_a_user_keeps_its_owner(self):
        site, kept = self.two_nights("dar")
        target = self.target(site)
        os.mkdir(target, 0o751)
        os.chown(target, 12345, 12345)
        site.good_restore("web1", SUNDAY, target)
        self.assertEqual(kept[SUNDAY], manifest(target))
        status = os.stat(target)
        self.assertEqual((12345, 12345, 0o751), (status.st_uid, status.st_gid, status.st_mode & 0o7777))

    def test_a_daily_whose_full_backup_is_gone_is_not_restored_onto_another(self):
        site = self.site()
        for date, fields in ((SUNDAY, "type=full\nlast-slice=F2026-11-15.web1.1.dar"),
                             (day(8, SUNDAY), f"base=F{day(7, SUNDAY)}.web1.tgz\ntype=incremental\n"
                                              "last-slice=I2026-11-23.web1.1.dar")):
            write(os.path.join(site.root.info_root, date + ".web1.info"), "finished=2026-11-15 01:00:00\n" + fields)
        self.assert_refused(site.restore("web1", day(8, SUNDAY), self.target(site)), 1, day(7, SUNDAY))


if __name__ == "__main__":
    unittest.main()
