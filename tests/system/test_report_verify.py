"""quarn2_report --verify, on storages with and without faults."""

import json
import os
import subprocess

from local_files import read, write
from processes import start
from report_test_case import ReportTest
from samples import DATE, day
from server_command import Server
from waiting import DEADLINE, wait_for


class Verify(ReportTest):
    def verify(self, *arguments, token=None):
        """Returns exit status, standard output and standard error."""
        process = start([self.binary, "--verify", "--date", DATE, *arguments], cwd="/", stdin=subprocess.DEVNULL,
                        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                        env=self.r.environment(BACKUP_TOKEN=token or self.r.token))
        out, err = process.communicate(timeout=DEADLINE)
        self.assertEqual([], [name for name in os.listdir(self.r.file("tmp")) if name.startswith("quarn2_report")])
        return process.returncode, out.decode(), err.decode()

    def make_backups(self):
        server = Server(self.r, "--date", DATE, "--count-limit", "9:9").wait_ready()
        self.put(day(-5), "web1")
        self.put(DATE, "web1", "incremental", slices=1, base=f"F{day(-5)}.web1.tgz")
        self.assertEqual(0, server.end())

    def finding(self, text):
        return f"quarn2_report: finding: backup {day(-5)}.web1: {text}\n"

    def test_of_backups_without_a_fault(self):
        self.make_backups()
        before = {name: os.stat(os.path.join(self.r.storage, name)).st_mtime_ns for name in self.r.stored()}
        self.assertEqual((0, f"storage   {self.r.token}\nbackups   2, 7 files\n"
                             "content   2 of them downloaded, seed 7\norphans   0\nproblems  0\n", ""),
                         self.verify("--content", "100", "--seed", "7", "--orphans"))
        self.assertEqual(before, {name: os.stat(os.path.join(self.r.storage, name)).st_mtime_ns for name in self.r.stored()})
        one = json.loads(self.verify("--content", "50", "--json")[1])
        self.assertEqual((None, 2, 7, 1, 0), tuple(one[key] for key in ("problem", "backups", "files", "content", "problems")))

    def last(self):
        return json.loads(self.report("--status", "--json")[1])["verification"]

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
        os.truncate(os.path.join(self.r.storage, name), 999)
        self.assertEqual(0, self.verify()[0])  # without --content, only the names are compared
        status, _, err = self.verify("--content", "100")
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
