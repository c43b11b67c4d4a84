"""Runs a crash test scene with a fault in one call of the program, and counts the results."""

import os
import random
import sys
import time

from crash_scene import Failure
from faults import Fault, FaultControl
from system_test import SystemTest

ALL = os.environ.get("QUARN2_CP_ALL_POINTS") == "1"
SEED = int(os.environ.get("QUARN2_CP_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 31)


def sample(faults, size):
    if ALL or len(faults) <= size:
        return faults
    chosen = sorted(random.Random(SEED).sample(range(len(faults)), size))
    return [faults[place] for place in chosen]


class Tally:
    """The results of one kind of fault in one scene."""

    def __init__(self):
        self.injected = 0
        self.unnoticed = 0  # number of runs whose commands succeeded despite the fault
        self.missed = 0

    def __str__(self):
        missed = f", {self.missed} not reached" if self.missed else ""
        return f"{self.injected} ({self.unnoticed} unnoticed{missed})"


class CrashTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.fault_control = FaultControl(os.path.join(self.folder, "faults"))
        self.addCleanup(self.fault_control.close)
        self.tallies = {}
        self.failures = []
        self.begin = time.monotonic()

    def tally(self, name):
        return self.tallies.setdefault(name, Tally())

    def survey(self, scene_class, kinds, may_be_none=False):
        """Runs the scene without a fault, which must succeed. Returns the calls into which a fault can be injected."""
        scene = scene_class(self, self.fault_control)
        self.assertTrue(scene.act(Fault(kinds=kinds)), scene.failed)
        points = self.fault_control.points()
        scene.check_done()
        scene.check_counted()
        self.assertEqual(set(scene.remaining()), scene.counted & set(scene.remaining()))
        self.assertTrue(points or may_be_none)
        return points

    def try_one(self, scene_class, fault, tally):
        scene = scene_class(self, self.fault_control)
        point = "?"
        try:
            done = scene.act(fault)
            if self.fault_control.injected == 0:
                tally.missed += 1
                return
            point = self.fault_control.point(fault.number)
            tally.injected += 1
            tally.unnoticed += done
            self.after_fault(scene, done)
            scene.check_counted()
            scene.check()
            scene.again()
            if not scene.act(Fault()):
                raise Failure(f"not possible again: {scene.failed} {scene.log()[-3:]}")
            scene.check_done()
        except AssertionError as error:
            self.failures.append(f"  {fault}, {point}: {error}")

    def report(self, name, what):
        """Prints the results, and fails the test if a trial failed."""
        injected = sum(tally.injected for tally in self.tallies.values())
        each = ", ".join(f"{fault} {tally}" for fault, tally in self.tallies.items())
        print(f"{name}: {injected} {what} survived: {each}; {time.monotonic() - self.begin:.1f} s"
              + ("" if ALL else f"; QUARN2_CP_SEED={SEED}"), file=sys.stderr, flush=True)
        self.assertGreater(injected, 0)
        if self.failures:
            self.fail(f"{name}: {len(self.failures)} of {injected}:\n" + "\n".join(self.failures))

    def after_fault(self, scene, done):
        raise NotImplementedError
