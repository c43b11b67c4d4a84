"""Several machines put backups on one full storage in parallel; a simple model of the rules checks the result.

The server's log shows in which order the server ran the commands of its nodes. The model runs the commands in
the same order, and must give the same answers and keep the same backups.
"""

import contextlib
import os
import random
import re
import signal
import threading
import unittest

from machines import Job, NodesTest
from processes import children, command_line
from samples import DATE, Backup, both_sides, day
from test_random_storages import Rules
from waiting import wait_for

SEED = int(os.environ.get("QUARN2_CP_SEED", random.SystemRandom().randrange(10**9)))
BACKUPS = int(os.environ.get("QUARN2_CP_NODE_BACKUPS", "8"))  # new backups of each user
USERS = 2  # number of users on each machine
OLD = 2 * BACKUPS  # initial backups of each user
SLICES = 6
SIZE = 3000
LINE = re.compile(r"ProcessCommand line = '(?P<command>.*)'")
NEEDED = re.compile(r"Unfinished backups use \d+ bytes, (?P<bytes>\d+) bytes are needed")
ANSWER = re.compile(r"SaveResult result = '(?P<answer>.*)'")


class NodeWork(threading.Thread):
    """Makes the backups of one machine's users, one after the other."""

    def __init__(self, test, machine, users):
        super().__init__()
        self.choice = random.Random(f"{SEED}/{machine.name}")
        self.jobs = []
        self.error = None
        self.machine = machine
        self.plan = [(user, day(number + 1 - BACKUPS)) for number in range(BACKUPS)
                     for user in users]
        self.test = test

    def run(self):
        try:
            for user, date in self.plan:
                kind = self.choice.choice(["full", "incremental", "incremental"])
                size = self.choice.randrange(SIZE)
                self.jobs.append(self.back_up(user, date, kind, size))
        except Exception as error:
            self.error = error

    def back_up(self, *what):
        return Job(self.machine, *what[:3], SLICES, what[3]).run()


class RepeatingNodeWork(NodeWork):
    """Makes backups like NodeWork, and repeats a failed backup until it succeeds."""

    failures = 0

    def back_up(self, *what):
        return wait_for(lambda: self.attempt(*what), f"backup {what}", 120)

    def attempt(self, *what):
        try:
            return super().back_up(*what)
        except AssertionError:
            self.failures += 1
            return None


class LinkRules(Rules):
    """Counts a backup's size twice when the backup is completed twice because the first answer was lost."""

    paid_again = 0

    def used(self):
        return super().used() + self.paid_again

    def complete(self, user, date, kind, size):
        _, before = self.records.get(user, {}).get(date, ("", 0))
        self.paid_again += before
        return super().complete(user, date, kind, size)


