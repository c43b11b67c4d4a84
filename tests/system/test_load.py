"""Long runs of a server and of a node client: their resources must not grow, and the server's accounting
of used space must be exact.

The tests sample memory, descriptors, threads and the time per step, and print them as a table. Evictions keep
the number of backups constant, so nothing else may grow either. The short form runs with the other tests. The
command

    QUARN2_CP_LOAD=full TMPDIR=/dev/shm python3 -B -m unittest -v test_load

sends the commands of 100,000 backups to the server, and puts 10,000 backups (about 2 GB of small files).
"""

import os
import random
import shutil
import statistics
import time
import unittest
from collections import deque
from concurrent.futures import ThreadPoolExecutor

from master_link import ScriptedNode
from local_files import tree
from machines import Job
from processes import children, descriptors
from samples import DATE, day, info_text, read_info
from server_command import Server
from system_test import SystemTest

FULL = os.environ.get("QUARN2_CP_LOAD") == "full"
SEED = int(os.environ.get("QUARN2_CP_SEED", random.SystemRandom().randrange(10**9)))

# An eviction pass removes one backup of each user. A server has as many passes as the user with the most backups has
# backups when the server starts. So each test starts with about as many backups as there will be evictions.
USERS, COMPLETIONS, BREAKS = (1000, 100_000, 50) if FULL else (60, 2400, 2)
PUT_USERS, PUT_ROUNDS = (500, 20) if FULL else (30, 10)
SPARE_PASSES = 3
SAMPLES = 20
JOBS = 4

# Limits for the growth from the second to the last quarter of the samples. The C library and the kernel's count of
# pages vary a little, and a node client allocates memory for a thread when two uploads overlap. In the long form a
# leak of 20 bytes for each backup in the server, or of 250 bytes in a node client, exceeds the limits.
MEMORY_TOLERANCE = 0.02
MEMORY_SLACK = {"server": 256, "client": 1024}  # KiB
TIMES_SLOWER = 2
# In ms of processor time. In a short run, smaller differences between the quarters of the run are noise.
TIME_SLACK = 200


def memory(pid):
    """Returns the resident memory in KiB (VmRSS)."""
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as status:
        return int(next(line.split()[1] for line in status if line.startswith("VmRSS:")))


def processor_time(pid):
    """Returns the processor time in milliseconds, including threads that have ended."""
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
        words = stat.read().rpartition(")")[2].split()
    return (int(words[11]) + int(words[12])) * 1000 // os.sysconf("SC_CLK_TCK")


class ResourceCurve:
    """Samples of processes after equal amounts of work."""

    def __init__(self, title, **processes):
        self.title = title
        self.processes = processes
        self.rows = []
        self.done = 0
        self.began = time.monotonic()
        self.used = {name: processor_time(pid) for name, pid in processes.items()}

    def sample(self, done):
        step = (time.monotonic() - self.began) * 1000 / (done - self.done)
        row = {"done": done, "ms_each": round(step, 3)}
        for name, pid in self.processes.items():
            used = processor_time(pid)
            row |= {f"{name}_kib": memory(pid), f"{name}_fds": len(descriptors(pid)),
                    f"{name}_threads": len(os.listdir(f"/proc/{pid}/task")),
                    f"{name}_cpu_ms": used - self.used[name]}
            self.used[name] = used
        self.rows.append(row)
        self.done, self.began = done, time.monotonic()

    def text(self):
        names = list(self.rows[0])
        lines = ["  ".join(f"{name:>14}" for name in names)]
        lines += ["  ".join(f"{row[name]:>14}" for name in names) for row in self.rows]
        return "\n".join([self.title, *lines])

    def early_and_late(self, name):
        """Returns the medians of the second and of the last quarter."""
        values = [row[name] for row in self.rows]
        quarter = len(values) // 4
        return (statistics.median(values[quarter:2 * quarter]),
                statistics.median(values[-quarter:]))

    def growth(self):
        """Returns a text for each measured value that has grown."""
        found = []
        for process in self.processes:
            allowed = {"kib": lambda early: early * (1 + MEMORY_TOLERANCE) + MEMORY_SLACK[process],
                       "fds": lambda early: early, "threads": lambda early: early,
                       "cpu_ms": lambda early: early * TIMES_SLOWER + TIME_SLACK}
            for what, most in allowed.items():
                early, late = self.early_and_late(f"{process}_{what}")
                if late > most(early):
                    found.append(f"{process}_{what} grew from {early} to {late}")
        return found

    def check(self, test):
        print("\n" + self.text(), flush=True)
        test.assertEqual([], self.growth())


