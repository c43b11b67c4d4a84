"""Runs every command with one failing call, and then again without a fault.

Works like test_crash_kills.py, but injects errors instead of kills: a full disk (for one call, or from that call on), a
quota, a broken disk, interrupted calls, no free descriptors, short reads and writes, and no new process. The
command either succeeds, or reports the error on standard error or in the log. In both cases nothing is lost,
and the repeated command succeeds.

QUARN2_CP_ALL_POINTS and QUARN2_CP_SEED have the same meaning as in test_crash_kills.py. QUARN2_CP_ERRORS is the
size of each scene's random sample.
"""

import errno
import os
import re
import unittest

import crash_scenes
from crash_scene import require
from crash_test_case import CrashTest, sample
from faults import Fault

ERRORS = int(os.environ.get("QUARN2_CP_ERRORS", "10"))
DISK = ("open", "write", "allocate", "rename", "mkdir", "link", "sync")
FAULTS = {
    "full": Fault("fail", error=errno.ENOSPC, kinds=DISK),
    "full from there on": Fault("fail", error=errno.ENOSPC, kinds=DISK, lasting=True),
    "quota": Fault("fail", error=errno.EDQUOT, kinds=DISK),
    "broken": Fault("fail", error=errno.EIO, kinds=(*DISK, "unlink", "attributes", "read")),
    "interrupted": Fault("fail", error=errno.EINTR,
                          kinds=("open", "write", "sync", "lock", "read", "send", "receive")),
    "no descriptors": Fault("fail", error=errno.EMFILE, kinds=("open", "descriptor")),
    # The list does not contain "send": messages through pipes and sockets are small, and the kernel never sends only a
    # part of them.
    "short": Fault("short", kinds=("write", "read", "receive")),
    "no process": Fault("fail", error=errno.EAGAIN, kinds=("fork",)),
}


class FailingCalls(CrashTest):
    def each_fault(self, scene):
        """Yields (name of the fault, Fault) for every kind of fault and every call of the scene that it applies to."""
        for name, fault in FAULTS.items():
            for number in range(1, len(self.survey(scene, fault.kinds, may_be_none=True)) + 1):
                yield name, Fault(fault.action, number, fault.error, fault.kinds, fault.lasting)

    def fail_all(self, scene):
        for name, fault in sample(list(self.each_fault(scene)), ERRORS):
            self.try_one(scene, fault, self.tally(name))
        self.report(scene.__name__, "errors")

    def after_fault(self, scene, done):
        if not done:
            self.check_told(scene)
        elif not any(entry.level <= 4 for entry in scene.log()):
            # On a full disk the node client can write no log entry, and it may have left the ledger entry of a complete
            # backup. Then the next server must count the backup.
            if scene.fault.lasting:
                scene.check_counted()
            scene.check_done()
        scene.check()

    def check_told(self, scene):
        """Checks that standard error or the log has the reason why the command failed."""
        command, status, text = scene.failed[0]
        told = re.fullmatch(r"(The size control server ended while .*\n)?quarn2_cp: \S.*\n"
                            r"(No size control server runs here .*\n)?", text)
        logged = any(entry.level <= 4 for entry in scene.log())
        require(status in (1, 2) and (told or logged), lambda: f"{command} ended with {status}: {text!r}")


for _scene in crash_scenes.SCENES:
    def _test(self, scene=_scene):
        self.fail_all(scene)
    setattr(FailingCalls, "test_" + _scene.__name__, _test)


if __name__ == "__main__":
    unittest.main()