class ParallelNodes(NodesTest):
    def shortDescription(self):
        return f"QUARN2_CP_SEED={SEED}"

    def test_four_machines_at_once_keep_to_the_limit_and_lose_nothing(self):
        works = self.play(NodeWork, 50000)
        self.assertGreater(sum(len(job.slices) for work in works for job in work.jobs), 200)
        self.assertEqual([], self.head.log_texts(4))

    def test_four_machines_with_killed_node_clients_keep_to_the_limit_and_lose_nothing(self):
        works = self.play(RepeatingNodeWork, 200000, self.kill_clients)
        self.assertGreater(sum(work.failures for work in works), 0)

    def play(self, work_class, room, trouble=None):
        nodes = self.make_nodes(3)
        # The server reads the ledger of its own machine. The model does not know the entries that a killed
        # client leaves there.
        machines = nodes if trouble else [self.head, *nodes]
        users = {machine: [f"u{number}.{machine.name}" for number in range(USERS)]
                 for machine in machines}
        old = [self.old_backup(user, date) for names in users.values() for user in names
               for date in self.old_dates()]
        # The limit leaves little free space, so most new backups cause evictions.
        limit = sum(backup.size for backup in old) + room
        rules = LinkRules(self.records(old), 1000, 1000, limit)
        server = self.serve(nodes, "--date", DATE, "--size-limit", str(limit),
                            "--count-limit", "1000:1000")
        works = [work_class(self, machine, names) for machine, names in users.items()]
        for work in works:
            work.start()
        if trouble:
            trouble(server, nodes, works)
        for work in works:
            work.join()
        daemon = server.daemon
        self.assertEqual(0, server.end())
        self.assertEqual([None] * len(works), [work.error for work in works])
        self.follow(rules, daemon)
        self.check_survivors(rules, old, [job for work in works for job in work.jobs])
        self.assertEqual([], self.head.log_texts(3, daemon))
        return works

    def kill_clients(self, server, nodes, works):
        """Kills the node clients one after the other while they upload backups."""
        choice = random.Random(SEED)

        def local():
            return [pid for pid in children(server.daemon)
                    if command_line(pid).startswith(self.head.binary)]

        for find in [local, *(node.clients for node in nodes)] * 2:
            client = wait_for(find, "a node client", 180)[0]  # the longest pause before a new session is 60 s
            reservations = len(self.reservations())
            wait_for(lambda: len(self.reservations()) > reservations + choice.randrange(30) or
                     not any(work.is_alive() for work in works), "work")
            with contextlib.suppress(ProcessLookupError):
                os.kill(client, signal.SIGKILL)

    def reservations(self):
        return [text for text in self.head.log_texts(8)
                if text.startswith("ProcessCommand line = 'RESERVE")]

    @staticmethod
    def old_dates():
        return [day(-number - BACKUPS) for number in range(OLD)]

    def old_backup(self, user, date):
        kind = "full" if int(date[-2:]) % 3 == 0 else "incremental"
        return Backup(self.head, user, date, kind, slices=2, data=os.urandom(2000))

    @staticmethod
    def records(backups):
        found = {}
        for backup in backups:
            kind = "F" if backup.kind == "full" else "D"
            found.setdefault(backup.user, {})[backup.date] = (kind, backup.size)
        return found

    def follow(self, rules, daemon):
        """Runs the log's commands on the model: each answer must match, each grant must be within the limit."""
        asked = needed = None
        passes = rules.count
        for text in self.head.log_texts(8, daemon):
            if match := LINE.fullmatch(text):
                asked = match["command"].split()
                needed = int(asked[1]) if asked[0] == "RESERVE" else 0
            elif match := NEEDED.fullmatch(text):
                needed = int(match["bytes"])
            elif (match := ANSWER.fullmatch(text)) and asked:
                self.assertEqual(self.expected(rules, asked, needed), match["answer"], asked)
                if asked[0] == "RESERVE":
                    self.assertTrue(match["answer"].startswith("OK"), (asked, match["answer"]))
                    self.assertLessEqual(rules.used() + rules.reserved, rules.size_limit)
                asked = None
        self.assertLess(rules.count, passes - 2, "hardly anything was evicted")

    @staticmethod
    def expected(rules, words, needed):
        if words[0] == "RESERVE":
            answer = rules.reserve(needed)
            rules.reserved -= needed - int(words[1])
            return answer
        if words[0] == "COMPLETE":
            return rules.complete(words[1], words[2], "F" if words[3] == "full" else "D",
                                  int(words[4]))
        raise AssertionError(f"unexpected: {words}")

    def check_survivors(self, rules, old, jobs):
        present = both_sides(self.head)
        expected = {(user, date) for user, dates in rules.records.items() for date in dates}
        found = {(backup.user, backup.date) for backup in old if backup.is_whole(present)}
        for job in jobs:
            if job.is_stored(present[0]):
                job.check_stored(self.head.storage)
                found.add((job.user, job.date))
            else:
                self.assertTrue(job.is_gone(present[0]), job.stem)
            self.assertEqual(job.stem + ".info" in present[0], job.stem + ".info" in present[1])
        self.assertEqual(expected, found)
        for backup in old:
            self.assertTrue(backup.is_whole(present) or backup.is_gone(present), backup.stem)
        newest = {job.user: job for job in jobs}
        for job in newest.values():
            self.assertIn((job.user, job.date), found)
        # Every file on the storage belongs to a backup.
        believed = {name for job in jobs for name in job.stored_names()}
        believed |= {name for backup in old for name in backup.stored_names()}
        self.assertEqual(set(), present[0] - believed)


if __name__ == "__main__":
    unittest.main()
