"""quarn2-setup: the test of the storage, and the files that it writes."""

import os
import signal
import subprocess
import unittest

from archives import call
from local_files import read, write
from nights import FORMATS, PROGRAMS, SUNDAY, NightTest
from processes import start
from waiting import DEADLINE


class Setup(NightTest):
    def site(self, name="root", **lines):
        """Returns a site before the set-up. The token is in the file new-token."""
        site = super().site(name, **lines)
        for path in (site.config, site.token_file):
            os.remove(path)
        site.new_token = write(os.path.join(site.root.base, "new-token"), site.root.token + "\n")
        return site

    def setup(self, site, *arguments, **options):
        words = [os.path.join(PROGRAMS, "quarn2-setup"), "--config", site.config, "--token-file", site.token_file,
                 *arguments]
        result = call(*words, env=site.environment(), **options)
        self.assertEqual([], os.listdir(site.tmp))
        return result

    def assert_good(self, result):
        self.assertEqual((0, ""), (result.returncode, result.stderr), result.stdout)

    def test_a_new_machine(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site = self.site(form.replace(".", "-"))
                result = self.setup(site, "--token-from", site.new_token, "--users", site.users, "--format", form,
                                    "--size-limit", "10M")
                self.assert_good(result)
                self.assertEqual(0o600, os.stat(site.token_file).st_mode & 0o777)
                self.assertEqual(0o640, os.stat(site.config).st_mode & 0o777)
                self.assertIn("size-limit = 10M\n", read(site.config).decode())
                self.assertNotIn(site.root.token, read(site.config).decode() + result.stdout)
                self.assertEqual(([], [], []), (site.root.stored(), site.root.local(), site.root.unfinished()))
                write(os.path.join(site.user("web1"), "file"), "text")
                site.good_night(SUNDAY)
                self.assertEqual([SUNDAY + ".web1"], site.stems())

    def test_the_proposed_limit_is_below_the_free_space(self):
        site = self.site()
        self.assert_good(self.setup(site, "--token-from", site.new_token, "--users", site.users))
        limit, = [line for line in read(site.config).decode().splitlines() if line.startswith("size-limit")]
        space = os.statvfs(site.root.storage)
        number = int(limit.removeprefix("size-limit = ").removesuffix("M")) * 2**20
        self.assertLess(number, space.f_blocks * space.f_frsize)
        self.assertGreater(number, 0)

    def test_backups_on_the_storage_stay(self):
        site = self.site()
        self.assert_good(self.setup(site, "--token-from", site.new_token, "--users", site.users, "--count-limit", "1:1"))
        write(os.path.join(site.user("web1"), "file"), "text")
        site.good_night(SUNDAY)
        before = {name: read(os.path.join(site.root.storage, name)) for name in site.root.stored()}
        local = site.root.local()
        self.assert_good(self.setup(site))
        self.assertEqual(before, {name: read(os.path.join(site.root.storage, name)) for name in site.root.stored()})
        self.assertEqual(local, site.root.local())

    def test_nothing_is_written_before_the_test_has_succeeded_and_it_can_be_run_again(self):
        site = self.site()
        os.rmdir(site.root.storage)
        result = self.setup(site, "--token-from", site.new_token, "--users", site.users)
        self.assertEqual(1, result.returncode)
        self.assertIn("does not exist", result.stderr)
        self.assertIn("nothing was changed", result.stderr)
        self.assertFalse(os.path.exists(site.config) or os.path.exists(site.token_file))
        os.mkdir(site.root.storage)
        self.assert_good(self.setup(site, "--token-from", site.new_token, "--users", site.users))

    def test_an_interrupted_set_up_leaves_no_token_behind(self):
        for number in (signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number=number):
                site = self.site(str(number.value))
                pipe = os.path.join(site.root.base, "pipe")
                os.mkfifo(pipe)
                environment = dict(site.environment(), PATH=site.tool("dar", f'echo here >"{pipe}"; exec sleep 1000'))
                process = start([os.path.join(PROGRAMS, "quarn2-setup"), "--config", site.config, "--token-file",
                                 site.token_file, "--token-from", site.new_token, "--users", site.users], env=environment,
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                with open(pipe, encoding="ascii") as file:
                    file.read()
                process.send_signal(number)
                error = process.communicate(timeout=DEADLINE)[1].decode()
                self.assertEqual(1, process.returncode, error)
                self.assertIn("nothing was changed", error)
                self.assertEqual(([], []), (os.listdir(site.tmp), site.root.stored()))

    def test_values_that_cannot_be_used(self):
        site = self.site()
        for words, text in ((("--size-limit", "much"), "size-limit = 'much' cannot be used"),
                            (("--users", "/nowhere/at/all"), "directory = '/nowhere/at/all' cannot be used"),
                            (("--users", "/home\n[hooks]\nafter-night = /bin/true"), "cannot be used")):
            with self.subTest(words=words):
                result = self.setup(site, "--token-from", site.new_token, *words)
                self.assertEqual(2, result.returncode)
                self.assertIn(text, result.stderr)
                self.assertFalse(os.path.exists(site.config))
        result = self.setup(site)
        self.assertEqual(2, result.returncode)
        self.assertIn("--token-from", result.stderr)

    def test_an_existing_configuration_is_replaced_only_on_request(self):
        site = self.site()
        arguments = ("--token-from", site.new_token, "--users", site.users, "--size-limit")
        self.assert_good(self.setup(site, *arguments, "10M"))
        before = read(site.config)
        self.assert_good(self.setup(site, *arguments, "20M"))
        self.assertEqual(before, read(site.config))
        self.assert_good(self.setup(site, *arguments, "20M", "--overwrite"))
        self.assertEqual(before.replace(b"10M", b"20M"), read(site.config))
        self.assertEqual(before, read(site.config + ".old"))


if __name__ == "__main__":
    unittest.main()
