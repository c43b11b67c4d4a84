"""Every command, killed at every call that changes something; then done again.

Each scene (crash_scenes.py) first runs undisturbed, which counts its points. Then, for each of them, a
fresh root is laid out, the process is killed at that point (in the midst of it where data is written), and
what is left is looked at: by hand, by a server that starts on it, and by doing the same work again.

The points of a run are not exactly those of the one before: threads and processes overtake each other. A
point that does not come is counted as not reached.

QUARN2_CP_ALL_POINTS=1 tries all points; otherwise a random sample of every scene, whose seed is printed
and can be given in QUARN2_CP_SEED. QUARN2_CP_KILLS is the size of each scene's sample.
"""

import os
import unittest

import crash_scenes
from crash_trial import CrashTest, sample
from faults import CHANGES, Strike

KILLS = int(os.environ.get("QUARN2_CP_KILLS", "12"))

class Kills(CrashTest):
    def strikes(self, scene):
        """All of them: the kill before each point and after the last, and amid each piece of data."""
        points = self.survey(scene, CHANGES)
        for number, point in enumerate(points, 1):
            yield Strike("kill_before", number)
            if point.split()[1] in ("write", "pwrite", "send"):
                yield Strike("torn", number)
        yield Strike("kill_after", len(points))

    def kill(self, scene):
        for strike in sample(list(self.strikes(scene)), KILLS):
            self.try_one(scene, strike, self.tally(strike.action))
        self.report(scene.__name__, "kills")

    def after_strike(self, scene, done):
        scene.check()


for _scene in crash_scenes.SCENES:
    def _test(self, scene=_scene):
        self.kill(scene)
    setattr(Kills, "test_" + _scene.__name__, _test)


if __name__ == "__main__":
    unittest.main()
