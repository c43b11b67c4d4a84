"""Random storages, limits and reservations, checked against a simple model of the rules."""

import copy
import os
import random
import unittest
from concurrent.futures import ThreadPoolExecutor

from master_link import ScriptedNode
from samples import DATE, Backup, both_sides, day
from server_command import Server
from system_test import SystemTest

SEED = int(os.environ.get("QUARN2_CP_SEED", random.SystemRandom().randrange(10**9)))
ROUNDS = 24
UNLIMITED = 2**63 - 1
ALL_LOCKED = "No space left. But all backups are locked"


class Rules:
    """A simple model of the server's evictions. records[user][date] = (kind, size)."""

    def __init__(self, records, full_limit, daily_limit, size_limit):
        self.records = records
        self.full_limit = full_limit or 2**31 - 1
        self.daily_limit = daily_limit
        self.size_limit = size_limit or UNLIMITED
        self.reserved = 0
        self.count = max([len(dates) for dates in records.values()], default=0)

    def kinds(self, user):
        return [(date, self.records[user][date][0]) for date in sorted(self.records[user])]

    def used(self):
        return sum(size for dates in self.records.values() for _, size in dates.values())

    def locked(self, user):
        """Returns the size of the newest record, plus that of the newest full backup if the newest is a daily."""
        dates = sorted(self.records[user])
        if not dates:
            return 0
        kind, size = self.records[user][dates[-1]]
        fulls = [date for date in dates if self.records[user][date][0] == "F"]
        return size if kind == "F" or not fulls else size + self.records[user][fulls[-1]][1]

    def trim(self):
        for user in self.records:
            while True:
                dailies = [date for date, kind in self.kinds(user) if kind == "D"]
                newest = self.kinds(user)[-1:]
                if len(dailies) <= self.daily_limit or dailies[0] == newest[0][0]:
                    break
                del self.records[user][dailies[0]]
            while True:
                kinds = self.kinds(user)
                fulls = [date for date, kind in kinds if kind == "F"]
                free = [one[0] for one, two in zip(kinds, kinds[1:]) if one[1] == two[1] == "F"]
                if len(fulls) <= self.full_limit or not free:
                    break
                del self.records[user][free[0]]

    def drop_pass(self):
        if self.count == 0:
            raise ValueError(ALL_LOCKED)
        for user in self.records:
            kinds = self.kinds(user)
            free = [one[0] for one, two in zip(kinds, kinds[1:]) if one[1] == "D" or two[1] == "F"]
            if len(kinds) >= self.count and free:
                del self.records[user][free[0]]
        self.count -= 1

    def start(self):
        """Evicts until the limits are met. Deletes nothing if the evictions cannot make enough room."""
        trial = copy.deepcopy(self)
        trial.trim()
        while trial.used() > trial.size_limit:
            trial.drop_pass()
        self.take(trial)

    def take(self, other):
        self.records, self.count = other.records, other.count

    def make_room(self, size):
        """Runs eviction passes until `size` fits. Deletes nothing if all passes together are not enough."""
        trial = copy.deepcopy(self)
        while size > trial.size_limit - trial.used() - trial.reserved:
            trial.drop_pass()
            if trial.records == self.records:
                self.count = trial.count
        self.take(trial)

    def reserve(self, size):
        lockable = self.size_limit - sum(map(self.locked, self.records))
        if size > lockable - self.reserved:
            return f"ERR No disk space left on storage. Size limit: {self.size_limit}"
        try:
            self.make_room(size)
        except ValueError as error:
            return f"ERR {error}"
        self.reserved += size
        return f"OK {self.count}"

    def complete(self, user, date, kind, size):
        self.records.setdefault(user, {})[date] = (kind, size)
        self.reserved = 0
        return f"OK {self.count}"


class RandomStorages(SystemTest):
    def shortDescription(self):
        return f"QUARN2_CP_SEED={SEED}"

    def test_remaining_backups_and_answers_follow_the_rules(self):
        with ThreadPoolExecutor(4) as pool:
            for failure in pool.map(self.one_round, range(ROUNDS)):
                self.assertIsNone(failure)

    def one_round(self, number):
        try:
            Round(self, random.Random(f"{SEED}/{number}")).play()
        except AssertionError as error:
            return f"round {number} of seed {SEED}: {error}"
        return None


