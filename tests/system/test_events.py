"""The events file: the events of a night of jobs, a deletion, a rescan and a clear."""

import json
import os
import stat
import subprocess

from local_files import read, write
from samples import DATE, Backup, day, info_text
from server_command import Server
from system_test import SystemTest
from waiting import wait_for


class EventsTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()

    def events(self):
        return [json.loads(line) for line in read(self.r.file("var/quarn2_cp.events")).decode().splitlines()]

    def names(self, *members):
        """Returns each event as a tuple of its kind and these members; None for an absent one."""
        return [tuple(event.get(member) for member in ("event", *members)) for event in self.events()]

    def put(self, user, size):
        """Makes a full backup of one slice. Returns the result of the first command that fails."""
        stem = f"{DATE}.{user}"
        info = write(os.path.join(self.r.info_root, stem + ".info"),
                     info_text({"type": "full", "created": f"{DATE} 00:00:00"}))
        path = write(os.path.join(self.r.work, f"F{stem}.1.dar"), b"x" * size)
        result = self.r.run("--put", path, "-I", info, "--last_slice")
        if result.returncode != 0:
            return result
        index = write(os.path.join(self.r.info_root, stem + ".1.dar"), b"i")
        return self.r.run("--put", index, "-I", info, "--isolated", "--no-delete")


class ANight(EventsTest):
    def test_of_jobs(self):
        for offset in (-14, -7):
            Backup(self.r, "web1", day(offset), size=2000)
        server = Server(self.r, "--date", DATE, "--size-limit", "5000").wait_ready()
        refused = self.put("web2", 90000)
        self.assertEqual(1, refused.returncode)
        self.assert_success(self.put("web3", 2500))
        server.end()
        found = self.names("reason", "user", "date")
        self.assertEqual(("server-started", None, None, None), found[0])
        self.assertEqual(("server-ended", None, None, None), found[-1])
        self.assertIn(("refused", None, "web2", DATE), found)
        self.assertEqual([("deletion-begun", "size-reserve", "web1", day(-14)),
                          ("deleted", "size-reserve", "web1", day(-14))],
                         [event for event in found if event[0].startswith("delet")])
        self.assertEqual(1, found.count(("completed", None, "web3", DATE)))
        stored = [event["detail"] for event in self.events() if event["event"] == "stored"]
        self.assertEqual([f"F{DATE}.web3.1.dar", f"{DATE}.web3.1.dar", f"{DATE}.web3.info"],
                         sorted(stored, key=lambda name: ("F" not in name, name)))
        completed = next(event for event in self.events() if event["event"] == "completed")
        self.assertEqual((5000, "full", "local"), (completed["limit"], completed["type"], completed["node"]))
        self.assertEqual(completed["used"], 2000 + completed["size"])
        self.assertEqual(0o600, stat.S_IMODE(os.stat(self.r.file("var/quarn2_cp.events")).st_mode))

    def test_a_server_without_a_limit_writes_none(self):
        Server(self.r, "--storage", "site", "--path", "var/backup/tovarn").wait_ready().end()
        self.assertEqual([("server-started", "site", None, 0), ("server-ended", "site", None, 0)],
                         self.names("storage", "limit", "used"))


