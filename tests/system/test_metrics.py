"""quarn2_metrics: the figures of quarn2_report as metrics for Prometheus."""

import json
import os
import shutil
import stat
import subprocess
import sys
import time

from local_files import read, write
from prometheus_client.parser import text_string_to_metric_families
from processes import start
from report_test_case import HOSTILE, VIEWS, ReportTest
from samples import DATE, chain, day, write_info
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE

sys.path.insert(0, VIEWS)
from quarn2_views import metrics  # noqa: E402
from quarn2_views.replacement import replace_file  # noqa: E402

NOTHING = {"has_data": False, "expected_days": None, "earliest_days": None, "latest_days": None}
STATUS = {
    "server": {"status": "none"}, "limits": {"size": None, "full": None, "daily": None}, "used": 5, "protected": 4,
    "never_evicted": 3, "unfinished": 2, "being_deleted": 1, "reserved": None, "free": None, "users": 6,
    "backups": {"full": 7, "daily": 8}, "oldest": None, "newest": None, "max_age_hours": 26, "overdue": [],
    "forecast": {"evictions": NOTHING, "refusals": NOTHING}, "verification": None, "deletions": {"asked": {"backups": 9, "bytes": 10}}}


def samples(found):
    """Returns {(name, *labels): value}."""
    return {(metric.name, *labels): value for metric in found for labels, value in metric.samples}


class Decisions(SystemTest):
    """Which value becomes which metric."""

    def changed(self, findings=0, **changes):
        """Returns the samples that differ from those of STATUS, None for a missing one."""
        before = samples(metrics.status_metrics(STATUS, 0))
        after = samples(metrics.status_metrics({**STATUS, **changes}, findings))
        return {key: after.get(key) for key in sorted({*before, *after}) if before.get(key) != after.get(key)}

    def test_each_value_becomes_its_metric(self):
        self.assertEqual({
            ("quarn2_used_bytes",): 5, ("quarn2_protected_bytes",): 4, ("quarn2_never_evicted_bytes",): 3,
            ("quarn2_unfinished_bytes",): 2, ("quarn2_being_deleted_bytes",): 1, ("quarn2_users",): 6,
            ("quarn2_backups", "full"): 7, ("quarn2_backups", "daily"): 8, ("quarn2_overdue_users",): 0,
            ("quarn2_max_age_seconds",): 93600, ("quarn2_unreadable_parts",): 0, ("quarn2_server_running",): 0,
            ("quarn2_deletions_total", "asked"): 9, ("quarn2_deleted_bytes_total", "asked"): 10,
        }, samples(metrics.status_metrics(STATUS, 0)))

    def test_values_that_are_only_sometimes_there(self):
        late = {"has_data": True, "expected_days": 3, "earliest_days": 2, "latest_days": None}
        never = {"has_data": True, "expected_days": None, "earliest_days": None, "latest_days": None}
        for changes, expected in (
                ({"reserved": 0, "free": -1}, {("quarn2_reserved_bytes",): 0, ("quarn2_free_bytes",): -1}),
                ({"limits": {"size": 100, "full": "none", "daily": 0}},
                 {("quarn2_size_limit_bytes",): 100, ("quarn2_count_limit", "daily"): 0}),
                ({"limits": {"size": "none", "full": 4, "daily": 21}},
                 {("quarn2_count_limit", "daily"): 21, ("quarn2_count_limit", "full"): 4}),
                ({"server": {"status": "runs"}}, {("quarn2_server_running",): 1}),
                ({"server": {"status": "starting or ending"}}, {}),
                ({"overdue": [{}, {}], "findings": 5},
                 {("quarn2_overdue_users",): 2, ("quarn2_unreadable_parts",): 3}),
                ({"forecast": {"evictions": late, "refusals": never}},
                 {("quarn2_forecast_seconds", "evictions", "expected"): 3 * 86400,
                  ("quarn2_forecast_seconds", "evictions", "earliest"): 2 * 86400}),
                ({"verification": {"time": "2026-11-20 03:00:10", "backups": 3, "files": 9, "content": 1, "problems": 0}},
                 {("quarn2_verification_timestamp_seconds",): metrics.day_seconds("2026-11-20") + 10810,
                  ("quarn2_verification_backups",): 3, ("quarn2_verification_downloaded_backups",): 1,
                  ("quarn2_verification_problems",): 0}),
                ({"oldest": "2026-11-20", "newest": "no date"},
                 {("quarn2_oldest_backup_timestamp_seconds",): metrics.day_seconds("2026-11-20")})):
            with self.subTest(changes=changes):
                self.assertEqual(expected, self.changed(**changes))

    def test_users_with_the_same_text_are_one_sample(self):
        backups = [{"user": "\ufffd", "date": date, "size": 7, "state": state}
                   for date, state in (("2026-11-20", "complete"), ("2026-11-19", "complete"), ("2026-11-21", "unfinished"))]
        self.assertEqual({("quarn2_user_used_bytes", "\ufffd"): 14, ("quarn2_user_backups", "\ufffd"): 2,
                          ("quarn2_user_newest_backup_timestamp_seconds", "\ufffd"): metrics.day_seconds("2026-11-20")},
                         samples(metrics.user_metrics(backups)))


