"""Settings that the program inherits from its caller: ignored signals, limits and the umask."""

import os
import stat
import unittest

from install_root import ENDED_PAUSES
from local_files import write
from server_command import Server
from system_test import SystemTest
from waiting import wait_for


DATE = "2026-11-20"
LIMIT = 300_000


class InheritedSettings(SystemTest):
    def serve(self, root, *wrapper):
        return Server(root, "--date", DATE, "--count-limit", "9:99", wrapper=wrapper).wait_ready()

    def put(self, root, user, size):
        path = write(os.path.join(root.work, f"F{DATE}.{user}.tgz"), b"x" * size)
        self.assert_success(root.run("--put", path))
        return path

    def test_a_server_starts_with_an_ignored_sigchld(self):
        root = self.root()
        server = self.serve(root, "env", "--ignore-signal=CHLD")
        path = self.put(root, "web1", 10)
        wait_for(lambda: not os.path.exists(path), "the upload")
        self.assertEqual(0, server.end())
        self.assertEqual([], root.log_texts(3))

    def test_a_file_size_limit_fails_one_upload_and_not_the_node_client(self):
        root = self.root(program=ENDED_PAUSES)
        server = self.serve(root, "prlimit", f"--fsize={LIMIT}")
        client = server.node_client()
        root.end_pauses()
        large = self.put(root, "web1", LIMIT + 1)
        wait_for(lambda: os.path.exists(large + ".attempts"), "three failed attempts")
        small = self.put(root, "web2", LIMIT - 1)
        wait_for(lambda: not os.path.exists(small), "the upload")
        self.assertEqual([os.path.basename(small)], root.stored())
        self.assertEqual(client, server.node_client())
        self.assertEqual(0, server.end())

    def test_the_control_sockets_mode_is_that_of_its_owner_under_every_umask(self):
        for umask in ("0000", "0277", "0777"):
            with self.subTest(umask=umask):
                root = self.root()
                server = self.serve(root, "sh", "-c", f'umask {umask}; exec "$@"', "sh")
                wait_for(lambda path=root.file("tmp/quarn2_cp.sock"): os.path.exists(path), "the socket")
                mode = os.stat(root.file("tmp/quarn2_cp.sock")).st_mode
                self.assertEqual(0o600, stat.S_IMODE(mode))
                self.assertEqual(0, server.end())


if __name__ == "__main__":
    unittest.main()
