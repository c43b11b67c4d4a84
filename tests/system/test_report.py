"""quarn2_report: its output for real backups. The report disturbs no server and writes no file."""

import os
import shutil
import signal
import subprocess

from local_files import read, write
from processes import wait_gone
from report_test_case import ReportTest
from samples import DATE, day, write_info
from server_command import Server
from waiting import DEADLINE, wait_for


class RealBackups(ReportTest):
    def setUp(self):
        super().setUp()
        self.server = Server(self.r, "--date", DATE, "--size-limit", "1000000", "--count-limit", "9:9").wait_ready()
        self.put(day(-5), "web1")
        self.put(day(-1), "web1", "incremental", slices=1, base=f"F{day(-5)}.web1.tgz")
        self.put(DATE, "web1", "incremental", slices=1, base=f"F{day(-5)}.web1.tgz")
        self.put(DATE, "web2")

    def settled_status(self, **options):
        """Returns the status when the server has written its state file after the last completion."""
        return wait_for(lambda: next((one for one in [self.status("--date", DATE, **options)] if one["reserved"] == 0), None),
                        "a state file without reserved bytes")

    def check_files(self, date, expected):
        files = self.objects("--chain", "web1", date)
        self.assertEqual(expected, [file["name"] for file in files])
        for file in files:
            self.assertIn(file["size"], (None, self.stored_size(file["name"])), file)
        return files

    def test_the_status_while_a_server_runs_and_afterwards(self):
        before = self.settled_status()
        used = sum(map(self.stored_size, self.r.stored()))
        self.assertEqual({"status": "runs", "pid": str(self.server.daemon), "date": DATE,
                          "storage": "local://" + self.r.storage, "stale_state_file": None},
                         {key: value for key, value in before["server"].items() if key != "since"})
        self.assertRegex(before["server"]["since"], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")
        self.assertEqual({"size": 1000000, "full": 9, "daily": 9}, before["limits"])
        self.assertEqual((used, 1000000 - used), (before["used"], before["free"]))
        dailies = [name for name in self.r.stored() if day(-1) in name]
        self.assertEqual(used - sum(map(self.stored_size, dailies)), before["protected"])
        self.assertEqual((2, 2, 2), (before["users"], before["backups"]["full"], before["backups"]["daily"]))
        self.assertEqual((day(-5), DATE), (before["oldest"], before["newest"]))
        self.assertEqual([], before["overdue"])
        self.assertEqual(0, before["reserved"])
        self.assertEqual(["server-started", "stored", "completed"], [one["event"] for one in before["last_events"]])
        unknown = {"has_data": False, "expected_days": None, "earliest_days": None, "latest_days": None}
        self.assertEqual({"evictions": unknown, "refusals": unknown}, before["forecast"])

        self.assertEqual(0, self.server.end())
        after = self.status("--date", DATE)
        self.assertEqual("none", after["server"]["status"])
        self.assertEqual((None, None), (after["limits"]["size"], after["free"]))
        self.assertEqual(before["used"], after["used"])
        limited = self.status("--date", DATE, "--size-limit", str(used), "--count-limit", "3:4")
        self.assertEqual((0, {"size": used, "full": 3, "daily": 4}), (limited["free"], limited["limits"]))
        self.assertIn("unknown (no server runs; give --size-limit)", self.fine("--status", "--date", DATE))

    def test_the_list_shows_chains(self):
        found = self.objects("--list", "--date", DATE)
        self.assertEqual([("web1", day(-5), "full", day(-5), 5), ("web1", day(-1), "daily", day(-5), 1),
                          ("web1", DATE, "daily", day(-5), 0), ("web2", DATE, "full", DATE, 0)],
                         [(one["user"], one["date"], one["type"], one["chain"], one["age_days"]) for one in found])
        for one in found:
            self.assertEqual(("complete", "node7"), (one["state"], one["node"]))
            names = [name for name in self.r.stored() if f"{one['date']}.{one['user']}." in name]
            self.assertEqual(sum(map(self.stored_size, names)), one["size"])
        lines = self.fine("--list", "--date", DATE, "--user", "web1").splitlines()
        self.assertEqual("web1", lines[0])
        self.assertEqual(["date", "type", "size", "days", "finished", "node", "state"], lines[1].split())
        self.assertEqual([(day(-5), "full"), (day(-1), "daily"), (DATE, "daily")],
                         [tuple(line.split()[:2]) for line in lines[2:]])
        column = lines[2].index("full")
        self.assertEqual(column + 2, lines[3].index("daily"))

    def test_the_chain_names_the_stored_files_in_order(self):
        full = [f"F{day(-5)}.web1.1.dar", f"F{day(-5)}.web1.2.dar", f"{day(-5)}.web1.1.dar", f"{day(-5)}.web1.info"]
        self.check_files(day(-5), full)
        files = self.check_files(DATE, full + [f"I{DATE}.web1.1.dar", f"{DATE}.web1.1.dar", f"{DATE}.web1.info"])
        # The report computes the size of a single slice from the size of the backup
        self.assertEqual(1000, files[4]["size"])
        for file in files:
            target = os.path.join(self.r.work, "restored")
            self.assert_success(self.r.run("--get", f"{target}//{file['name']}"))
            self.assertEqual(read(os.path.join(self.r.storage, file["name"])),
                             read(os.path.join(target, file["name"])))
        self.assertEqual((1, "", f"quarn2_report: user 'web1': there is no backup for {day(-3)}; the nearest complete "
                                 f"backups are of {day(-5)} and {day(-1)}\n"),
                         self.report("--chain", "web1", day(-3)))
        self.assertEqual(1, self.report("--chain", "nobody", DATE)[0])

    def test_an_unfinished_backup_is_named_as_such(self):
        path = write(os.path.join(self.r.work, f"F{day(1)}.web3.1.dar"), b"x" * 70)
        info = write(os.path.join(self.r.work, "job.info"), f"type=full\ncreated={DATE} 01:00:00")
        self.assert_success(self.r.run("--put", "--info-file", info, path))
        wait_for(lambda: f"F{day(1)}.web3.1.dar" in self.r.stored(), "the slice on the storage")
        unfinished, = [one for one in self.objects("--list", "--date", DATE) if one["user"] == "web3"]
        self.assertEqual(("unfinished", 70, f"F{day(1)}.web3", None),
                         tuple(unfinished[key] for key in ("state", "size", "archive", "info")))
        # web3 has no complete backup. The reservation is for its slice.
        found = wait_for(lambda: next((one for one in [self.status("--date", DATE, status=3)] if one["reserved"] == 70), None),
                         "a state file with the reserved bytes of the slice")
        self.assertEqual((70, 1), (found["unfinished"], found["backups"]["unfinished"]))
        self.assertEqual(1000000 - found["used"] - 70, found["free"])
        self.assertEqual(["web3"], [one["user"] for one in found["overdue"]])

    def test_a_state_file_of_a_killed_server_is_stale(self):
        client = self.server.node_client()
        os.kill(self.server.daemon, signal.SIGKILL)
        wait_gone(self.server.daemon)
        wait_gone(client)
        found = self.status("--date", DATE)["server"]
        self.assertEqual(("none", None), (found["status"], found["storage"]))
        self.assertIn(f"of process {self.server.daemon}, ", found["stale_state_file"])
        self.assertIn("stale: of process", self.fine("--status", "--date", DATE))

    def test_nothing_is_written(self):
        def snapshot():
            found = {}
            for folder, folders, names in os.walk(self.r.base):
                for name in folders + names:
                    path = os.path.join(folder, name)
                    status = os.lstat(path)
                    found[path] = (status.st_mode, status.st_size, status.st_mtime_ns, status.st_ctime_ns)
            return found
        self.assertEqual(0, self.server.end())
        before = snapshot()
        for arguments in (["--status"], ["--list"], ["--chain", "web1", DATE], ["--status", "--json", "--anonymous"],
                          ["--chain", "web1", "2020-01-01"], ["--status", "--storage", "own"],
                          ["--list", "--path", "var/none"], ["--history"], ["--check"],
                          ["--plan", "--size-limit", "5", "--bytes", "3"]):
            self.report(*arguments)
        self.assertEqual(before, snapshot())


class BesideServers(ReportTest):
    def test_a_hundred_users(self):
        for number in range(100):
            for place in range(-7, 1):
                kind = "full" if place == -7 else "incremental"
                write_info(self.r.info_root, f"user{number}", day(place), size=str(number), type=kind,
                           created=f"{day(place)} 01:00:00")
        found = self.status("--date", DATE)
        self.assertEqual((100, 100, 700), (found["users"], found["backups"]["full"], found["backups"]["daily"]))
        self.assertEqual(8 * sum(range(100)), found["used"])
        self.assertEqual(2 * sum(range(100)), found["protected"])
        self.assertEqual(800, len(self.objects("--list")))
        self.assertEqual(8, len(self.objects("--list", "--user", "user42")))

    def test_a_server_starts_while_a_report_runs(self):
        for number in range(2000):
            write_info(self.r.info_root, f"user{number}", DATE, size="1")
        for name in (f"{DATE}.user{number}.info" for number in range(2000)):
            shutil.copy(os.path.join(self.r.info_root, name), self.r.storage)
        # The report stops in the middle of its output, because nothing reads the pipe.
        process = self.spawn("--list", "--json", stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        process.stdout.read(1)
        self.assertEqual([], [line for line in read("/proc/locks").decode().splitlines()
                              if line.split()[4] == str(process.pid)])
        server = Server(self.r, "--date", DATE, "--count-limit", "9:9").wait_ready()
        self.assertIsNone(process.poll())
        self.assertEqual("runs", self.status("--date", DATE, "--max-age", "99999999")["server"]["status"])
        self.assertEqual(2000, len(process.stdout.read().splitlines()))
        process.stdout.close()
        self.assertEqual(0, process.wait(DEADLINE))
        self.assertEqual(0, server.end())
        self.assertEqual([], server.warnings)

    def test_reports_take_no_lock(self):
        """Traces the system calls. A starting server tries each lock only once, so it would rarely collide with a
        report that holds one."""
        strace = shutil.which("strace")
        if not strace:
            self.skipTest("strace is missing")
        trace = os.path.join(self.folder, "trace")
        Server(self.r, "--date", DATE, "--count-limit", "9:9").wait_ready()
        subprocess.run([strace, "-f", "-o", trace, self.binary, "--status"], check=True, stdout=subprocess.DEVNULL,
                       # The leak sanitizer does not work under a tracer, and a path for the sanitizers' reports would
                       # add calls that are not the program's.
                       env=self.r.environment(BACKUP_TOKEN=None, ASAN_OPTIONS="detect_leaks=0", UBSAN_OPTIONS=None))
        calls = read(trace).decode()
        self.assertIn("F_GETLK", calls)
        for forbidden in ("flock(", "F_SETLK", "F_OFD_SETLK", "O_WRONLY", "O_CREAT", "unlink", "rename", "mkdir"):
            self.assertNotIn(forbidden, calls)