class ResourceCurveTest(unittest.TestCase):
    """Checks that ResourceCurve.growth() detects growing values."""

    @staticmethod
    def growth(**late):
        curve = ResourceCurve("", server=os.getpid())
        early = {"server_kib": 30000, "server_fds": 10, "server_threads": 1, "server_cpu_ms": 300}
        curve.rows = [early] * 15 + [early | late] * 5
        return curve.growth()

    def test_growing_values_are_detected(self):
        self.assertEqual([], self.growth())
        self.assertEqual([], self.growth(server_kib=30800, server_cpu_ms=700))
        self.assertEqual(["server_kib grew from 30000 to 31000"], self.growth(server_kib=31000))
        self.assertEqual(["server_fds grew from 10 to 11"], self.growth(server_fds=11))
        self.assertEqual(["server_threads grew from 1 to 2"], self.growth(server_threads=2))
        self.assertEqual(["server_cpu_ms grew from 300 to 900"], self.growth(server_cpu_ms=900))


class Account:
    """A second implementation of the server's accounting of used space. It follows the rules for the commands of a
    node client. All backups are full backups."""

    def __init__(self, limit):
        self.limit = limit
        self.users = {}
        self.used = self.reserved = self.locked = self.count = self.evicted = 0

    def start(self, records):
        for user, dates in records.items():
            for date, size in dates:
                self.enter(user, date, size)
        self.count = max(map(len, self.users.values()))

    def enter(self, user, date, size):
        dates = self.users.setdefault(user, deque())
        self.locked += size - (dates[-1][1] if dates else 0)
        self.used += size
        dates.append((date, size))

    @property
    def free(self):
        return self.limit - self.used - self.reserved

    @property
    def free_at_best(self):
        return self.limit - self.locked - self.reserved

    def reserve(self, size):
        if size > self.free_at_best:
            return f"ERR No disk space left on storage. Size limit: {self.limit}"
        while size > self.free:
            self.drop_pass()
        self.reserved += size
        return f"OK {self.count}"

    def drop_pass(self):
        if self.count == 0:
            raise AssertionError("the test has used up all passes")
        for dates in self.users.values():
            if len(dates) >= self.count and len(dates) > 1:
                self.used -= dates.popleft()[1]
                self.evicted += 1
        self.count -= 1

    def release(self, size):
        self.reserved -= size
        return "OK"

    def complete(self, user, date, size):
        self.enter(user, date, size)
        self.reserved = 0
        return f"OK {self.count}"

    def stems(self):
        return {f"{date}.{user}" for user, dates in self.users.items() for date, _ in dates}


def place(root, user, date, size):
    """Creates the files of a complete backup whose info file has this size."""
    stem = f"{date}.{user}"
    text = info_text({"type": "full", "last-slice": f"F{stem}.tgz", "size": size,
                      "created": f"{date} 00:59:00", "finished": f"{date} 01:00:00"}).encode()
    for path, data in ((f"{root.storage}/F{stem}.tgz", b"x"), (f"{root.storage}/{stem}.info", text),
                       (f"{root.info_root}/{stem}.info", text)):
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o600)
        os.write(descriptor, data)
        os.close(descriptor)


