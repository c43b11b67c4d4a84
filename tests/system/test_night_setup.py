"""quarn2-setup: the test of the storage, and the files that it writes."""

import os
import signal
import subprocess
import unittest

from archives import call
from local_files import read, write
from nights import FORMATS, PROGRAMS, SUNDAY, NightTest
from processes import start
from terminal import Terminal
from waiting import DEADLINE


class SetupTest(NightTest):
    def site(self, name="root", **lines):
        """Returns a site before the set-up. The token is in the file new-token."""
        site = super().site(name, **lines)
        for path in (site.config, site.token_file):
            os.remove(path)
        site.new_token = write(os.path.join(site.root.base, "new-token"), site.root.token + "\n")
        return site

    @staticmethod
    def command(site, *arguments):
        return [os.path.join(PROGRAMS, "quarn2-setup"), "--config", site.config, "--token-file", site.token_file,
                *arguments]

    def setup(self, site, *arguments, **options):
        result = call(*self.command(site, *arguments), env=site.environment(), **options)
        self.assertEqual([], os.listdir(site.tmp))
        return result

    def assert_refused(self, site, result, *errors):
        end = "nothing was changed; correct this and run quarn2-setup again"
        lines = "".join(f"quarn2-setup: {error}\n" for error in (*errors, end))
        self.assertEqual((2, "", lines), (result.returncode, result.stdout, result.stderr))
        self.assertFalse(os.path.exists(site.config) or os.path.exists(site.token_file))

    def assert_good(self, result):
        self.assertEqual((0, ""), (result.returncode, result.stderr), result.stdout)


class Setup(SetupTest):

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

    def test_a_configuration_that_cannot_be_written_is_reported_and_it_can_be_run_again(self):
        site = self.site()
        arguments = ("--users", site.users)
        result = self.setup(site, "--token-from", site.new_token, *arguments, "--config", site.new_token + "/night.conf")
        self.assertEqual(1, result.returncode)
        self.assertIn(f"quarn2-setup: it has written {site.token_file}; correct this and run quarn2-setup again\n",
                      result.stderr)
        result = self.setup(site, *arguments)
        self.assert_good(result)
        self.assertIn(f"uses the token in {site.token_file}; --token-from replaces it\n", result.stdout)
        self.assertIn(f"wrote {site.token_file} and {site.config}\n", result.stdout)

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
        bad_token = write(os.path.join(site.root.base, "bad-token"), "SECRET-1\nSECRET-2\n")
        result = self.setup(
            site, "--token-from", bad_token, "--format", "zip", "--users", "/home\n[hooks]\nafter-night = /bin/true",
            "--size-limit", "much", "--count-limit", "4", "--full-day", "sunday", "--token-file", "token")
        self.assert_refused(
            site, result,
            f"--token-from '{bad_token}': the storage token cannot be used: expected one line, for example "
            "local:///srv/backups",
            "--token-file 'token' cannot be used: expected an absolute path",
            "--format 'zip' cannot be used: expected one of dar, tar.zst",
            "--users '/home\\n[hooks]\\nafter-night = /bin/true' cannot be used: expected an absolute path",
            "--size-limit 'much' cannot be used: expected a number of bytes, with K, M, G or T for powers of 1024",
            "--count-limit '4' cannot be used: expected FULL:DAILY, two numbers of backups for each user, for example "
            "4:21",
            "--full-day 'sunday' cannot be used: expected one of Monday, Tuesday, Wednesday, Thursday, Friday, Saturday, "
            "Sunday")
        self.assert_refused(
            site, self.setup(site, "--users", "/nowhere/at/all", "--config", site.users),
            f"--config '{site.users}' cannot be used: expected the path of a file",
            "--users '/nowhere/at/all' cannot be used: expected a directory that exists")
        self.assert_refused(site, self.setup(site, "--users", site.users),
                            f"there is no token file '{site.token_file}'; give --token-from FILE")
        self.assert_refused(
            site, self.setup(site, "--users", site.users, "--token-from", "/nowhere/at/all"),
            "--token-from '/nowhere/at/all' cannot be read: [Errno 2] No such file or directory: '/nowhere/at/all'")

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


SECRET = "Secret-of-the-token"
FORMAT, TOKEN = "Format of the archives, dar or tar.zst", "Storage token, for example local:///srv/backups"
USERS = "Directory whose subdirectories are the users"
SIZE = "Bytes that the storage may hold, with K, M, G or T for powers of 1024, or 0 for no limit"
COUNT, DAY = ("Full and daily backups to keep for each user, FULL:DAILY",
              "Day of the week of the full backups, for example Sunday")


