"""quarn2_report: what it shows of real backups, that it disturbs no server, and that it writes nothing."""

import datetime
import json
import os
import shutil
import signal
import subprocess

from local_files import read, write
from processes import start, wait_gone
from samples import DATE, Backup, chain, day, info_text, write_info
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE, wait_for

REPORT = os.path.abspath(os.environ.get("QUARN2_REPORT", "build/report/quarn2_report"))
HOSTILE = [b"\x1b[2Jcrimson", b"<script>alert(1)", b"quote\"'\\", b"line\nfeed", b"\xff\xfe\xc3",
           "\u202erevers".encode(), b"n" * 200]


class ReportTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()
        self.binary = self.r.file("sbin/quarn2_report")
        shutil.copy2(REPORT, self.binary)

    def spawn(self, *arguments, **options):
        return start([self.binary, *arguments], cwd="/", env=self.r.environment(BACKUP_TOKEN=None), **options)

    def report(self, *arguments):
        """Returns exit status, standard output and standard error."""
        process = self.spawn(*arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, err = process.communicate(timeout=DEADLINE)
        return process.returncode, out.decode(), err.decode()

    def fine(self, *arguments):
        status, out, err = self.report(*arguments)
        self.assertEqual((0, ""), (status, err))
        return out

    def objects(self, *arguments, status=0):
        """Returns the JSON objects of the lines."""
        returned, out, err = self.report(*arguments, "--json")
        self.assertEqual(status, returned, err)
        return [json.loads(line) for line in out.splitlines()]

    def status(self, *arguments, status=0):
        found, = self.objects("--status", *arguments, status=status)
        return found

    def put(self, date, user, kind="full", slices=2, **fields):
        """Puts a backup as a job does. Returns its stored names."""
        letter = "F" if kind == "full" else "I"
        info = write(os.path.join(self.r.work, f"{date}.{user}.info"),
                     info_text({"type": kind, "created": f"{date} 01:00:00", "node": "node7", **fields}))
        for number in range(1, slices + 1):
            path = write(os.path.join(self.r.work, f"{letter}{date}.{user}.{number}.dar"), b"x" * 1000 * number)
            last = ["--last_slice"] if number == slices else []
            self.assert_success(self.r.run("--put", "--info-file", info, *last, path))
        index = write(os.path.join(self.r.info_root, f"{date}.{user}.1.dar"), b"index")
        self.assert_success(self.r.run("--put", "--info-file", info, "--isolated", "--no-delete", index))

    def stored_size(self, name):
        return os.path.getsize(os.path.join(self.r.storage, name))


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
        self.assertEqual(1000, files[4]["size"])  # follows from the size of the backup
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
        self.assertIn(f"ledger entry 'var/quarn2_cp.ledger/F{DATE}.web4': the text is not that of an entry", err)
        self.assertIn(f"info file 'var/backup/tovarn/{DATE}.web2.info': 'many' is not a whole decimal number", err)
        self.assertIn(f"{DATE}.web3.info' is no info file: it has a NUL byte", err)
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
        self.assertIn("names the slice '../x', which is none of this backup", err)

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


class History(ReportTest):
    def setUp(self):
        super().setUp()
        self.events = self.r.file("var/quarn2_cp.events")

    def write_events(self, *events, path=None, more=b""):
        lines = "".join(json.dumps(event) + "\n" for event in events).encode()
        write(path or self.events, lines + more)
        os.chmod(path or self.events, 0o600)

    @staticmethod
    def event(event, number, **members):
        return {"time": f"{day(number)}T12:00:00.000Z", "event": event, **members}

    def test_of_a_night_with_an_eviction(self):
        for offset in (-14, -7):
            Backup(self.r, "web1", day(offset), size=2000)
        server = Server(self.r, "--date", DATE, "--size-limit", "5000").wait_ready()
        self.put(DATE, "web2", slices=1)
        server.end()
        found = self.objects("--history")
        self.assertEqual([("server-started", None, None), ("deletion-begun", "web1", "size-reserve"),
                          ("deleted", "web1", "size-reserve"), ("completed", "web2", None), ("server-ended", None, None)],
                         [(one["event"], one["user"], one["reason"]) for one in found if one["event"] != "stored"])
        lines = self.fine("--history").splitlines()
        self.assertEqual(len(found), len(lines))
        self.assertRegex(lines[1 if "deletion begun" in lines[1] else 2], "web1 " + day(-14))
        self.assertEqual(1, sum(" deleted " in line and "full, 2.00 kB, space for an upload, used 2.00 kB of 5.00 kB" in
                                line for line in lines))
        self.assertEqual(["web2"] * (len(found) - 4), [one["user"] for one in self.objects("--history", "--user", "web2")])

    def test_broken_lines_are_named_and_the_rest_is_shown(self):
        self.write_events(self.event("stored", 0, user="web1"), path=self.events + ".1", more=b"junk\n")
        self.write_events(self.event("stored", 1, user="web2"), more=b'{"event":"deleted"}\n\n{"time"')
        status, out, err = self.report("--history")
        self.assertEqual(3, status)
        self.assertEqual(["web1", "web2"], [line.split()[-1] for line in out.splitlines()])
        self.assertEqual("quarn2_report: finding: events file 'var/quarn2_cp.events.1', line 2: this is not valid JSON; "
                         "the line is skipped\n"
                         "quarn2_report: finding: events file 'var/quarn2_cp.events', line 2: the time is not of the form "
                         "YYYY-MM-DDTHH:MM:SS.mmmZ; the line is skipped\n", err)
        self.write_events(more=b"junk\n" * 250)
        status, out, err = self.report("--history", "--json")
        self.assertEqual((3, 101), (status, err.count("finding")))
        self.assertIn("events file: 151 further lines are skipped\n", err)

    def test_a_rotated_file_that_cannot_be_read_hides_no_event(self):
        self.write_events(self.event("stored", 1, user="web2"))
        os.symlink("nothing", self.events + ".1")
        self.assertEqual(["web2"], [one["user"] for one in self.objects("--history", status=3)])

    def test_is_filtered(self):
        self.assertEqual("no events are known here\n", self.fine("--history"))
        self.write_events(self.event("stored", -1, user="web1"), self.event("stored", 0, user="web1"),
                          self.event("stored", 0, user="web2", storage="own"))
        since = self.objects("--history", "--since", DATE)
        self.assertEqual([("web1", None), ("web2", "own")], [(one["user"], one["storage"]) for one in since])
        self.assertEqual(1, len(self.objects("--history", "--storage", "own")))
        self.assertEqual(2, len(self.objects("--history", "--user", "web1")))
        self.assertEqual(2, self.report("--history", "--since", "yesterday")[0])

    def test_hostile_texts_are_data_and_names_are_hashed(self):
        for name in HOSTILE:
            text = name.decode(errors="replace")
            self.write_events(self.event("x\x1b", 0, user=text, date=text, type=text, node=text, storage=text, detail=text,
                                         reason="y"))
            for character in self.fine("--history").replace("\n", ""):
                self.assertTrue(character.isprintable(), repr(character))
            found, = self.objects("--history")
            self.assertEqual(("unknown", "unknown", text), (found["event"], found["reason"], found["user"]))
        self.write_events(self.event("refused", 0, user="web7", date="web7", storage="web7", detail="x/F.web7.tgz: web7"))
        for arguments in ([], ["--json"]):
            self.assertNotIn("web7", self.fine("--history", "--anonymous", *arguments))


class Plan(ReportTest):
    def deletions(self, *arguments, status=0):
        """Returns the planned deletions as (reason, user, date), by step."""
        steps = {}
        for one in self.objects("--plan", "--date", DATE, *arguments, status=status):
            steps.setdefault(one["step"], [])
            if one["action"] == "delete":
                steps[one["step"]].append((one["reason"], one["user"], one["date"]))
        return steps

    def events(self):
        return [(one["reason"], one["user"], one["date"]) for one in self.objects("--history")
                if one["event"] == "deleted"]

    def test_is_what_a_server_does(self):
        for user in ("web1", "web2"):
            for offset in (-19, -14, -7):
                Backup(self.r, user, day(offset), size=2000)
            Backup(self.r, user, day(-6), "incremental", size=500)
        limits = ["--size-limit", "11000", "--count-limit", "2:1"]
        planned = self.deletions(*limits, "--for", "web1:full", "--bytes", "4010")
        self.assertEqual([("count-full", "web1", day(-19)), ("count-full", "web2", day(-19))], planned["start"])
        self.assertEqual([("size-reserve", user, day(-14)) for user in ("web1", "web2")], planned["upload"])
        self.assertEqual([], planned["end"])
        server = Server(self.r, "--date", DATE, *limits).wait_ready()
        self.assertEqual(planned["start"], self.events())
        path = write(os.path.join(self.r.work, f"F{DATE}.web1.tgz"), b"x" * 4000)
        info = write(os.path.join(self.r.work, "job.info"), f"type=full\ncreated={DATE} 01:00:00")
        self.assert_success(self.r.run("--put", "--info-file", info, "--last_slice", path))
        self.assertEqual(planned["start"] + planned["upload"], self.events())
        self.assertEqual({"start": [], "upload": [], "end": []}, self.deletions("--bytes", "1"))  # the server's limits
        index = write(os.path.join(self.r.info_root, f"{DATE}.web1.tgz"), b"x")
        self.assert_success(self.r.run("--put", "--info-file", info, "--isolated", "--no-delete", index))
        server.end()
        self.assertEqual(planned["start"] + planned["upload"], self.events())

    def test_as_text(self):
        chain(self.r, "web1", "FDFD", size=2000)
        Backup(self.r, "web2", DATE, size=70)
        write_info(self.r.info_root, "web3", day(3), size="5")
        self.assertEqual(f"""size limit   7.07 kB
count limit  any number of full and 1 daily of each user
at the start of a server
  1  web1  {day(-2)}  daily  2.00 kB  more daily backups than the count limit
for an upload of 1.50 kB
  1  web1  {day(-3)}  full  2.00 kB  space for an upload
at the end of the server
  nothing is deleted
kept
  web1  {day(-1)}  full   2.00 kB  a daily rests on it
  web1  {DATE}  daily  2.00 kB  newest of its user
  web2  {DATE}  full      70 B  newest of its user
  web3  {day(3)}  full       5 B  its date is in the future
""".replace("7.07", "7.08"), self.fine("--plan", "--date", DATE, "-S", "7075", "-C", "0:1", "--bytes", "1500"))

    def test_of_the_usual_size_of_a_user(self):
        chain(self.r, "web1", "FDDD", size=2000)
        limits = ["--size-limit", "8500", "--count-limit", "9:9"]
        out = self.fine("--plan", "--date", DATE, *limits, "--for", "web1:daily")
        self.assertIn("for a daily backup of web1, 2.00 kB (the median of its backups)\n", out)
        self.assertEqual((1, "", "quarn2_report: user 'web9' has no full backup from which the size could be taken: give "
                                 "--bytes\n"), self.report("--plan", *limits, "--for", "web9:full"))

    def test_an_impossible_request_says_by_how_much(self):
        Backup(self.r, "web1", DATE, size=2000)
        status, out, err = self.report("--plan", "--date", DATE, "--size-limit", "2100", "--bytes", "1334")
        text = ("1.23 kB are missing (1234 bytes) even after all possible evictions, so the upload is refused and nothing is "
                "evicted for it\n")
        self.assertEqual((3, "quarn2_report: finding: " + text), (status, err))
        self.assertIn("  impossible: " + text, out)
        self.assertNotIn("at the end", out)
        start, kept = self.objects("--plan", "--date", DATE, "--size-limit", "1999", status=3)
        self.assertEqual({"step": "start", "action": "impossible", "bytes": None, "missing": 1}, start)
        self.assertEqual(("keep", DATE, "newest of its user"), (kept["action"], kept["date"], kept["reason"]))

    def test_needs_limits_and_all_users(self):
        self.assertEqual((1, "", "quarn2_report: the limits are unknown, because no server runs: give --size-limit and "
                                 "--count-limit as the server will get them\n"), self.report("--plan"))
        for arguments in (["--user", "a"], ["--for", "a"], ["--for", ":full"], ["--bytes", "1k"], ["--bytes", "-1"]):
            self.assertEqual(2, self.report("--plan", "-S", "1", *arguments)[0], arguments)

    def test_hostile_names_are_data_and_hashed(self):
        for name in HOSTILE[:5]:
            path = os.path.join(self.r.info_root.encode(), DATE.encode() + b"." + name + b".info")
            with open(path, "wb") as file:
                file.write(b"type=full\nsize=10\nfinished=x")
        for user in ("web7", "web7"):
            chain(self.r, user, "FFF", size=10)
        for arguments in ([], ["--json"], ["--anonymous"]):
            out = self.fine("--plan", "--date", DATE, "--size-limit", "70", "--bytes", "5", *arguments)
            for character in out.replace("\n", ""):
                self.assertTrue(character.isprintable(), repr(character))
        self.assertNotIn("web7", out)
        self.assertNotIn("crimson", out)


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
        self.assertEqual(3, self.report("--check", "--nothing")[0])
        self.assertEqual(3, self.report("--check", "--min-days", "0")[0])

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

    def test_hostile_names_stay_on_one_line(self):
        for name in (*HOSTILE, b"a|b"):
            path = os.path.join(self.r.info_root.encode(), b"2026-11-01." + name + b".info")
            with open(path, "wb") as file:
                file.write(b"type=full\nsize=10\nfinished=x")
        status, out, _ = self.report("--check", "--date", DATE)
        self.assertEqual((2, 1), (status, out.count("|")))
        self.assertTrue(out[:-1].isprintable())


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
        """The start of a server tries each lock once, so a report that held one would be seen only by chance."""
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
