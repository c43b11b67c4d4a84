"""Two hundred parallel puts to one node client, whose socket has a backlog of five connections.

The tests print the curves of memory, descriptors and threads. QUARN2_LOAD_PUTS sets the number of parallel
puts, QUARN2_LOAD_ROUNDS the number of rounds with the same node client. A long run:

    QUARN2_LOAD_PUTS=200 QUARN2_LOAD_ROUNDS=50 python3 -m unittest -v test_load_puts
"""

import collections
import os
import re
import subprocess
import threading
import time
import unittest

from local_files import read, write
from samples import DATE, day, info_text, read_info
from server_command import Server
from system_test import SystemTest
from waiting import wait_for

PUTS = int(os.environ.get("QUARN2_LOAD_PUTS", "200"))
ROUNDS = int(os.environ.get("QUARN2_LOAD_ROUNDS", "2"))
COMMAND = re.compile(r"ProcessCommand line = '(?P<word>[A-Z]+) (?P<arguments>.*)'")


def status(pid):
    """Returns the resident memory in KiB, the number of descriptors and the number of threads of a process."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        values = dict(line.split(":", 1) for line in file)
    return (int(values["VmRSS"].split()[0]), len(os.listdir(f"/proc/{pid}/fd")),
            int(values["Threads"]))


class Watch(threading.Thread):
    """Samples processes ten times a second."""

    def __init__(self, **pids):
        super().__init__()
        self.pids = pids
        self.begun = time.monotonic()
        self.seen = []  # (seconds, {name: status})
        self.over = threading.Event()

    def run(self):
        while not self.over.wait(0.1):
            self.look()

    def look(self):
        self.seen.append((time.monotonic() - self.begun,
                          {name: status(pid) for name, pid in self.pids.items()}))
        return self.seen[-1][1]

    def end(self):
        self.over.set()
        self.join()

    def most(self, name, what):
        return max(look[name][what] for _, look in self.seen)

    def show(self, title):
        print(f"\n{title}\n{'s':>6}" + "".join(
            f"{name + ' ' + what:>18}" for name in self.pids for what in ("KiB", "fds", "threads")))
        step = max(1, len(self.seen) // 12)
        for seconds, look in self.seen[::step] + self.seen[-1:]:
            print(f"{seconds:6.2f}" + "".join(f"{value:>18}" for name in self.pids
                                              for value in look[name]), flush=True)


class ParallelPuts(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()
        self.r.log_level = 8

    def serve(self):
        self.server = Server(self.r, "--date", DATE, "--count-limit", "999:999",
                             "--size-limit", str(10**12)).wait_ready()
        self.r.wait_log("Open control socket 'tmp/quarn2_cp.sock'")
        self.client = self.server.node_client()
        wait_for(lambda: os.path.exists(self.r.file("var/quarn2_cp.events")), "the server's first event")

    def idle(self, watch):
        """Returns a sample of the idle processes. Adds one descriptor to the client: its first event opens the events
        file, which stays open."""
        look = watch.look()
        memory, descriptors, threads = look["client"]
        return {**look, "client": (memory, descriptors + 1, threads)}

    def at_once(self, commands):
        """Starts all puts, then waits until all have succeeded."""
        running = [self.r.spawn("--put", *command, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                   for command in commands]
        for process in running:
            output, _ = process.communicate(timeout=120)
            self.assertEqual((b"", 0), (output, process.returncode))

    def slices(self, date, size):
        """Creates one slice for each user. Returns [(name, content, path, path of the job's info file)]."""
        found = []
        for number in range(PUTS):
            name = f"F{date}.user{number}.1.dar"
            content = (name + "\n").encode() * (size // len(name) + number)
            job = write(os.path.join(self.r.work, f"{date}.user{number}.job"),
                        info_text({"type": "full", "created": f"{DATE} 00:00:00"}))
            found.append((name, content, write(os.path.join(self.r.work, name), content), job))
        return found

    def put_slices(self, slices):
        self.at_once([(path, "-I", job, "--last_slice") for _, _, path, job in slices])
        wait_for(lambda: not [path for _, _, path, _ in slices if os.path.exists(path)],
                 "the removal of the local slices")

    def put_indexes(self, date, slices):
        """Puts the last file of every backup."""
        commands = []
        for number, (_, _, _, job) in enumerate(slices):
            index = write(os.path.join(self.r.info_root, f"{date}.user{number}.1.dar"),
                          f"index {number}")
            commands.append((index, "-I", job, "--isolated", "--no-delete"))
        self.at_once(commands)

    def check_round(self, date, slices):
        for number, (name, content, _, _) in enumerate(slices):
            stem = f"{date}.user{number}"
            info = f"{stem}.info"
            self.assertEqual(content, read(os.path.join(self.r.storage, name)))
            self.assertEqual(f"index {number}".encode(),
                             read(os.path.join(self.r.storage, stem + ".1.dar")))
            text = read(os.path.join(self.r.storage, info))
            self.assertEqual(text, read(os.path.join(self.r.info_root, info)))
            self.assertEqual(str(len(content) + len(f"index {number}") + len(text)),
                             read_info(os.path.join(self.r.storage, info))["size"])

    def check_commands(self, wanted):
        """Checks that the server received exactly these reservations and completions."""
        asked = collections.Counter()
        for text in self.r.log_texts(8, self.server.daemon):
            match = COMMAND.fullmatch(text)
            if match:
                asked[match["word"], match["arguments"]] += 1
        self.assertEqual(wanted, asked)

    def wanted_commands(self, date, slices):
        wanted = collections.Counter()
        for number, (_, content, _, _) in enumerate(slices):
            info = f"{date}.user{number}.info"
            size = read_info(os.path.join(self.r.storage, info))["size"]
            for reserved in (len(content), len(f"index {number}"),
                             os.path.getsize(os.path.join(self.r.storage, info))):
                wanted["RESERVE", str(reserved)] += 1
            wanted["COMPLETE", f"user{number} {date} full {size}"] += 1
        return wanted

    def test_parallel_full_backups_and_their_repetition(self):
        self.serve()
        watch = Watch(client=self.client, daemon=self.server.daemon)
        before = self.idle(watch)
        watch.start()
        wanted = collections.Counter()
        after = []
        try:
            for number in range(ROUNDS):
                date = day(-number)
                slices = self.slices(date, 2000)
                self.put_slices(slices)
                self.put_indexes(date, slices)
                self.check_round(date, slices)
                wanted += self.wanted_commands(date, slices)
                after.append(watch.look())
        finally:
            watch.end()
            watch.show(f"{ROUNDS} rounds of {2 * PUTS} puts at once")
        self.assertEqual(ROUNDS * PUTS * 3, len(self.r.stored()))
        self.check_commands(wanted)
        self.check_bounds(watch, before, after)
        self.assertEqual(0, self.server.end())
        self.assertEqual([], self.r.log_texts(3) + self.r.log_texts(4))

    def check_bounds(self, watch, before, after):
        # Each upload in the background has up to four descriptors.
        self.assertLessEqual(watch.most("client", 1), before["client"][1] + 4 * PUTS + 4)
        self.assertLessEqual(watch.most("daemon", 1), before["daemon"][1] + 4)
        for name in ("client", "daemon"):
            self.assertEqual(before[name][1:], after[-1][name][1:], "descriptors and threads")
            # The first round allocates the memory that every round needs.
            self.assertLess(after[-1][name][0], after[0][name][0] + 2048 + 64 * ROUNDS, name)
            self.assertLess(watch.most(name, 0), 64 * 1024, name)

    def test_all_uploads_run_at_the_same_time(self):
        size = 60000
        self.r.token += f"?limit_rate={size // 30}"
        self.serve()
        watch = Watch(client=self.client, daemon=self.server.daemon)
        before = self.idle(watch)
        watch.start()
        try:
            slices = self.slices(DATE, size)
            self.put_slices(slices)
            wait_for(lambda: watch.look()["client"][2] == 1, "the end of the uploads' threads")
        finally:
            watch.end()
            watch.show(f"{PUTS} slow uploads at once")
        self.assertGreater(watch.most("client", 2), PUTS * 3 // 4)
        self.assertEqual([before["client"][1]], [watch.look()["client"][1]])
        self.put_indexes(DATE, slices)
        self.check_round(DATE, slices)
        self.check_commands(self.wanted_commands(DATE, slices))
        self.assertEqual(0, self.server.end())
        self.assertEqual([], self.r.log_texts(3) + self.r.log_texts(4))


if __name__ == "__main__":
    unittest.main()