class Round:
    def __init__(self, test, choice):
        self.test = test
        self.choice = choice
        self.root = test.root()
        self.backups = []
        self.rules = self.random_storage()

    def random_storage(self):
        choice = self.choice
        records = {}
        for number in range(choice.randint(1, 5)):
            user = f"u{number}" if choice.random() < 0.7 else f"u{number}.x"
            days = choice.sample(range(1, 15), choice.randint(1, 8))
            for offset in days:
                self.add(records, user, day(-offset))
        total = sum(size for dates in records.values() for _, size in dates.values())
        size_limit = choice.choice([0, total, total * 3 // 4, total // 2])
        return Rules(records, choice.choice([0, 1, 2, 5]), choice.choice([0, 1, 3, 9]), size_limit)

    def add(self, records, user, date):
        kind = self.choice.choice("FDD")
        size = self.choice.choice([0, 1, 10, 50, 100])
        records.setdefault(user, {})[date] = (kind, size)
        self.place(user, date, kind, size)

    def place(self, user, date, kind, size):
        self.backups.append(Backup(self.root, user, date, "full" if kind == "F" else "incremental",
                                   form=self.choice.choice(["dar", "tgz", "part", "dir"]),
                                   slices=self.choice.randint(1, 3), data=b"x", size=size))

    def check_survivors(self):
        expected = {(user, date) for user, dates in self.rules.records.items() for date in dates}
        present = both_sides(self.root)
        whole = {(backup.user, backup.date) for backup in self.backups if backup.is_whole(present)}
        gone = {(backup.user, backup.date) for backup in self.backups if backup.is_gone(present)}
        self.test.assertEqual(expected, whole)
        self.test.assertEqual(len(self.backups), len(whole | gone))

    def play(self):
        rules = self.rules
        limit = 0 if rules.size_limit == UNLIMITED else rules.size_limit
        full = 0 if rules.full_limit == 2**31 - 1 else rules.full_limit
        arguments = ["--date", DATE, "--size-limit", str(limit),
                     "--count-limit", f"{full}:{rules.daily_limit}"]
        node = ScriptedNode(self.root)
        server = Server(self.root, *arguments)
        link = node.accept()
        try:
            rules.start()
        except ValueError as error:
            link.close()
            self.test.assertEqual(1, server.wait_end()[0])
            self.test.assertIn(f"Size control server error: {error}", self.root.log_texts(3))
            self.check_survivors()
            return
        server.wait_ready()
        link.frame(), link.frame()
        self.check_survivors()
        for _ in range(12):
            self.step(link)
        link.close()
        rules.trim()
        self.test.assertEqual(0, server.end())
        self.check_survivors()

    def step(self, link):
        choice, rules = self.choice, self.rules
        size = choice.choice([0, 1, 20, 80, 150])
        answer = rules.reserve(size)
        self.test.assertEqual(answer, link.ask(f"RESERVE {size}"))
        self.check_survivors()
        if not answer.startswith("OK"):
            return
        if rules.size_limit != UNLIMITED:
            self.test.assertLessEqual(rules.used() + rules.reserved, rules.size_limit)
        what = choice.random()
        if what < 0.2:
            rules.reserved -= size
            self.test.assertEqual("OK", link.ask(f"RELEASE {size}"))
        elif what < 0.9:
            self.complete(link, size)

    def complete(self, link, size):
        user = self.choice.choice(sorted(self.rules.records) + ["new"])
        taken = self.rules.records.get(user, {})
        date = next((day(-offset) for offset in (0, 15, 16, 17) if day(-offset) not in taken), None)
        if date is None or any((user, date) == (old.user, old.date) for old in self.backups):
            return
        kind = self.choice.choice("FD")
        self.place(user, date, kind, size)
        word = "full" if kind == "F" else "incremental"
        self.test.assertEqual(self.rules.complete(user, date, kind, size),
                              link.ask(f"COMPLETE {user} {date} {word} {size}"))


if __name__ == "__main__":
    unittest.main()
