"""quarn2_report: the faults that it finds, its exit statuses, and the escaping of names in each output format."""

import os
import subprocess

from local_files import write
from report_test_case import HOSTILE, ReportTest
from samples import DATE, Backup, chain, day, info_text, write_info
from waiting import DEADLINE


class Findings(ReportTest):
    def test_exit_statuses(self):
        self.assertEqual(0, self.report("--list")[0])
        self.assertEqual((0, ""), self.report("--help")[::2])
        self.assertEqual(self.report("--help"), self.report("-h"))
        self.assertRegex(self.fine("--version"), r"^quarn2_report \d")
        for arguments in ([], ["--nothing"], ["--list", "x"], ["--chain", "web1"], ["--status", "--date", "x"]):
            status, out, err = self.report(*arguments)
            self.assertEqual((2, ""), (status, out), arguments)
            self.assertTrue(err.endswith("Try 'quarn2_report --help'.\n"), err)
        self.assertEqual((1, "", "quarn2_report: info root 'var/none' does not exist: is --path right?\n"),
                         self.report("--status", "--path", "var/none"))

    def test_full_output_is_a_failure(self):
        chain(self.r, "web1", "FDD")
        with open("/dev/full", "wb") as full:
            process = self.spawn("--list", stdout=full, stderr=subprocess.PIPE)
            self.assertIn(b"cannot write the report", process.communicate(timeout=DEADLINE)[1])
        self.assertEqual(1, process.returncode)

    def test_a_broken_info_file_and_a_broken_entry_are_named_and_the_rest_is_shown(self):
        chain(self.r, "web1", "FD")
        write_info(self.r.info_root, "web2", DATE, size="many")
        write(os.path.join(self.r.info_root, f"{DATE}.web3.info"), b"finished=x\0")
        write(self.r.file(f"var/quarn2_cp.ledger/F{DATE}.web4"), "junk")
        os.chmod(self.r.file("var/quarn2_cp.ledger"), 0o700)
        status, out, err = self.report("--list", "--date", DATE)
        self.assertEqual(3, status)
        self.assertEqual(3, err.count("quarn2_report: finding: "), err)
        self.assertIn(f"ledger entry 'var/quarn2_cp.ledger/F{DATE}.web4': the file does not contain a valid entry", err)
        self.assertIn(f"info file 'var/backup/tovarn/{DATE}.web2.info': 'many' is not a whole decimal number", err)
        self.assertIn(f"{DATE}.web3.info' is not an info file: it contains a NUL byte", err)
        self.assertIn(DATE, out)
        self.assertEqual(2, self.status("--date", DATE, status=3)["backups"]["full"] +
                         self.status("--date", DATE, status=3)["backups"]["daily"])

    def test_an_interrupted_deletion_is_named_as_such(self):
        backup = Backup(self.r, "web1", DATE)
        fields = {key: value for key, value in backup.fields.items() if key != "finished"}
        write(backup.info_path, info_text({**fields, "deletion": f"{DATE} 02:00:00"}))
        found, = self.objects("--list")
        self.assertEqual(("deletion interrupted", backup.size), (found["state"], found["size"]))
        found = self.status("--date", DATE, status=3)
        self.assertEqual((0, backup.size), (found["used"], found["being_deleted"]))

    def test_an_overdue_user_is_named(self):
        write_info(self.r.info_root, "web1", day(-1), size="10", created=f"{day(-1)} 01:00:00")
        write_info(self.r.info_root, "web2", day(-2), size="10", created=f"{day(-2)} 01:00:00")
        status, out, err = self.report("--status", "--date", DATE)
        self.assertEqual(3, status)
        self.assertEqual(f"quarn2_report: finding: user 'web2' is overdue: the newest complete backup is of {day(-2)}, "
                         "47 hours old; the limit is 26 hours\n", err)
        self.assertRegex(out, r"overdue users +1: web2\n")
        self.assertEqual([], self.status("--date", DATE, "--max-age", "47")["overdue"])
        # Without --date, the age counts up to now.
        self.assertEqual(2, len(self.status("--max-age", "1", status=3)["overdue"]))


class HostileNames(ReportTest):
    def setUp(self):
        super().setUp()
        for name in HOSTILE:
            path = os.path.join(self.r.info_root.encode(), DATE.encode() + b"." + name + b".info")
            with open(path, "wb") as file:
                file.write(b"type=full\nsize=10\nlast-slice=../x\nnode=\x1b[31m\ncreated=<b>\nfinished=" +
                           DATE.encode() + b" 01:00:00")
        write_info(self.r.info_root, "\x1b]0;title\x07", DATE, size="many")

    def test_are_data_in_text_and_json(self):
        for mode in ("--list", "--status"):
            status, out, err = self.report(mode, "--date", day(5))
            self.assertEqual(3, status)
            for text in (out, err):
                for character in text.replace("\n", ""):
                    self.assertTrue(character.isprintable(), repr(character))
            found = self.objects(mode, "--date", day(5), status=3)
            self.assertEqual(len(HOSTILE) if mode == "--list" else 1, len(found))
        names = {one["user"] for one in self.objects("--list", status=3)}
        self.assertEqual({name.decode(errors="replace") for name in HOSTILE}, names)
        status, out, err = self.report("--chain", HOSTILE[0].decode(), DATE)
        self.assertEqual((1, ""), (status, out))
        self.assertIn("user '\\x1b[2Jcrimson': ", err)
        self.assertNotIn("\x1b", err)
        status, out, err = self.report("--chain", HOSTILE[1].decode(), DATE)
        self.assertEqual((1, ""), (status, out))
        self.assertIn("names the slice '../x', which does not belong to this backup", err)

    def test_anonymous_output_has_no_name_and_is_the_same_in_each_run(self):
        write(os.path.join(self.r.info_root, "secret-name.info"), "finished=x\nsize=1")
        write_info(self.r.info_root, "web1", DATE, size="1")
        write_info(self.r.info_root, "web5", DATE, size="x")
        write(self.r.file(f"var/quarn2_cp.ledger/F{DATE}.web6"), "junk")
        os.chmod(self.r.file("var/quarn2_cp.ledger"), 0o700)
        for arguments in (["--list"], ["--list", "--json"], ["--status", "--json", "--date", day(9)],
                          ["--chain", "web1", DATE]):
            status, out, err = self.report(*arguments, "--anonymous")
            self.assertIn(status, (1, 3), err)
            for name in ("crimson", "script", "quote", "revers", "nnn", "title", "secret", "web1", "web5", "web6"):
                self.assertNotIn(name, out + err, arguments)
            self.assertEqual((status, out, err), self.report(*arguments, "--anonymous"))

    def test_anonymous_output_does_not_name_the_user_of_a_storage(self):
        os.makedirs(self.r.file("var/backup/web8"))
        for path in ("var/backup/web8", "var/backup/web8/none"):
            for form in ([], ["--json"]):
                out = self.report("--status", "--storage", "web8", "--path", path, "--anonymous", *form)
                self.assertNotIn("web8", str(out))
                self.assertIn("var/backup/user-", str(out))
