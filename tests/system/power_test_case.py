"""The base class of tests that record the program and then simulate a power failure at every point.

QUARN2_POWER_SEED is the seed of the random outcomes; it is printed when a promise is broken.
QUARN2_POWER_CHANCES is the number of random outcomes at each point. QUARN2_POWER_STARTS is the number of
states of each scenario on which the program is started.
"""

import collections
import concurrent.futures
import os
import random

import power_model
from install_root import Root
from local_files import read, tree, write
from power_conditions import Conditions
from samples import DATE, day, info_text
from server_command import Server
from system_test import SystemTest

SEED = int(os.environ.get("QUARN2_POWER_SEED", "1"))
CHANCES = int(os.environ.get("QUARN2_POWER_CHANCES", "20"))
STARTS = int(os.environ.get("QUARN2_POWER_STARTS", "10"))


class PowerTest(SystemTest):
    drop = ""  # syncs that the recorder skips

    def setUp(self):
        super().setUp()
        self.r = power_model.RecordedRoot(self, drop=self.drop)
        self.conditions = Conditions()
        self.marks = {}  # text of a mark in the trace -> function that updates the conditions
        self.lost = []
        self.states = []  # (point of the trace, files, stored names) after each simulated failure

    # --- Actions of the scenarios ---

    @staticmethod
    def serve(root, *arguments):
        """Starts a server and waits until its node client accepts commands."""
        server = Server(root, *arguments).wait_ready()
        root.wait_log(f"Client. Backup token = '{root.token}'")
        return server

    def give(self, *backups):
        """Adds complete backups that exist from the beginning to the conditions."""
        for backup in backups:
            names = backup.archives + [backup.index]
            self.conditions.backups[backup.info_name] = [*names, backup.info_name]
            for name in names:
                self.conditions.contents[name].add(read(os.path.join(self.r.storage, name)))

    def mark(self, text, change):
        self.marks[text] = change
        self.r.mark(text)

    def run_marked(self, change, *arguments):
        """Runs a command. `change` updates the conditions when the command has ended."""
        self.assert_success(self.r.run(*arguments))
        self.mark(" ".join(arguments), change)

    def put_backup(self, user, date, letter="F", place="", **more):
        """Puts a backup as a job does: the slices, then the index."""
        names = [f"{place}{letter}{date}.{user}.{number}.dar" for number in (1, 2)]
        index = f"{place}{date}.{user}.1.dar"
        info_name = f"{place}{date}.{user}.info"
        self.conditions.backups[info_name] = [*names, index, info_name]
        known = {"type": "full", "created": f"{DATE} 00:00:00", **more}
        info = self.r.make_source(f"{date}.{user}.job/info", info_text(known))
        for name in names:
            self.conditions.contents[name].add((name + "\n").encode() * 100)
            path = self.r.make_source(f"{date}.{user}.job/{name}", (name + "\n").encode() * 100)
            self.mark("made " + name, lambda conditions, path=path, name=name:
                      conditions.sources.update({os.path.relpath(path, self.r.base): name}))
            last = ["--last_slice"] if name == names[-1] else []
            self.assert_success(self.r.run("--put", path, "-I", info, *last))
        path = write(os.path.join(self.r.info_root, index), "the index of " + user)
        self.r.given(path)
        self.conditions.contents[index].add(read(path))
        self.run_marked(lambda conditions: conditions.stored.update(conditions.backups[info_name]),
                        "--put", path, "-I", info, "--isolated", "--no-delete")

    # --- Simulated failures ---

    def fail_everywhere(self):
        disk = self.r.start
        outcomes = power_model.all_outcomes(SEED, CHANCES)
        for point, (operation, *arguments) in enumerate(self.r.events()):
            disk.apply(operation, *arguments)
            if operation == "#":
                self.marks[arguments[0]](self.conditions)
            elif operation in "UX":
                self.conditions.note_removal(arguments[0])
            for outcome in outcomes:
                left = disk.left(outcome)
                where = f"{point} {operation} {arguments[:1]}, {outcome.name}"
                self.lost += [f"after {where}: {text}" for text in self.violations(left)]
                self.states.append((where, left, set(self.conditions.stored)))
        self.check_model(disk)
        print(f"\n{self.id()}: {point + 1} points, {len(self.states)} states", flush=True)

    def violations(self, left):
        return self.conditions.violations(left)

    def check_model(self, disk):
        """Checks that the model equals the real files, so the recorder missed no change."""
        left = disk.left(power_model.Outcome("", lambda *_: True, lambda *_: -1))
        there = {path: read(os.path.join(self.r.base, path)) for path in tree(self.r.base)
                 if not path.startswith(power_model.IGNORED)
                 and os.path.isfile(os.path.join(self.r.base, path))}
        self.assertEqual(there, {path: data for path, data in left.items() if data is not None})

    def assert_nothing_lost(self):
        self.fail_everywhere()
        if self.lost:
            kinds = collections.Counter(text.split(": ", 1)[1] for text in self.lost)
            first = {text.split(": ", 1)[1]: text for text in reversed(self.lost)}
            self.fail(f"{len(self.lost)} broken promises (seed {SEED}):\n" + "\n".join(
                f"{count} times, first {first[kind]}" for kind, count in kinds.most_common(8)))

    def go_on(self, check):
        """Starts the program on some of the possible disk states, four at a time."""
        chosen = random.Random(SEED).sample(self.states, min(STARTS, len(self.states)))
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for where, result in [(state[0], pool.submit(self.go_on_from, check, *state[1:]))
                                  for state in chosen]:
                with self.subTest(after=where):
                    result.result()

    def go_on_from(self, check, left, stored):
        root = Root(self, "after")
        power_model.materialise(root, left, self.r.base)
        check(root, left, stored)

    def next_day(self, root, left, stored):
        """Starts a server and makes the next backups. The old and the new ones must be complete."""
        server = self.serve(root, "--date", day(1), "--count-limit", "9:9")
        for user in ("web1", "web3"):
            slice_name = f"F{day(1)}.{user}.1.dar"
            job = write(os.path.join(root.work, user),
                        info_text({"type": "full", "created": f"{day(1)} 00:00:00"}))
            path = write(os.path.join(root.work, slice_name), "the next day")
            index = write(os.path.join(root.info_root, f"{day(1)}.{user}.1.dar"), "its index")
            self.assert_success(root.run("--put", path, "-I", job, "--last_slice"))
            self.assert_success(root.run("--put", index, "-I", job, "--isolated", "--no-delete"))
            stored = stored | {slice_name, f"{day(1)}.{user}.1.dar", f"{day(1)}.{user}.info"}
        self.assertEqual(0, server.end())
        self.assertEqual([], root.log_texts(3))
        for info in self.conditions.leaving:
            names = set(self.conditions.backups[info])
            there = names & set(root.stored())
            self.assertIn(there, (set(), names), "neither whole nor gone")
            self.assertEqual(bool(there), info in root.local(), f"{there} {root.local()}")
        self.assertEqual(set(), {name for name in stored if not self.conditions.is_leaving(name)}
                         - set(root.stored()))
        for name in stored & set(self.conditions.contents):
            if os.path.exists(os.path.join(root.storage, name)):
                self.assertIn(read(os.path.join(root.storage, name)), self.conditions.contents[name])
