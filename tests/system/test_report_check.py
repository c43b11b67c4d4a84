"""quarn2_report --check: its line and its exit statuses."""

import datetime
import json
import os

from local_files import write
from report_test_case import HOSTILE, ReportTest
from samples import DATE, chain, day, write_info


class Check(ReportTest):
    def check(self, *arguments):
        """Returns the exit status and the text before the performance data."""
        status, out, _ = self.report("--check", *arguments)
        self.assertEqual(1, out.count("\n"))
        return status, out.split(" | ")[0]

    def test_is_ok_with_performance_data(self):
        chain(self.r, "web1", "FDD", size=2000)
        write_info(self.r.info_root, "web1", DATE, size="2000", type="x", created=f"{DATE} 01:00:00")
        self.assertEqual("OK: 1 users, 3 backups, 6.00 kB of 9.00 kB | used=6000B;;;0;9000 unfinished=0B;;;0 users=1;;;0 "
                         "backups=3;;;0 overdue=0;;0;0 refused=0;;0;0 failed_deletions=0;;0;0 not_restorable=0;;0;0\n",
                         self.fine("--check", "--date", DATE, "--size-limit", "9000"))

    def test_an_overdue_user_and_a_missing_full_backup_are_critical(self):
        write_info(self.r.info_root, "web1", day(-2), size="10", type="x", created=f"{day(-2)} 01:00:00")
        self.assertEqual((2, "CRITICAL: 1 user without a complete backup in 26 hours: web1; 1 daily backup without the full "
                             f"backup: {day(-2)}.web1"), self.check("--date", DATE))
        self.assertEqual((2, f"CRITICAL: 1 daily backup without the full backup: {day(-2)}.web1"),
                         self.check("--date", DATE, "--max-age", "47"))

    def test_refused_uploads_and_failed_deletions_are_critical(self):
        now = datetime.datetime.now(datetime.timezone.utc)
        def event(kind, user, hours):
            time = (now - datetime.timedelta(hours=hours)).strftime("%Y-%m-%dT%H:%M:%S.000Z")
            return json.dumps({"time": time, "event": kind, "user": user, "date": DATE}) + "\n"
        path = write(self.r.file("var/quarn2_cp.events"),
                     event("refused", "web9", 30) + event("refused", "web1", 3) + event("refused", "web2", 2) +
                     event("deletion-failed", "web4", 2) + event("completed", "web1", 1))
        os.chmod(path, 0o600)
        self.assertEqual((2, "CRITICAL: 1 user whose upload was refused or abandoned: web2; 1 deletion failed: "
                             f"{DATE}.web4"), self.check())
        found, = self.objects("--check", status=2)
        self.assertEqual(("CRITICAL", 2, ["web2"]), (found["status"], found["exit_status"], found["refused"]))
        self.assertNotIn("web2", self.check("--anonymous")[1])

    def test_a_state_that_cannot_be_read_is_unknown(self):
        os.mkdir(self.r.file("var/quarn2_cp.events"))
        status, text = self.check()
        self.assertEqual(3, status)
        self.assertRegex(text, "^UNKNOWN: 1 part of the state cannot be read: events file: ")
        self.assertEqual(3, self.check("--path", "var/none")[0])
        self.assertRegex(self.check("--nothing")[1], "^UNKNOWN: .*--nothing")
        self.assertEqual((3, "UNKNOWN: --min-days '0' cannot be used: expected a number of days above 0\n"),
                         self.check("--min-days", "0"))
        self.assertEqual((3, ""), self.report("--check", "--json", "--nothing")[:2])

    def test_a_limit_that_keeps_too_few_days_is_a_warning(self):
        today = datetime.datetime.now(datetime.timezone.utc)
        lines = ""
        for age in range(28, 0, -1):
            time = (today - datetime.timedelta(days=age)).strftime("%Y-%m-%dT12:00:00.000Z")
            lines += json.dumps({"time": time, "event": "completed", "user": "web1", "size": 1000, "used": 5000,
                                 "limit": 5000}) + "\n"
        os.chmod(write(self.r.file("var/quarn2_cp.events"), lines), 0o600)
        self.assertEqual((0, "OK: 0 users, 0 backups, 0 B"), self.check("--min-days", "4"))
        self.assertEqual((1, "WARNING: already the size limit keeps fewer than 7 days of backups"),
                         self.check("--min-days", "7"))
        self.assertEqual(0, self.check("--min-days", "7", "--size-limit", "1000000")[0])
        self.assertEqual(0, self.check("--min-days", "7", "--size-limit", "0")[0])
        self.assertEqual(1, self.check("--min-days", "4", "--size-limit", "3000")[0])

    def test_hostile_names_stay_on_one_line(self):
        for name in (*HOSTILE, b"a|b"):
            path = os.path.join(self.r.info_root.encode(), b"2026-11-01." + name + b".info")
            with open(path, "wb") as file:
                file.write(b"type=full\nsize=10\nfinished=x")
        status, out, _ = self.report("--check", "--date", DATE)
        self.assertEqual((2, 1), (status, out.count("|")))
        self.assertTrue(out[:-1].isprintable())
