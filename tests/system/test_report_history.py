"""quarn2_report --history."""

import json
import os

from local_files import write
from report_test_case import HOSTILE, ReportTest
from samples import DATE, Backup, day
from server_command import Server


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
        lines, sums = (text.splitlines() for text in self.fine("--history").split("\n\n"))
        self.assertEqual(len(found), len(lines))
        self.assertRegex(lines[1 if "deletion begun" in lines[1] else 2], "web1 " + day(-14))
        self.assertEqual(1, sum(" deleted " in line and "full, 2.00 kB, space for an upload, used 2.00 kB of 5.00 kB" in
                                line for line in lines))
        self.assertEqual([["user", "event", "reason", "events", "size"],
                          ["web1", "deleted", "space", "for", "an", "upload", "1", "2.00", "kB"]],
                         [line.split() for line in sums[:2]])
        self.assertEqual(["web2"] * (len(found) - 4), [one["user"] for one in self.objects("--history", "--user", "web2")])

    def test_sums_are_by_user_and_reason(self):
        self.assertEqual("no events are known here\n", self.fine("--history", "--sums"))
        self.write_events(self.event("stored", 0, user="web1", size=9))
        self.assertEqual("the events contain nothing to add up\n", self.fine("--history", "--sums"))
        self.assertEqual([], self.objects("--history", "--sums"))
        self.write_events(self.event("deleted", -9, user="web1", reason="asked", size=5000),
                          self.event("deleted", 0, user="web1", reason="asked", size=2000),
                          self.event("deleted", 0, user="web1", reason="count-full", size=500),
                          self.event("completed", 0, user="web2", size=700),
                          self.event("refused", 0, user="web1"))
        since = ["--history", "--sums", "--since", DATE]
        self.assertEqual("user         event      reason                                  events     size\n"
                         "web1         refused                                                 1        -\n"
                         "web1         deleted    more full backups than the count limit       1    500 B\n"
                         "web1         deleted    named by --delete                            1  2.00 kB\n"
                         "web2         completed                                               1    700 B\n"
                         "(all users)  completed                                               1    700 B\n"
                         "(all users)  refused                                                 1        -\n"
                         "(all users)  deleted    more full backups than the count limit       1    500 B\n"
                         "(all users)  deleted    named by --delete                            1  2.00 kB\n", self.fine(*since))
        self.assertEqual([{"user": "web1", "event": "refused", "reason": None, "events": 1, "size": None},
                          {"user": "web1", "event": "deleted", "reason": "count-full", "events": 1, "size": 500},
                          {"user": "web1", "event": "deleted", "reason": "asked", "events": 1, "size": 2000},
                          {"user": "web2", "event": "completed", "reason": None, "events": 1, "size": 700}],
                         self.objects(*since))
        self.assertNotIn("web1", self.fine(*since, "--anonymous") + self.fine(*since, "--anonymous", "--json"))
        self.assertEqual(["web2"], [one["user"] for one in self.objects(*since, "--user", "web2")])
        self.assertNotIn("(all users)", self.fine(*since, "--user", "web1"))

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
            self.write_events(self.event("refused", 0, user=text), path=self.events + ".1")
            for character in self.fine("--history").replace("\n", ""):
                self.assertTrue(character.isprintable(), repr(character))
            _, found = self.objects("--history")
            self.assertEqual(("unknown", "unknown", text), (found["event"], found["reason"], found["user"]))
        self.write_events(self.event("refused", 0, user="web7", date="web7", storage="web7", detail="x/F.web7.tgz: web7"))
        for arguments in ([], ["--json"]):
            self.assertNotIn("web7", self.fine("--history", "--anonymous", *arguments))
