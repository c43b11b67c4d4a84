"""The fault library makes the lock calls of a running server fail."""

import errno
import os
import unittest

from faults import Fault, FaultControl
from processes import wait_gone
from samples import DATE
from server_command import Server
from system_test import SystemTest


class RefusedLock(SystemTest):
    def test_a_lock_file_that_cannot_be_locked_ends_the_server_with_a_reason(self):
        root = self.root()
        faults = FaultControl(root.file("faults"))
        self.addCleanup(faults.close)
        server = Server(root, "--date", DATE, env=faults.environment()).wait_ready()
        faults.write(Fault("fail", 1, errno.ENOLCK, kinds=("lock",), lasting=True), ("daemon",))
        self.assertEqual(0, wait_gone(server.daemon))
        (error,) = root.log_texts(3, server.daemon)
        self.assertEqual("Size control server error: cannot lock var/quarn2_cp.lock: No locks available. The server "
                         "cannot determine whether a job still needs it, so it ends. "
                         "Start it again for the running jobs",
                         error)
        self.assertFalse(os.path.exists(server.pid_file))
        self.assertFalse(os.path.exists(server.lock_file))
        self.assertEqual(0, Server(root, "--date", DATE).wait_ready().end())


if __name__ == "__main__":
    unittest.main()
