"""Kills every command at a call that changes something, and then runs it again.

Each scene (crash_scenes.py) first runs without a fault, to count its calls that change something. These calls are
the points of the scene. Then, for each point, the test creates a new root and kills the process at that point, for a
write also in the middle of the data. After that the test checks the files, starts a server on them, and repeats the
job.

The points differ a little between runs, because the order of threads and processes varies. A point that does
not occur is counted as not reached.

QUARN2_CP_ALL_POINTS=1 tries all points. Otherwise the test tries a random sample of each scene. It prints the
seed of the sample; QUARN2_CP_SEED sets the seed. QUARN2_CP_KILLS is the size of each scene's sample.
"""

import os
import unittest

import crash_scenes
from crash_test_case import CrashTest, sample
from faults import CHANGES, Fault

KILLS = int(os.environ.get("QUARN2_CP_KILLS", "12"))

class KilledCommands(CrashTest):
    def each_fault(self, scene):
        """Yields a kill before each counted call, after the last call, and in the middle of each write."""
        points = self.survey(scene, CHANGES)
        for number, point in enumerate(points, 1):
            yield Fault("kill_before", number)
            if point.split()[1] in ("write", "pwrite", "send"):
                yield Fault("torn", number)
        yield Fault("kill_after", len(points))

    def kill(self, scene):
        for fault in sample(list(self.each_fault(scene)), KILLS):
            self.try_one(scene, fault, self.tally(fault.action))
        self.report(scene.__name__, "kills")

    def after_fault(self, scene, done):
        scene.check()


for _scene in crash_scenes.SCENES:
    def _test(self, scene=_scene):
        self.kill(scene)
    setattr(KilledCommands, "test_" + _scene.__name__, _test)


if __name__ == "__main__":
    unittest.main()
