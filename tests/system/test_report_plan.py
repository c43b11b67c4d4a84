"""quarn2_report --plan, compared with the deletions of servers."""

import os

from local_files import write
from report_test_case import HOSTILE, ReportTest
from samples import DATE, Backup, chain, day, write_info
from server_command import Server


class Plan(ReportTest):
    def deletions(self, *arguments, status=0):
        """Returns {step: [(reason, user, date) of each planned deletion]}."""
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
  web1  {day(-1)}  full   2.00 kB  a daily depends on it
  web1  {DATE}  daily  2.00 kB  newest backup of its user
  web2  {DATE}  full      70 B  newest backup of its user
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
        self.assertEqual(("keep", DATE, "newest backup of its user"), (kept["action"], kept["date"], kept["reason"]))

    def test_needs_limits_and_all_users(self):
        self.assertEqual((1, "", "quarn2_report: the limits are unknown, because no server runs: give the --size-limit "
                                 "and --count-limit with which the server will be started\n"), self.report("--plan"))
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