class Replacement(SystemTest):
    def test_sets_the_mode_and_leaves_no_other_file(self):
        path = os.path.join(self.folder, "a.prom")
        self.addCleanup(os.umask, os.umask(0o077))
        for content in (b"first", b"second"):
            write(os.path.join(self.folder, ".a.prom.new"), b"left by a killed program")
            replace_file(path, content, 0o644)
            self.assertEqual(content, read(path))
            self.assertEqual(0o644, stat.S_IMODE(os.stat(path).st_mode))
            self.assertEqual(["a.prom"], os.listdir(self.folder))

    def test_a_failed_replacement_keeps_the_file(self):
        path = write(os.path.join(self.folder, "a.prom"), b"old")
        with self.assertRaises(TypeError):
            replace_file(path, "no bytes", 0o644)
        self.assertEqual((b"old", ["a.prom"]), (read(path), os.listdir(self.folder)))

    def test_replaces_the_target_of_a_link_and_no_device(self):
        path = write(os.path.join(self.folder, "a.prom"), b"old")
        link = os.path.join(self.folder, "link.prom")
        os.symlink("a.prom", link)
        replace_file(link, b"new", 0o644)
        self.assertTrue(os.path.islink(link))
        self.assertEqual(b"new", read(path))
        os.mkfifo(os.path.join(self.folder, "pipe"))
        with self.assertRaisesRegex(OSError, "plain file"):
            replace_file(os.path.join(self.folder, "pipe"), b"new", 0o644)

    def test_keeps_the_group(self):
        if os.geteuid() != 0:
            self.skipTest("only root can change the group")
        path = write(os.path.join(self.folder, "a.prom"), b"old")
        os.chown(path, -1, 54321)
        replace_file(path, b"new", 0o640)
        self.assertEqual(54321, os.stat(path).st_gid)