class Dialogue(SetupTest):
    """The questions, on a real terminal."""

    def open(self, site, *arguments, columns=80, **changes):
        environment = site.environment(KRO_LOG_LEVEL="8", **changes)
        return Terminal(self, self.command(site, *arguments), environment, columns)

    @staticmethod
    def token(site):
        return f"{site.root.token}?arch_password={SECRET}"

    def assert_interrupted(self, site, terminal, reason="interrupted"):
        terminal.expect(f"quarn2-setup: {reason}; nothing was changed; run quarn2-setup again")
        self.assertEqual(1, terminal.end())
        self.assertEqual(([], [], False, False), (os.listdir(site.tmp), site.root.stored(),
                                                  os.path.exists(site.config), os.path.exists(site.token_file)))

    def test_wrong_answers_are_asked_again_at_once(self):
        site = self.site()
        processes = os.path.join(site.root.base, "processes")
        path = site.tool("dar", f'cat /proc/[0-9]*/cmdline >>"{processes}" 2>/dev/null; PATH=${{PATH#*:}}; exec dar "$@"')
        terminal = self.open(site, columns=40, PATH=path)
        again = "cannot be used: expected "
        terminal.answer(FORMAT, "[dar]:", "zip")
        terminal.answer(f"'zip' {again}one of dar, tar.zst", "[dar]:", "")
        terminal.answer(TOKEN, "(not shown):", "")
        expected = f"the storage token {again}one line, for example local:///srv/backups"
        terminal.answer(expected, "(not shown):", f"locl:///x?arch_password={SECRET}")
        terminal.answer("unknown storage scheme 'locl'", "(not shown):", self.token(site).replace("?", "-missing?"))
        terminal.answer("does not exist", "(not shown):", self.token(site))
        terminal.expect("test: deleting it from the storage")
        terminal.answer(USERS, "[/home]:", "/nowhere/at/all")
        terminal.answer(f"'/nowhere/at/all' {again}a directory that exists", "[/home]:", b"/\xff")
        # The text of the error depends on the locale, so the test checks only that the question is repeated.
        terminal.answer("", "[/home]:", site.users)
        terminal.answer(SIZE, "M]:", "much")
        terminal.answer(f"'much' {again}a number of bytes, with K, M, G or T for powers of 1024", "M]:", " 10M ")
        terminal.answer(COUNT, "[4:21]:", "4")
        terminal.answer(f"'4' {again}FULL:DAILY, two numbers of backups for each user, for example 4:21", "[4:21]:", "1:2")
        terminal.answer(DAY, "[Sunday]:", "sunday")
        terminal.answer(f"'sunday' {again}one of Monday, Tuesday, Wednesday, Thursday, Friday, Saturday, Sunday",
                        "[Sunday]:", "Monday")
        terminal.expect("done; quarn2-night --dry-run shows what the next night will do")
        self.assertEqual(0, terminal.end(), terminal.output)
        text = read(site.config).decode()
        for line in ("format = dar", f"directory = {site.users}", "size-limit = 10M", "count-limit = 1:2",
                     "full-day = Monday", f"token-file = {site.token_file}"):
            self.assertIn(f"\n{line}\n", text)
        self.assertEqual(self.token(site) + "\n", read(site.token_file).decode())
        log = read(site.root.file("var/quarn2_cp.log")).decode()
        self.assertIn(b"quarn2_cp", read(processes))
        for place in (terminal.output, log, text, read(processes).decode()):
            self.assertNotIn(SECRET, place)
        for line in terminal.output.splitlines():
            if any(line.startswith(question[:20]) for question in (FORMAT, TOKEN, USERS, SIZE, COUNT, DAY)):
                self.assertLessEqual(len(line), 40)
        self.assertEqual(([], []), (os.listdir(site.tmp), site.root.stored()))

    def test_after_an_interruption_the_set_up_can_be_run_again(self):
        site = self.site()
        answers = ((FORMAT, "[dar]:", ""), (TOKEN, "(not shown):", self.token(site)), (USERS, "[/home]:", site.users),
                   (SIZE, "M]:", "0"), (COUNT, "[4:21]:", ""), (DAY, "[Sunday]:", ""))
        for number in range(len(answers)):
            with self.subTest(question=answers[number][0]):
                terminal = self.open(site)
                for answer in answers[:number]:
                    terminal.answer(*answer)
                terminal.expect(answers[number][0])
                terminal.expect(answers[number][1])
                is_end = number % 2
                if is_end:
                    terminal.type(b"\x04")
                else:
                    terminal.press_ctrl_c()
                self.assert_interrupted(site, terminal, "the input has ended" if is_end else "interrupted")
        terminal = self.open(site)
        for answer in answers:
            terminal.answer(*answer)
        terminal.expect("done; ")
        self.assertEqual(0, terminal.end(), terminal.output)
        write(os.path.join(site.user("web1"), "file"), "text")
        site.good_night(SUNDAY)

    def test_ctrl_c_during_the_test_removes_its_files(self):
        site = self.site()
        pipe = os.path.join(site.root.base, "pipe")
        os.mkfifo(pipe)
        terminal = self.open(site, "--token-from", site.new_token, "--format", "dar",
                             PATH=site.tool("dar", f'echo here >"{pipe}"; exec sleep 1000'))
        read(pipe)
        terminal.press_ctrl_c()
        self.assert_interrupted(site, terminal)

    def test_options_are_not_asked_for(self):
        site = self.site()
        arguments = ("--token-from", site.new_token, "--users", site.users, "--size-limit", "1G")
        terminal = self.open(site, *arguments, "--count-limit", "few")
        terminal.expect("quarn2-setup: --count-limit 'few' cannot be used: expected FULL:DAILY")
        self.assertEqual(2, terminal.end())
        self.assertNotIn(FORMAT, terminal.output)
        terminal = self.open(site, *arguments)
        terminal.answer(FORMAT, "[dar]:", "")
        terminal.answer(COUNT, "[4:21]:", "")
        terminal.answer(DAY, "[Sunday]:", "")
        self.assertEqual(0, terminal.end(), terminal.output)
        for question in (TOKEN, USERS, SIZE):
            self.assertNotIn(question, terminal.output)

    def test_a_token_of_an_option_is_not_asked_again(self):
        site = self.site()
        os.rmdir(site.root.storage)
        terminal = self.open(site, "--token-from", site.new_token, "--format", "dar")
        terminal.expect("nothing was changed; correct this and run quarn2-setup again")
        self.assertEqual(1, terminal.end())
        self.assertNotIn("(not shown)", terminal.output)
        terminal = self.open(site, "--token-from", "-")
        terminal.expect("--token-from '-' cannot be used: expected a file or a pipe")
        self.assertEqual(2, terminal.end())


if __name__ == "__main__":
    unittest.main()