class ServerLongRun(SystemTest):
    def shortDescription(self):
        return f"QUARN2_CP_SEED={SEED}"

    def test_a_day_keeps_the_account_exact_and_the_resources_constant(self):
        self.choice = random.Random(SEED)
        self.root = self.root()
        self.days = COMPLETIONS // USERS
        self.fill()
        self.node = ScriptedNode(self.root)
        self.begin()
        self.work()
        self.check_account()
        self.end()
        # A new server must compute the same used space from the info files.
        self.account.reserved = 0
        self.account.count = max(map(len, self.account.users.values()))
        self.begin()
        self.check_account()
        self.end()
        self.assertEqual([], self.root.log_texts(3))

    def fill(self):
        """Creates the initial backups, and a limit that leaves room for a few more."""
        records = {}
        # Creates more backups than days, because each of them allows one eviction pass, and larger new backups need
        # more than one pass per day.
        passes = self.days + self.days // 8 + SPARE_PASSES
        for number in range(USERS):
            records[f"user{number:04}"] = [(day(-self.days - back), self.size())
                                           for back in range(passes, 0, -1)]
        for user, dates in records.items():
            for date, size in dates:
                place(self.root, user, date, size)
        total = sum(size for dates in records.values() for _, size in dates)
        self.account = Account(total + USERS * 1000 // 3)
        self.account.start(records)

    def size(self):
        return self.choice.randrange(500, 1500)

    def begin(self):
        self.server = Server(self.root, "--date", DATE, "--size-limit", str(self.account.limit),
                             "--count-limit", "1000:1000")
        self.accept()
        self.server.wait_ready()

    def end(self):
        self.link.close()
        self.assertEqual(0, self.server.end())
        self.check_files()

    def accept(self):
        self.link = self.node.accept()
        self.link.frame(), self.link.frame()

    def reserve(self, size):
        answer = self.account.reserve(size)
        self.assertEqual(answer, self.link.ask(f"RESERVE {size}"))
        return answer

    def work(self):
        curve = ResourceCurve(f"{COMPLETIONS} backups over the link to the server:", server=self.server.daemon)
        done = reservations = 0
        for offset in range(self.days):
            date = day(offset + 1 - self.days)
            for user in self.account.users:
                reservations += self.back_up(user, date)
                done += 1
                if done % (COMPLETIONS // SAMPLES) == 0:
                    curve.sample(done)
                if done % (COMPLETIONS // BREAKS) == COMPLETIONS // BREAKS // 2:
                    began = time.monotonic()
                    self.break_session()
                    curve.began += time.monotonic() - began  # most of this time is the pause before the new session
        curve.check(self)
        print(f"{reservations} reservations, {done} completions, {self.account.evicted} evictions, "
              f"{BREAKS} broken sessions", flush=True)
        self.assertGreater(self.account.evicted, 0.9 * COMPLETIONS)
        self.assertEqual(1, len(children(self.server.daemon)))

    def back_up(self, user, date):
        """Sends the commands of one backup to the server: a slice, sometimes released and reserved again, and the last
        file. Returns the number of reservations."""
        size = self.size()
        count = 2
        self.reserve(size)
        if self.choice.random() < 0.05:
            self.assertEqual(self.account.release(size), self.link.ask(f"RELEASE {size}"))
            self.reserve(size)
            count += 1
        self.reserve(100)
        place(self.root, user, date, size + 100)
        self.assertEqual(self.account.complete(user, date, size + 100),
                         self.link.ask(f"COMPLETE {user} {date} full {size + 100}"))
        return count

    def break_session(self):
        """Reserves space and closes the link. The session and its reservation end."""
        size = self.size()
        self.reserve(size)
        self.account.release(size)
        self.link.close()
        self.accept()

    def check_account(self):
        """Checks the server's free space to the byte: a reservation of all free bytes evicts nothing, and a reservation
        of one more byte causes an eviction pass."""
        free, evicted = self.account.free, self.account.evicted
        self.reserve(free)
        self.assertEqual(evicted, self.account.evicted)
        self.reserve(1)
        self.assertLess(evicted, self.account.evicted)
        too_much = self.account.free_at_best + 1
        self.assertTrue(self.reserve(too_much).startswith("ERR"))
        self.check_files()

    def check_files(self):
        stems = self.account.stems()
        self.assertEqual(sorted([f"{stem}.info" for stem in stems]), self.root.local())
        self.assertEqual(sorted([f"{stem}.info" for stem in stems] + [f"F{stem}.tgz" for stem in stems]),
                         self.root.stored())


class NodeClientLongRun(SystemTest):
    def test_a_night_of_puts_loses_no_backup_and_keeps_the_resources_constant(self):
        self.root = self.root()
        self.users = [f"user{number:04}" for number in range(PUT_USERS)]
        old = self.fill()
        self.server = Server(self.root, "--date", DATE, "--size-limit", str(self.limit),
                             "--count-limit", "1000:1000").wait_ready()
        curve = ResourceCurve(f"{PUT_USERS * PUT_ROUNDS} backups put, {JOBS} at a time:",
                      server=self.server.daemon, client=self.server.node_client())
        names = self.work(curve)
        curve.check(self)
        # A completion ends all reservations, also those of parallel jobs. The last job runs alone, so its
        # reservations evict until everything fits.
        names |= self.put("last", DATE)
        present = set(self.root.stored())
        evicted = self.evictions()
        print(f"{len(names)} backups put, {evicted} evictions", flush=True)
        self.check_whole(present, old + list(names), evicted)
        self.assertGreater(evicted, 0.8 * PUT_USERS * PUT_ROUNDS)
        self.check_account()
        self.assertEqual(0, self.server.end())
        self.assertEqual([], self.root.log_texts(3) + self.root.log_texts(4))
        # The two slices with which the test has measured the free space belong to no complete backup.
        self.assertEqual([f"F{DATE}.exact", f"F{DATE}.more"], self.root.unfinished())

    def fill(self):
        passes = PUT_ROUNDS + PUT_ROUNDS // 8 + SPARE_PASSES
        stems = []
        for user in self.users:
            for back in range(passes, 0, -1):
                place(self.root, user, day(-PUT_ROUNDS - back), 1000)
                stems.append(f"{day(-PUT_ROUNDS - back)}.{user}")
        self.limit = 1000 * len(stems) + PUT_USERS * 300
        return stems

    def work(self, curve):
        names = set()
        with ThreadPoolExecutor(JOBS) as pool:
            for number in range(PUT_ROUNDS):
                date = day(number + 1 - PUT_ROUNDS)
                for put in pool.map(lambda user, date=date: self.put(user, date), self.users):
                    names |= put
                curve.sample(len(names))
        return names

    def put(self, user, date):
        """Runs two --put commands: the slice and the last file."""
        job = Job(self.root, user, date, slices=1, size=900).run()
        shutil.rmtree(os.path.dirname(job.info))
        return {job.stem}

    def evictions(self):
        return sum(text.startswith("Evict backup ") for text in self.root.log_texts(5, self.server.daemon))

    def check_whole(self, present, stems, evicted):
        """Checks that each backup has either all of its files or none, and that there are no other files."""
        left = [stem for stem in stems if f"{stem}.info" in present]
        self.assertEqual(evicted, len(stems) - len(left))
        expected = {f"{stem}.info" for stem in left}
        for stem in left:
            expected |= {f"F{stem}.1.dar", f"{stem}.1.dar"} if self.is_new(stem) else {f"F{stem}.tgz"}
        self.assertEqual(expected, present)

    @staticmethod
    def is_new(stem):
        return stem[:len(DATE)] > day(-PUT_ROUNDS)

    def check_account(self):
        """Checks the server's free space to the byte: a file that uses all of it causes no eviction, and one more byte
        causes an eviction."""
        used = sum(int(read_info(os.path.join(self.root.info_root, name))["size"])
                   for name in tree(self.root.info_root) if name.endswith(".info"))
        before = self.evictions()
        self.put_alone("exact", self.limit - used)
        self.assertEqual(before, self.evictions())
        self.put_alone("more", 1)
        self.assertLess(before, self.evictions())

    def put_alone(self, user, size):
        self.assert_success(Job(self.root, user, DATE, slices=1, size=size).put_slice(1))


if __name__ == "__main__":
    unittest.main()
