"""Runs a crash test scene with a fault in one call of the program, and counts the results."""

import os
import random
import sys
import time

from crash_scene import Failure
from faults import Faults, Strike
from system_test import SystemTest

ALL = os.environ.get("QUARN2_CP_ALL_POINTS") == "1"
SEED = int(os.environ.get("QUARN2_CP_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 31)


def sample(strikes, size):
    if ALL or len(strikes) <= size:
        return strikes
    chosen = sorted(random.Random(SEED).sample(range(len(strikes)), size))
    return [strikes[place] for place in chosen]


class Tally:
    """The results of one kind of fault in one scene."""

    def __init__(self):
        self.struck = 0
        self.unnoticed = 0  # number of runs whose commands succeeded despite the fault
        self.missed = 0

    def __str__(self):
        missed = f", {self.missed} not reached" if self.missed else ""
        return f"{self.struck} ({self.unnoticed} unnoticed{missed})"


class CrashTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.faults = Faults(os.path.join(self.folder, "faults"))
        self.addCleanup(self.faults.close)
        self.tallies = {}
        self.failures = []
        self.begin = time.monotonic()

    def tally(self, name):
        return self.tallies.setdefault(name, Tally())

    def survey(self, scene_class, kinds, may_be_none=False):
        """Runs the scene without a fault, which must succeed. Returns the calls into which a fault can be injected."""
        scene = scene_class(self, self.faults)
        self.assertTrue(scene.act(Strike(kinds=kinds)), scene.failed)
        points = self.faults.points()
        scene.check_done()
        scene.check_counted()
        self.assertEqual(set(scene.remaining()), scene.counted & set(scene.remaining()))
        self.assertTrue(points or may_be_none)
        return points

    def try_one(self, scene_class, strike, tally):
        scene = scene_class(self, self.faults)
        point = "?"
        try:
            done = scene.act(strike)
            if self.faults.struck == 0:
                tally.missed += 1
                return
            point = self.faults.point(strike.number)
            tally.struck += 1
            tally.unnoticed += done
            self.after_strike(scene, done)
            scene.check_counted()
            scene.check()
            scene.again()
            if not scene.act(Strike()):
                raise Failure(f"not possible again: {scene.failed} {scene.log()[-3:]}")
            scene.check_done()
        except AssertionError as error:
            self.failures.append(f"  {strike}, {point}: {error}")

    def report(self, name, what):
        """Prints the results, and fails the test if a trial failed."""
        struck = sum(tally.struck for tally in self.tallies.values())
        each = ", ".join(f"{fault} {tally}" for fault, tally in self.tallies.items())
        print(f"{name}: {struck} {what} survived: {each}; {time.monotonic() - self.begin:.1f} s"
              + ("" if ALL else f"; QUARN2_CP_SEED={SEED}"), file=sys.stderr, flush=True)
        self.assertGreater(struck, 0)
        if self.failures:
            self.fail(f"{name}: {len(self.failures)} of {struck}:\n" + "\n".join(self.failures))

    def after_strike(self, scene, done):
        raise NotImplementedError
