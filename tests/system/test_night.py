"""quarn2-night: nightly runs with real archives on a local storage."""

import os
import shutil
import subprocess
import unittest

from archives import first_day, manifest, next_day
from local_files import read, tree, write
from nights import FORMATS, MONDAY, PROGRAMS, SUNDAY, TUESDAY, NightTest
from samples import read_info

HOSTILE_USERS = ["x';touch${IFS}EVIL;'", "$(touch${IFS}EVIL)", "`touch${IFS}EVIL`", "-rf", ".hidden", "a b", "a\nb",
                 "%p%b", "w*", "\x1b[31m"]


class Nights(NightTest):
    def test_full_and_daily_backups_are_restored(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site = self.site(form.replace(".", "-"), night="users-at-once = 2",
                                 backup=f"format = {form}\nslice-size = 64K\nexclude = cache")
                kept = {}
                for number, date in enumerate((SUNDAY, MONDAY, TUESDAY)):
                    for user in ("web1", "web.2@example"):
                        next_day(site.user(user), number) if number else first_day(site.user(user))
                        shutil.rmtree(os.path.join(site.user(user), "cache"), ignore_errors=True)
                        # The setting excludes only the directory "cache" at the top, so this file is in the backup.
                        write(os.path.join(site.user(user), "mail/cache"), "in the backup")
                        kept[date, user] = manifest(site.user(user))
                        write(os.path.join(site.user(user), "cache/file"), "not in the backup")
                    site.good_night(date)
                self.assert_nothing_left(site, *(f"{date}.{user}" for date, user in kept))
                info = read_info(os.path.join(site.root.info_root, TUESDAY + ".web1.info"))
                self.assertTrue(info["base"].startswith(f"F{SUNDAY}.web1."))
                self.assertNotIn("node", read_info(os.path.join(site.root.storage, TUESDAY + ".web1.info")))
                for (date, user), files in kept.items():
                    target = os.path.join(site.root.base, "restored", date + user)
                    site.good_restore(user, date, target)
                    self.assertEqual(files, manifest(target))

    def test_a_full_backup_is_made_on_the_chosen_day_and_when_the_index_of_the_last_is_gone(self):
        site = self.site(backup="slice-size = 64K\nfull-day = Monday")
        write(os.path.join(site.user("web1"), "file"), "text")
        kinds = []
        for date in (SUNDAY, MONDAY, TUESDAY, "2026-11-18"):
            site.good_night(date)
            kinds.append(read_info(os.path.join(site.root.info_root, date + ".web1.info"))["type"])
            if date == TUESDAY:
                os.remove(os.path.join(site.root.info_root, MONDAY + ".web1.1.dar"))
        self.assertEqual(["full", "full", "incremental", "full"], kinds)

    def test_a_repeated_night_skips_users_with_a_backup(self):
        site = self.site()
        write(os.path.join(site.user("web1"), "file"), "text")
        site.good_night(SUNDAY)
        before = {name: read(os.path.join(site.root.storage, name)) for name in site.root.stored()}
        write(os.path.join(site.user("web2"), "file"), "text")
        self.assertIn("1 backed up, 1 skipped, 0 failed", site.good_night(SUNDAY).stdout)
        for name, data in before.items():
            self.assertEqual(data, read(os.path.join(site.root.storage, name)))

    def test_users_come_from_a_list_or_a_command(self):
        site = self.site()
        folder = os.path.join(site.root.base, "with a blank")
        write(os.path.join(folder, "file"), "text")
        site.configure(users=f"list =\n    web1 {folder}\n    web2 {folder}\nskip = web2")
        site.good_night(SUNDAY)
        self.assertEqual([SUNDAY + ".web1"], site.stems())
        command = site.hook("users", f"printf 'web3\\t%s\\n' '{folder}'")
        site.configure(users=f"command = {command}")
        site.good_night(MONDAY)
        self.assertIn(MONDAY + ".web3", site.stems())

    def test_a_dry_run_changes_nothing(self):
        site = self.site()
        write(os.path.join(site.user("web1"), "file"), "text")
        site.good_night(SUNDAY)
        before = tree(site.root.base)
        result = site.good_night(MONDAY, "--dry-run")
        self.assertIn(f"web1: a daily on the full backup of {SUNDAY}", result.stdout)
        self.assertEqual(before, tree(site.root.base))


    def test_a_dry_run_prints_the_evictions(self):
        site = self.site()
        # Copies quarn2_report into the install root of the test, because the program works on the install root that
        # contains it.
        report = os.path.join(site.root.path, "sbin/quarn2_report")
        shutil.copy(os.environ["QUARN2_REPORT"], report)
        os.chmod(report, 0o755)
        write(os.path.join(site.user("web1"), "file"), "text")
        site.good_night(SUNDAY)
        site.good_night(MONDAY)
        site.configure(storage=f"token-file = {site.token_file}\ncount-limit = 4:1")
        site.good_night(TUESDAY)
        site.configure(storage=f"token-file = {site.token_file}\ncount-limit = 1:1")
        site.good_night("2026-11-22")
        site.configure(storage=f"token-file = {site.token_file}\ncount-limit = 1:0")
        before = tree(site.root.base)
        result = site.good_night("2026-11-23", "--dry-run")
        self.assertRegex(result.stdout, f"1  web1  {TUESDAY}  daily .* more daily backups than the count limit")
        self.assertEqual(before, tree(site.root.base))


class Failures(NightTest):
    def test_one_users_failure_does_not_stop_the_others(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site = self.site(form.replace(".", "-"))
                for user in ("web1", "web2", "web3"):
                    write(os.path.join(site.user(user), "file"), os.urandom(200000))
                before = site.hook("before", 'test "$QUARN2_USER" != web2 || { echo the database is away >&2; exit 3; }')
                after = site.hook("after", f'echo "$QUARN2_USER $QUARN2_RESULT" >>{site.root.base}/after')
                end = site.hook("end", f'{{ echo "$QUARN2_STATUS $QUARN2_FAILED"; cat; env; }} >{site.root.base}/end')
                site.configure(hooks=f"before-user = {before}\nafter-user = {after}\nafter-night = {end}",
                               backup=f"format = {form}\nslice-size = 64K", night="retries = 1")
                result = site.night(SUNDAY)
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertIn("web2: FAILED: the hook " + before + " ended with exit status 3: the database is away",
                              result.stdout)
                self.assert_nothing_left(site, SUNDAY + ".web1", SUNDAY + ".web3")
                self.assertEqual(["web1 done", "web2 failed", "web2 failed", "web3 done"],
                                 sorted(read(os.path.join(site.root.base, "after")).decode().splitlines()))
                told = read(os.path.join(site.root.base, "end")).decode()
                self.assertTrue(told.startswith("1 web2\n"), told)
                self.assertIn("2 backed up, 0 skipped, 1 failed", told)
                self.assertNotIn("BACKUP_TOKEN", told)

    def test_a_backup_that_cannot_fit_is_refused_and_leaves_nothing(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site = self.site(form.replace(".", "-"))
                write(os.path.join(site.user("large"), "file"), os.urandom(600000))
                write(os.path.join(site.user("small"), "file"), os.urandom(20000))
                site.configure(storage=f"token-file = {site.token_file}\nsize-limit = 300K",
                               backup=f"format = {form}\nslice-size = 64K")
                result = site.night(SUNDAY)
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertIn("large: FAILED: ", result.stdout)
                self.assert_nothing_left(site, SUNDAY + ".small")

    def test_an_archiver_that_fails_at_its_end_makes_no_backup(self):
        for form, tool in (("dar", "dar"), ("tar.zst", "tar")):
            with self.subTest(form=form):
                site = self.site(form.replace(".", "-"), backup=f"format = {form}\nslice-size = 64K")
                write(os.path.join(site.user("web1"), "file"), os.urandom(200000))
                path = site.tool(tool, f'/usr/bin/{tool} "$@"; echo disk error >&2; exit 2')
                result = site.night(SUNDAY, PATH=path)
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertIn(f"web1: FAILED: {tool} ended with exit status 2: disk error", result.stdout)
                self.assert_nothing_left(site)

    def test_a_full_work_directory(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site = self.site(form.replace(".", "-"))
                work = os.path.join(site.root.base, "small disk")
                os.mkdir(work)
                subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", work], check=True)
                self.addCleanup(subprocess.run, ["umount", work], check=True)
                write(os.path.join(site.user("large"), "file"), os.urandom(2500000))
                write(os.path.join(site.user("small"), "file"), os.urandom(2000))
                site.configure(backup=f"format = {form}\nslice-size = 2M",
                               night=f"retries = 0\nwork-directory = {work}")
                result = site.night(SUNDAY)
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertIn("large: FAILED: ", result.stdout)
                # In some runs the space of the removed slice is not free at once, so the small user may fail too.
                site.good_night(SUNDAY, "--user", "small")
                self.assert_nothing_left(site, SUNDAY + ".small")
                self.assertEqual([], tree(work))

    def test_hostile_names_of_directories(self):
        site = self.site()
        write(os.path.join(site.user("web1"), "file"), "text")
        for user in HOSTILE_USERS:
            write(os.path.join(site.user(user), "file"), "text")
        result = site.night(SUNDAY, "--dry-run")
        self.assertEqual(len(HOSTILE_USERS), result.stdout.count("FAILED: "))
        result = site.night(SUNDAY)
        self.assertEqual(1, result.returncode)
        self.assertIn(f"1 backed up, 0 skipped, {len(HOSTILE_USERS)} failed", result.stdout)
        self.assertNotIn("\x1b", result.stdout + result.stderr)
        self.assert_nothing_left(site, SUNDAY + ".web1")
        self.assertFalse(os.path.exists("EVIL"))
        self.assertNotIn("EVIL", {os.path.basename(name) for name in tree(site.root.base)})

    def test_a_bad_name_can_be_skipped_and_concerns_no_other_user(self):
        site = self.site()
        for user in ("web1", ".snapshots"):
            write(os.path.join(site.user(user), "file"), "text")
        self.assertEqual(1, site.night(SUNDAY, "--dry-run").stdout.count("FAILED: "))
        site.good_night(SUNDAY, "--user", "web1")
        site.configure(users=f"directory = {site.users}\nskip = .snapshots")
        site.good_night(MONDAY)

    def test_a_link_of_a_user_to_another_directory_is_not_backed_up(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site = self.site(form.replace(".", "-"))
                write(os.path.join(site.user("web2"), "secret"), "of web2")
                link = os.path.join(site.root.base, "link")
                os.symlink(site.user("web2"), link)
                site.configure(users=f"list =\n    web1 {link}\n    web3 {site.user('web2')}",
                               backup=f"format = {form}\nslice-size = 64K")
                site.good_night(SUNDAY)  # a link of the administrator is accepted
                os.lchown(link, 12345, 12345)
                result = site.night(MONDAY)
                self.assertEqual(1, result.returncode, result.stderr)
                self.assertIn(f"web1: FAILED: '{link}' leads through the symbolic link 'link' of user 12345", result.stdout)
                self.assert_nothing_left(site, SUNDAY + ".web1", SUNDAY + ".web3", MONDAY + ".web3")

    def test_a_hook_that_hangs_is_ended_with_all_of_its_processes(self):
        site = self.site()
        for user in ("web1", "web2"):
            write(os.path.join(site.user(user), "file"), "text")
        hook = site.hook("before", 'test "$QUARN2_USER" = web2 || { (trap "" TERM; exec sleep 1000) & wait; }')
        site.configure(hooks=f"before-user = {hook}\ntimeout = 2")
        result = site.night(SUNDAY)
        self.assertEqual(1, result.returncode, result.stderr)
        self.assertIn(f"web1: FAILED: the hook {hook} ran longer than 2 s", result.stdout)
        self.assert_nothing_left(site, SUNDAY + ".web2")

    def test_unfinished_backups_that_cannot_be_listed(self):
        site = self.site()
        write(os.path.join(site.user("web1"), "file"), os.urandom(200000))
        path = site.tool("dar", '/usr/bin/dar "$@"; exit 2')
        obstacle = os.path.join(site.root.info_root, ".cleanup")
        os.makedirs(obstacle)
        result = site.night(SUNDAY, PATH=path)
        self.assertEqual((1, ""), (result.returncode, result.stderr))
        self.assertIn("the removal of unfinished backups: FAILED: ", result.stdout)
        os.rmdir(obstacle)
        self.assertIn(f"its unfinished backups are removed: {SUNDAY}.web1", site.good_night(MONDAY).stdout)
        self.assert_nothing_left(site, MONDAY + ".web1")

    def test_the_hook_at_the_end_gets_the_reason_when_no_backup_was_begun(self):
        site = self.site()
        told = os.path.join(site.root.base, "told")
        site.configure(hooks="after-night = " + site.hook("end", f'{{ echo "$QUARN2_STATUS"; cat; }} >{told}'))
        os.rmdir(site.root.storage)
        self.assertEqual(3, site.night(SUNDAY).returncode)
        self.assertRegex(read(told).decode(),
                         f"^3\nnight of {SUNDAY}: no backup was begun: the size control server did not start")

    def test_no_server_no_backup(self):
        site = self.site()
        write(os.path.join(site.user("web1"), "file"), "text")
        os.rmdir(site.root.storage)
        result = site.night(SUNDAY)
        self.assertEqual(3, result.returncode)
        self.assertIn("the size control server did not start", result.stderr)
        self.assertIn("does not exist", result.stderr)


class Configuration(NightTest):
    def assert_refused(self, site, *lines):
        result = site.night(SUNDAY)
        self.assertEqual((2, ""), (result.returncode, result.stdout))
        self.assertEqual([f"quarn2-night: {line}" for line in lines], result.stderr.splitlines())
        self.assertEqual([], site.root.stored())
        self.assertFalse(os.path.exists(site.root.file("var/quarn2_cp.log")))

    def test_all_errors_are_reported_at_once(self):
        site = self.site()
        config = site.config
        write(config, "stray\n[storage]\nsize-limit = 10 GB\ncount-limit = 4\nsize-limit = 1\n[users]\n"
                      "directory = /nowhere/at/all\n[backup]\nfull-day = sunday\nexclude =\n    a\n    ../b\n"
                      "colour = red\n[hooks]\nbefore-user = 'half\n")
        self.assert_refused(
            site,
            f"{config}:1: expected [section] or name = value",
            f"{config}:3: size-limit = '10 GB' cannot be used: expected a number of bytes, with K, M, G or T for powers "
            "of 1024",
            f"{config}:4: count-limit = '4' cannot be used: expected FULL:DAILY, two numbers of backups for each user, "
            "for example 4:21",
            f"{config}:5: size-limit is given twice; the first is in {config}:3",
            f"{config}:7: directory = '/nowhere/at/all' cannot be used: expected a directory that exists",
            f"{config}:9: full-day = 'sunday' cannot be used: expected one of Monday, Tuesday, Wednesday, Thursday, "
            "Friday, Saturday, Sunday",
            f"{config}:10: exclude = 'a ../b' cannot be used: expected one path or pattern in each line, relative to the "
            "user's directory, without '..'",
            f"{config}:13: unknown name 'colour' in section [backup]; known are: format, full-day, slice-size, "
            "compression, exclude",
            f"{config}:15: before-user = ''half' cannot be used: expected a program and its arguments, with matching "
            "quotes")

    def test_settings_that_do_not_fit_together(self):
        site = self.site(users="", backup="format = tar.zst\ncompression = gzip:6")
        self.assert_refused(
            site, f"{site.config}: section [users] needs exactly one of directory, list and command",
            f"{site.config}:7: format tar.zst needs a compression of zstd:1 to zstd:19")

    def test_the_token_file_must_be_secret(self):
        site = self.site()
        for mode in (0o640, 0o604, 0o660):
            os.chmod(site.token_file, mode)
            self.assert_refused(site, f"token file '{site.token_file}' has mode {mode:04o}; run: chmod 600 "
                                      f"'{site.token_file}'")
        os.chmod(site.token_file, 0o600)
        os.chown(site.token_file, 12345, -1)
        self.assert_refused(site, f"token file '{site.token_file}' belongs to user 12345; run: chown root "
                                  f"'{site.token_file}'")
        os.rename(site.token_file, site.token_file + ".real")
        os.symlink(site.token_file + ".real", site.token_file)
        self.assert_refused(site, f"token file '{site.token_file}': Too many levels of symbolic links")

    def test_programs_and_files_that_others_can_change_are_refused(self):
        site = self.site()
        hook = site.hook("hook", "true")
        os.chmod(hook, 0o775)
        site.configure(hooks=f"after-user = {hook}")
        self.assert_refused(site, f"{site.config}:10: after-user = '{hook}' cannot be used: expected a program that only "
                                  "root can change")
        os.chmod(hook, 0o755)
        os.chmod(site.config, 0o664)
        self.assert_refused(site, f"configuration '{site.config}' has mode 0664; run: chmod go-w '{site.config}'")

    def test_the_sample_configuration(self):
        site = self.site()
        with open(os.path.join(PROGRAMS, "night.conf"), encoding="ascii") as file:
            lines = file.read().splitlines()
        # The test uncomments all settings, and keeps only the first of the three alternative sources of users.
        settings = [line.removeprefix("#") for line in lines if not line.startswith("# ")]
        text = "\n".join(settings).replace("list =\ncommand = /usr/local/sbin/list-users\n", "")
        for name in ("before-user", "after-user", "after-night"):
            text = text.replace(f"/etc/kro5/{name}", site.hook(name, "true"))
        text = text.replace("/var/lib/kro5/var/night", site.tmp).replace("/etc/kro5/token", site.token_file)
        write(site.config, text)
        result = site.run("quarn2-night", "--check")
        self.assertEqual((0, ""), (result.returncode, result.stderr))

    def test_nodes(self):
        site = self.site()
        storage = f"token-file = {site.token_file}\nnodes = "
        site.configure(storage=storage + "web1 web1")
        self.assert_refused(site, f"{site.config}:3: nodes = 'web1 web1' cannot be used: expected each node once")
        for node in ("-oProxyCommand=x", "a:b", "a:b:0"):
            site.configure(storage=storage + node)
            self.assert_refused(site, f"{site.config}:3: nodes = '{node}' cannot be used: expected host names or "
                                      "addresses, or NAME:DESTINATION:PORT")
        site.configure(storage=storage + "db:127.0.0.1:1")
        write(os.path.join(site.user("web1"), "file"), "text")
        site.good_night(SUNDAY)
        self.assertIn("Session with node 'db:127.0.0.1:1' ended.", read(site.root.file("var/quarn2_cp.log")).decode())

    def test_check(self):
        site = self.site()
        result = site.run("quarn2-night", "--check")
        self.assertEqual((0, f"{site.config}: no error\n", ""), (result.returncode, result.stdout, result.stderr))


if __name__ == "__main__":
    unittest.main()