class ShortCommands(EventsTest):
    def test_delete_of_a_full_backup_with_its_daily(self):
        full = Backup(self.r, "web1", day(-5))
        Backup(self.r, "web1", day(-4), "incremental", base=f"F{day(-5)}.web1.tgz")
        self.assert_success(self.r.run("--delete", full.info_path, "--force"))
        self.assertEqual([("deletion-begun", "dependant", day(-4)), ("deleted", "dependant", day(-4)),
                          ("deletion-begun", "asked", day(-5)), ("deleted", "asked", day(-5))],
                         self.names("reason", "date"))

    def test_clear(self):
        Backup(self.r, "web1", DATE)
        self.assert_success(self.r.run("--clear"))
        self.assertEqual([("deletion-begun", "clear", None), ("deleted", "clear", DATE),
                          ("deleted", "clear", None)], self.names("reason", "date"))

    def test_rescan_and_the_server_after_it(self):
        Backup(self.r, "web1", DATE, size=100)
        write(os.path.join(self.r.info_root, f"{day(-1)}.web9.info"),
              info_text({"finished": f"{DATE} 01:00:00", "size": 7, "type": "full"}))
        server = Server(self.r, "--rescan").wait_ready()
        pid_file = read(server.pid_file)
        wait_for(lambda: len(self.events()) > 2, "the event of the server's start")
        self.assertEqual([("deleted", "rescan", "web9", None), ("rescan", None, None, 100),
                          ("server-started", None, None, 100)], self.names("reason", "user", "used"))
        self.assertEqual("backups: 1", self.events()[1]["detail"])
        self.assertEqual(pid_file, read(server.pid_file))
        server.end()

    def test_the_list_of_incomplete_backups(self):
        write(os.path.join(self.r.info_root, ".cleanup"), f"{self.r.token}\t{day(-1)}.web1\n")
        write(os.path.join(self.r.storage, f"F{day(-1)}.web1.tgz"), b"x")
        Server(self.r, "--date", DATE).wait_ready().end()
        self.assertIn(("deleted", "incomplete", "web1", day(-1)), self.names("reason", "user", "date"))
        self.assertEqual([], self.r.stored())

    def test_a_command_succeeds_without_events(self):
        full = Backup(self.r, "web1", DATE)
        os.mkdir(self.r.file("var/quarn2_cp.events"))
        self.assert_success(self.r.run("--delete", full.info_path))
        self.assertTrue(full.is_gone())
        self.assertEqual(1, sum("events are lost" in text or "quarn2_cp.events" in text
                                for text in self.r.log_texts(4)))


class TheFileCannotBeWritten(EventsTest):
    """The events file is on a file system of its own, because the log must remain writable."""

    def mount_events(self, *options):
        """Mounts an events file on a full file system over the events file of the root."""
        disk = os.path.join(self.r.base, "disk")
        path = self.r.file("var/quarn2_cp.events")
        os.mkdir(disk)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k,mode=700", "tmpfs", disk], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", disk], check=True)
        line = b'{"time":"2026-11-20T12:00:00.123Z","event":"rescan"}\n'
        write(os.path.join(disk, "events"), b"\n" * (4096 - len(line)) + line)
        os.chmod(os.path.join(disk, "events"), 0o600)
        write(path, "")
        subprocess.run(["mount", "--bind", os.path.join(disk, "events"), path], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", path], check=True)
        if options:
            subprocess.run(["mount", "-o", ",".join(("remount", "bind", *options)), path], check=True)
        return path

    def check_a_night(self, path, reason):
        before = read(path)
        old = [Backup(self.r, "web1", day(offset), size=2000) for offset in (-14, -7)]
        server = Server(self.r, "--date", DATE, "--size-limit", "5000").wait_ready()
        client = server.node_client()
        self.assert_success(self.put("web3", 2500))
        self.assertEqual(0, server.end())
        self.assertTrue(old[0].is_gone())
        self.assertTrue(old[1].is_whole())
        self.assertEqual(before, read(path))
        # The server and its node client both write several events.
        lost = [entry for entry in self.r.log(4) if "quarn2_cp.events" in entry.text]
        self.assertEqual(sorted((client, server.daemon)), sorted(entry.pid for entry in lost))
        for entry in lost:
            self.assertIn("so this event and possibly later ones are lost. What: ", entry.text)
            self.assertIn(reason, entry.text)

    def test_on_a_full_disk(self):
        self.check_a_night(self.mount_events(), "No space left on device")

    def test_on_a_disk_that_is_read_only(self):
        self.check_a_night(self.mount_events("ro"), "Read-only file system")
