"""quarn2_report --verify, on storages with and without faults."""

import contextlib
import gzip
import io
import json
import os
import pty
import re
import subprocess
import zipfile

from local_files import read, write
from processes import start
from report_test_case import ReportTest
from samples import DATE, day
from server_command import Server
from waiting import DEADLINE, wait_for


class Verify(ReportTest):
    def verify(self, *arguments, token=None, **environment):
        """Returns exit status, standard output and standard error."""
        process = start([self.binary, "--verify", "--date", DATE, *arguments], cwd="/", stdin=subprocess.DEVNULL,
                        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                        env=self.r.environment(BACKUP_TOKEN=token or self.r.token, **environment))
        out, err = process.communicate(timeout=DEADLINE)
        self.assertEqual([], [name for name in os.listdir(self.r.file("tmp")) if name.startswith("quarn2_report")])
        return process.returncode, out.decode(), err.decode()

    def make_backups(self):
        server = Server(self.r, "--date", DATE, "--count-limit", "9:9").wait_ready()
        self.put_slices(day(-5), "web1", self.make_dar(day(-5), "web1"))
        self.put_slices(DATE, "web1", self.make_dar(DATE, "web1", "I", 100), "incremental",
                        base=f"F{day(-5)}.web1.tgz")
        self.assertEqual(0, server.end())

    def put_one(self, user, files):
        """Puts a backup of DATE whose slices have these endings and contents. Returns the stored paths."""
        paths = [write(os.path.join(self.r.work, f"F{DATE}.{user}{ending}"), content) for ending, content in files]
        self.put_paths(user, paths)
        return [os.path.join(self.r.storage, os.path.basename(path)) for path in paths]

    def put_paths(self, user, paths):
        server = Server(self.r, "--date", DATE, "--count-limit", "9:9").wait_ready()
        self.put_slices(DATE, user, paths)
        self.assertEqual(0, server.end())

    def flip(self, path):
        """Changes one bit in the middle of a file."""
        content = bytearray(read(path))
        content[len(content) // 2] ^= 1
        write(path, bytes(content))

    def assert_test_finds(self, user, program, damaged):
        """Checks that the program finds no fault. Then flips one bit of a slice, and checks that the program finds
        that."""
        self.assertEqual((0, ""), self.verify("--content", "100")[::2])
        self.flip(damaged)
        self.assertEqual(0, self.verify()[0], "the size is the same")
        status, out, err = self.verify("--content", "100")
        self.assertEqual(3, status, out)
        self.assertIn(f": 'F{DATE}.{user}' is damaged: the test of {program} ended with status ", err)
        self.assertEqual(1, err.count("finding"), err)

    def finding(self, text):
        return f"quarn2_report: finding: backup {day(-5)}.web1: {text}\n"

    def test_of_backups_without_a_fault(self):
        self.make_backups()
        before = {name: os.stat(os.path.join(self.r.storage, name)).st_mtime_ns for name in self.r.stored()}
        self.assertEqual((0, f"storage   {self.r.token}\nbackups   2, 7 files\n"
                             "content   2 of them downloaded, seed 7\narchives  2 tested, 0 only downloaded\n"
                             "orphans   0\nproblems  0\n", ""),
                         self.verify("--content", "100", "--seed", "7", "--orphans"))
        self.assertEqual(before, {name: os.stat(os.path.join(self.r.storage, name)).st_mtime_ns for name in self.r.stored()})
        one = json.loads(self.verify("--content", "50", "--json")[1])
        self.assertEqual((None, 2, 7, 1, 0), tuple(one[key] for key in ("problem", "backups", "files", "content", "problems")))

    def last(self):
        return json.loads(self.report("--status", "--json")[1])["verification"]

    def test_a_download_shows_its_progress_on_a_terminal(self):
        self.put_paths("web1", self.make_dar(DATE, "web1", size=30_000))
        terminal, other = pty.openpty()
        self.addCleanup(os.close, terminal)
        process = start([self.binary, "--verify", "--date", DATE, "--content", "100"], cwd="/",
                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=other,
                        env=self.r.environment(BACKUP_TOKEN=self.r.token + "?limit_rate=15000"))
        os.close(other)
        shown = b""
        with contextlib.suppress(OSError):  # the program has closed the terminal
            while data := os.read(terminal, 65536):
                shown += data
        self.assertEqual(0, process.wait(DEADLINE))
        lines = re.findall(r"\r([^\r\n]+)\x1b\[K", shown.decode())
        self.assertTrue(lines, shown)
        for line in lines:
            self.assertRegex(line, r"\A[0-5] of 5 files, \d+(\.\d)? [KM]?i?B, \d+(\.\d)? [KM]?i?B/s")
        self.assertEqual(sorted(lines, key=lambda line: int(line[0])), lines)

    def test_the_last_result_is_kept(self):
        self.make_backups()
        self.assertIsNone(self.last())
        self.verify("--content", "50")
        kept = self.r.file("var/quarn2_cp.verified")
        self.assertEqual(0o600, os.stat(kept).st_mode & 0o777)
        last = self.last()
        self.assertEqual((self.r.token, 2, 7, 1, 0),
                         tuple(last[key] for key in ("storage", "backups", "files", "content", "problems")))
        self.assertIn(f"verified         {last['time']}: 2 backups, 1 of them downloaded, 0 problems\n",
                      self.report("--status")[1])
        before = read(kept)
        os.unlink(os.path.join(self.r.storage, f"F{day(-5)}.web1.1.dar"))
        self.assertEqual(3, self.verify("--user", "web1")[0])
        self.assertEqual(1, self.verify(token="local:///nowhere")[0])
        self.assertEqual(before, read(kept))
        self.assertEqual(3, self.verify()[0])
        self.assertEqual((0, 1), (self.last()["content"], self.last()["problems"]))
        self.assertIn("verified         never\n", self.report("--status", "--storage", "own")[1])

    def test_a_result_that_cannot_be_kept_or_read_is_named(self):
        self.make_backups()
        kept = write(self.r.file("var/quarn2_cp.verified"), "time=now\nbackups=many")
        status, out, err = self.report("--status", "--json")
        self.assertIsNone(json.loads(out)["verification"])
        self.assertEqual(3, status)
        self.assertIn("'var/quarn2_cp.verified' is damaged: ", err)
        self.assertIn(". The next --verify replaces it", err)
        os.unlink(kept)
        os.mkdir(kept)
        status, out, err = self.verify()
        self.assertEqual(3, status)
        self.assertIn("problems  0\n", out)
        self.assertIn("finding: the result of the verification cannot be kept: ", err)

    def test_a_missing_file_and_a_shorter_file_are_named(self):
        self.make_backups()
        name = f"F{day(-5)}.web1.1.dar"
        os.truncate(os.path.join(self.r.storage, name), self.stored_size(name) - 1)
        status, _, err = self.verify()
        self.assertEqual((status, err), self.verify("--content", "100")[::2], "the problem is named once")
        size = sum(self.stored_size(name) for name in self.r.stored() if day(-5) in name)
        self.assertEqual((3, self.finding(f"the files have {size} bytes, the info file says {size + 1}; --update of a file "
                                          "does not change the info file")), (status, err))
        os.unlink(os.path.join(self.r.storage, name))
        self.assertEqual((3, self.finding(f"'{name}' is not on the storage")), self.verify("--content", "100")[::2])
        self.assertEqual(0, self.verify("--user", "web2")[0])
        status, out, err = self.verify("--json", "--anonymous")
        problem, summary = map(json.loads, out.splitlines())
        self.assertEqual(("missing", 1), (problem["problem"], summary["problems"]))
        self.assertNotIn("web1", out + err)

    def test_encrypted_files_are_decrypted(self):
        self.r.token += "?arch_password=secret"
        self.make_backups()
        self.assertEqual((0, ""), self.verify("--content", "100")[::2])
        self.assertNotIn("secret", "".join(self.verify("--content", "100")[1:]))
        path = os.path.join(self.r.storage, f"F{day(-5)}.web1.2.dar")
        content = bytearray(read(path))
        content[-1] ^= 1
        write(path, bytes(content))
        status, _, err = self.verify("--content", "100")
        self.assertEqual(3, status)
        self.assertIn(f"'F{day(-5)}.web1.2.dar' cannot be read: ", err)
        self.assertEqual(1, err.count("finding"))
        self.assertEqual(3, self.verify("--content", "100", token=self.r.token.replace("secret", "other"))[0])

    def test_orphans_are_files_that_nothing_names(self):
        self.make_backups()
        write(os.path.join(self.r.storage, f"F{day(-9)}.web1.1.dar"), b"x")
        write(os.path.join(self.r.storage, f"web5/{day(-9)}/F{day(-9)}.web5.tgz"), b"x")
        with open(os.path.join(self.r.storage.encode(), b"\x1b]0;title"), "wb"):
            pass
        server = Server(self.r, "--date", DATE, "--count-limit", "9:9").wait_ready()
        info = write(os.path.join(self.r.work, "job.info"), f"type=full\ncreated={DATE} 01:00:00")
        self.assert_success(self.r.run("--put", "--info-file", info,
                                       write(os.path.join(self.r.work, f"F{DATE}.web3.1.dar"), b"x")))
        wait_for(lambda: f"F{DATE}.web3.1.dar" in self.r.stored(), "the slice of a job that runs")
        self.assertEqual((0, ""), self.verify()[::2])
        status, out, err = self.verify("--orphans")
        self.assertEqual((3, 3), (status, err.count("is on the storage, and no info file here names it")), err)
        self.assertIn(f"'F{day(-9)}.web1.1.dar' is on", err)
        self.assertIn(f"'web5/{day(-9)}/F{day(-9)}.web5.tgz' is on", err)
        self.assertIn("'\\x1b]0;title' is on", err)
        self.assertNotIn("web3", err)
        self.assertEqual(1, self.verify("--orphans", "--user", "web5")[2].count("is on"))
        self.assertEqual(0, server.end())

    def test_a_storage_that_does_not_answer_is_named(self):
        self.make_backups()
        os.rename(self.r.storage, self.r.storage + ".away")
        status, out, err = self.verify("--content", "100")
        self.assertEqual((1, ""), (status, out))
        self.assertIn(self.r.storage, err)
        self.assertEqual(1, self.verify(token="sftp://user@127.0.0.1:1/x?timeout=1")[0])
        self.assertEqual(1, self.report("--verify")[0])
        for arguments in (["--content", "0"], ["--content", "101"], ["--seed", "x"]):
            self.assertEqual(2, self.verify(*arguments)[0])

    def test_the_directory_of_a_killed_check_is_removed(self):
        self.make_backups()
        gone = start(["true"])
        gone.wait()
        write(self.r.file(f"tmp/quarn2_report.{gone.pid}/slice"), b"x")
        self.assertEqual(0, self.verify("--content", "1")[0])

    def test_dar_finds_a_flipped_bit(self):
        paths = self.make_dar(DATE, "web1", size=25_000)
        self.assertEqual(3, len(paths))
        self.put_paths("web1", paths)
        self.assert_test_finds("web1", "dar", os.path.join(self.r.storage, f"F{DATE}.web1.2.dar"))
        _, out, err = self.verify("--content", "100", "--json", "--anonymous")
        self.assertEqual("damaged", json.loads(out.splitlines()[0])["problem"])
        self.assertNotIn("noise", out + err)

    def test_dar_tests_encrypted_slices(self):
        self.r.token += "?arch_password=secret"
        self.put_paths("web1", self.make_dar(DATE, "web1", size=25_000))
        status, out, err = self.verify("--content", "100")
        self.assertEqual((0, ""), (status, err))
        self.assertIn("archives  1 tested, 0 only downloaded\n", out)

    def test_gzip_finds_a_flipped_bit(self):
        data = gzip.compress(os.urandom(20_000))
        stored = self.put_one("web1", [(".tgz.part1", data[:9000]), (".tgz.part2", data[9000:])])
        self.assert_test_finds("web1", "gzip", stored[1])

    def test_zstd_finds_a_flipped_bit(self):
        data = subprocess.run(["zstd", "-q", "-c"], input=os.urandom(20_000), stdout=subprocess.PIPE, check=True).stdout
        self.assert_test_finds("web1", "zstd", self.put_one("web1", [(".tar.zst.part1", data)])[0])

    def test_unzip_finds_a_flipped_bit(self):
        buffer = io.BytesIO()
        with zipfile.ZipFile(buffer, "w") as archive:
            archive.writestr("noise", os.urandom(20_000))
        self.assert_test_finds("web1", "unzip", self.put_one("web1", [(".zip", buffer.getvalue())])[0])

    def test_no_program_gets_the_name_of_a_user(self):
        user = "a;$(touch${IFS}pwned)'%n\""
        self.put_paths(user, self.make_dar(DATE, user))
        status, out, err = self.verify("--content", "100")
        self.assertEqual((0, ""), (status, err))
        self.assertIn("archives  1 tested, 0 only downloaded\n", out)
        self.assertFalse(os.path.exists(self.r.file("pwned")))

    def test_a_missing_program_is_named_with_its_package(self):
        self.make_backups()
        status, out, err = self.verify("--content", "100", PATH="/nowhere")
        self.assertEqual((3, "quarn2_report: finding: archives '.dar' were downloaded but not tested, because the program "
                             "'dar' is missing; install the package dar\n"), (status, err))
        self.assertIn("archives  0 tested, 2 only downloaded\nproblems  1\n", out)

    def test_a_rotation_downloads_each_backup_on_one_day(self):
        self.make_backups()
        counts = []
        for number in (0, 1, 2):
            _, out, err = self.verify("--content", "1/3", "--date", day(number), "--json")
            self.assertEqual("", err)
            counts.append(json.loads(out)["content"])
        self.assertEqual(2, sum(counts), counts)
        self.assertRegex(self.verify("--content", "1/30")[1], r"content   \d of them downloaded, day \d+ of 30\n")