class Metrics(ReportTest):
    def setUp(self):
        super().setUp()
        self.file = os.path.join(self.folder, "quarn2.prom")

    def metrics(self, *arguments, report=None):
        """Returns exit status, samples as {(name, *labels): value}, and standard error."""
        process = start([os.path.join(VIEWS, "quarn2_metrics"), "--report", report or self.binary, *arguments], cwd="/",
                        env=self.r.environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, err = process.communicate(timeout=DEADLINE)
        files = [name for name in arguments if str(name).endswith(".prom")]
        text = read(files[0]).decode() if files and os.path.exists(files[0]) else out.decode()
        self.check_with_promtool(text)
        found = {}
        for family in text_string_to_metric_families(text):
            for one in family.samples:
                labels = [one.labels[name] for name in one.labels if name != "storage"]
                found[one.name, *labels] = one.value
                self.assertEqual(self.storage, one.labels["storage"])
        return process.returncode, found, err.decode()

    storage = ""

    def check_with_promtool(self, text):
        """Uses promtool, because the parser of the Python library does not check names and texts that are not UTF-8."""
        tool = shutil.which("promtool")
        if tool and text:
            result = subprocess.run([tool, "check", "metrics"], input=text.encode(), capture_output=True, check=False)
            self.assertEqual((0, b""), (result.returncode, result.stdout + result.stderr))

    def test_of_a_night(self):
        server = Server(self.r, "--date", DATE, "--size-limit", "9000", "--count-limit", "9:9").wait_ready()
        self.put(DATE, "web1")
        status, found, err = self.metrics("--date", DATE, self.file)
        self.assertEqual((0, ""), (status, err))
        used = self.status("--date", DATE)["used"]
        self.assertEqual((used, 9000, 1, 1), tuple(found[key] for key in (
            ("quarn2_used_bytes",), ("quarn2_size_limit_bytes",), ("quarn2_server_running",), ("quarn2_report_success",))))
        self.assertEqual(0o644, stat.S_IMODE(os.stat(self.file).st_mode))
        self.assertEqual(0, server.end())
        self.assertEqual(0, self.metrics("--date", DATE, self.file)[1]["quarn2_server_running",])
        self.assertIn(b"# TYPE quarn2_deletions_total counter\n", read(self.file))

    def test_deletions_are_counted_since_the_rotation(self):
        def events(path, *reasons):
            os.chmod(write(self.r.file(path), "".join(json.dumps(
                {"time": f"{DATE}T12:00:00.000Z", "event": "deleted", "user": "web1", "reason": reason, "size": 5}) + "\n"
                for reason in reasons)), 0o600)
        def counted():
            found = self.metrics()[1]
            return [found["quarn2_deletions_total", reason] for reason in ("count-full", "asked", "unknown", "clear")] + [
                found["quarn2_deleted_bytes_total", "count-full"]]
        events("var/quarn2_cp.events", "count-full", "asked", "of a newer version")
        self.assertEqual([1, 1, 1, 0, 5], counted())
        os.rename(self.r.file("var/quarn2_cp.events"), self.r.file("var/quarn2_cp.events.1"))
        self.assertEqual([0, 0, 0, 0, 0], counted())
        events("var/quarn2_cp.events", "count-full", "count-full")
        self.assertEqual([2, 0, 0, 0, 10], counted())

    def test_a_report_that_fails_leaves_no_old_figures(self):
        chain(self.r, "web1", "FD")
        self.assertIn(("quarn2_used_bytes",), self.metrics(self.file)[1])
        broken = write(os.path.join(self.folder, "broken"), "#!/bin/sh\necho '{\"used\":1}'\n")
        os.chmod(broken, 0o755)
        hangs = write(os.path.join(self.folder, "hangs"), "#!/bin/sh\nexec sleep 60\n")
        os.chmod(hangs, 0o755)
        for arguments, report, reason in (
                (["--path", "var/none"], None, "info root 'var/none' does not exist: is --path right?"),
                ([], "/nothing", "/nothing cannot be started: No such file or directory"),
                ([], "/bin/true", "quarn2_report printed no status"),
                ([], "/bin/ls", "ls"),
                ([], broken, "(KeyError('limits')): are both of the same version?"),
                (["--timeout", "1"], hangs, "did not end within 1 seconds")):
            with self.subTest(reason=reason):
                status, found, err = self.metrics(*arguments, self.file, report=report)
                self.assertEqual((1, [("quarn2_report_success",), ("quarn2_report_timestamp_seconds",)]),
                                 (status, sorted(found)))
                self.assertEqual(0, found["quarn2_report_success",])
                self.assertIn(reason, err)

    def test_overdue_users_and_broken_files_are_different_findings(self):
        write_info(self.r.info_root, "web1", day(-5), size="10", created=f"{day(-5)} 01:00:00")
        write_info(self.r.info_root, "web2", DATE, size="many")
        found = self.metrics("--date", DATE)[1]
        self.assertEqual((1, 1, 1), (found["quarn2_overdue_users",], found["quarn2_unreadable_parts",],
                                     found["quarn2_report_success",]))
        self.assertEqual(0, self.metrics("--date", DATE, "--max-age", "999")[1]["quarn2_overdue_users",])

    def test_hostile_names_are_labels_only_on_request(self):
        for name in HOSTILE:
            with open(os.path.join(self.r.info_root.encode(), DATE.encode() + b"." + name + b".info"), "wb") as file:
                file.write(b"type=full\nsize=10\nfinished=x")
        self.assertNotIn("quarn2_user_backups", {key[0] for key in self.metrics("--date", DATE)[1]})
        found = self.metrics("--date", DATE, "--per-user", "--max-age", "30")[1]
        self.assertEqual((1, 30 * 3600), (found["quarn2_report_success",], found["quarn2_max_age_seconds",]))
        self.assertEqual({name.decode(errors="replace") for name in HOSTILE},
                         {key[1] for key in found if key[0] == "quarn2_user_backups"})
        out = str(self.metrics("--date", DATE, "--per-user", "--anonymous"))
        for name in ("crimson", "script", "quote", "revers"):
            self.assertNotIn(name, out)

    def test_a_storage_of_its_own_is_a_label(self):
        self.storage = 'own"1'
        self.assertEqual(0, self.metrics("--storage", self.storage)[0])
        self.assertEqual(1, self.metrics("--storage", self.storage, "--path", "var/none")[0])
        self.storage = "\ufffd"
        self.assertEqual(0, self.metrics("--storage", b"\xff")[0])
        self.assertEqual(0, self.metrics("--storage", b"\xff", "--path", "var/none")[1]["quarn2_report_success",])
        self.storage = 'own"1'
        self.storage = self.status("--storage", self.storage, "--anonymous")["storage_name"]
        self.assertRegex(self.storage, "^user-[0-9a-f]{16}$")
        self.assertEqual(0, self.metrics("--storage", 'own"1', "--anonymous")[0])
        self.storage = "anonymous"
        self.assertEqual(1, self.metrics("--storage", 'own"1', "--anonymous", "--path", "var/none")[0])

    def test_the_last_verification(self):
        chain(self.r, "web1", "F")
        self.assertEqual([], [key for key in self.metrics()[1] if "verification" in key[0]])
        process = start([self.binary, "--verify"], env=self.r.environment(), stdout=subprocess.PIPE)
        process.communicate(timeout=DEADLINE)
        found = self.metrics()[1]
        # The sample's info file does not contain the sum of the sizes, which is one problem.
        self.assertEqual((1, 0, 1), tuple(found["quarn2_verification_" + key,] for key in (
            "backups", "downloaded_backups", "problems")))
        self.assertAlmostEqual(time.time(), found["quarn2_verification_timestamp_seconds",], delta=DEADLINE)

    def test_the_command_line_and_the_file_are_checked(self):
        self.assertEqual(2, self.metrics("x.txt")[0])
        self.assertEqual(2, self.metrics("--nothing")[0])
        status, _, err = self.metrics("/nowhere/x.prom")
        self.assertEqual((1, "quarn2_metrics: '/nowhere/x.prom' cannot be written: No such file or directory\n"), (status, err))
        with open("/dev/full", "wb") as full:
            process = start([os.path.join(VIEWS, "quarn2_metrics"), "--report", self.binary], env=self.r.environment(),
                            stdout=full, stderr=subprocess.PIPE)
            self.assertIn(b"'standard output' cannot be written: No space left", process.communicate(timeout=DEADLINE)[1])
        self.assertEqual(1, process.returncode)
