"""Races between starts and ends of servers, repeated many times with real processes."""

import fcntl
import os
import random
import signal
import socket
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from local_files import read, write
from processes import descriptors, wait_gone, write_lock_holder
from samples import write_info
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE, wait_for

DATE = "2026-11-20"
ROOTS = 5
ROUNDS = int(os.environ.get("QUARN2_CP_ROUNDS", 4))  # number of rounds in each install root
SEED = int(os.environ.get("QUARN2_CP_SEED", random.SystemRandom().randrange(10**9)))
FAILED = "quarn2_cp: Failed to start size control server\n"


class BlockedStart:
    """Blocks a daemon during its start: the clean-up list names a storage server that never answers."""

    def __init__(self, root):
        self.root = root
        self.path = os.path.join(root.info_root, ".cleanup")
        self.server = socket.create_server(("127.0.0.1", 0))
        port = self.server.getsockname()[1]
        write(self.path, f"webdav+http://127.0.0.1:{port}/dir?timeout=600\t{DATE}.web9\n")

    def wait_held(self):
        """Waits until a daemon has begun to clean up. Returns the daemon's process id."""
        self.server.settimeout(DEADLINE)
        self.connection, _ = self.server.accept()
        return int(read(self.root.file("var/quarn2_cp.pid")).split(b"\n")[0])

    def let_go(self):
        """Closes the storage server. The blocked daemon continues, because its clean-up fails."""
        self.server.close()
        self.connection.close()

    def kill(self, daemon):
        os.unlink(self.path)
        os.kill(daemon, signal.SIGKILL)
        self.let_go()


class KilledWhileStarting(SystemTest):
    def assert_failed(self, server):
        status, errors = server.wait_end()
        self.assertEqual(1, status)
        self.assertIn(FAILED, errors)
        self.assertIn("var/quarn2_cp.log", errors)
        self.assertEqual("", read(server.pid_file).decode().partition("\n")[0]
                         if self.holder(server) else "")

    @staticmethod
    def holder(server):
        return os.path.exists(server.pid_file) and write_lock_holder(server.pid_file)

    def test_an_unreadable_info_file_is_logged(self):
        root = self.root()
        path = write_info(root.info_root, "web1", DATE, size="abc")
        server = Server(root, "--date", DATE)
        self.assert_failed(server)
        (error,) = [entry for entry in root.log(3) if "Size control" in entry.text]
        self.assertNotEqual(server.pid, error.pid)
        self.assertRegex(error.text, r"\ASize control server error: .*abc")
        self.assertEqual(["Failed to start size control server"], root.log_texts(3, server.pid))
        os.unlink(path)
        self.assertEqual(0, Server(root, "--date", DATE).wait_ready().end())

    def test_a_daemon_killed_while_it_starts_fails_its_caller_and_blocks_no_other(self):
        root = self.root()
        held = BlockedStart(root)
        server = Server(root, "--date", DATE)
        daemon = held.wait_held()
        self.assertFalse(server.is_ready(0.2))
        held.kill(daemon)
        self.assert_failed(server)
        self.assertEqual(0, Server(root, "--date", DATE).wait_ready().end())

    def test_another_caller_takes_over_from_a_daemon_killed_while_it_starts(self):
        root = self.root()
        held = BlockedStart(root)
        first = Server(root, "--date", DATE)
        daemon = held.wait_held()
        second = Server(root, "--date", DATE)
        time.sleep(0.2)  # now the second command probably waits for the lock, but the test passes at any time
        held.kill(daemon)
        # The order of the two --server commands is not defined. If the second command starts its server first, both
        # commands share that server. If not, the first command fails.
        second.wait_ready()
        self.assertNotEqual(daemon, second.daemon)
        try:
            first.wait_ready()
            self.assertEqual(second.daemon, first.daemon)
        except AssertionError:
            self.assertEqual(1, first.wait_end()[0])
        first.release()
        self.assertEqual(0, second.end())

    def test_a_caller_killed_while_its_daemon_starts_leaves_nothing(self):
        root = self.root()
        held = BlockedStart(root)
        server = Server(root, "--date", DATE)
        daemon = held.wait_held()
        server.process.kill()
        server.process.wait()
        held.let_go()
        self.assertEqual(0, wait_gone(daemon))
        self.assertFalse(os.path.exists(server.pid_file))
        self.assertFalse(os.path.exists(server.lock_file))
        self.assertEqual([], root.log(3, daemon))

    def test_a_caller_that_comes_while_the_daemon_starts_uses_it(self):
        root = self.root()
        held = BlockedStart(root)
        first = Server(root, "--date", DATE, "--count-limit", "0:9")
        daemon = held.wait_held()
        second = Server(root, "--date", DATE, "--count-limit", "0:9")
        self.assertFalse(second.is_ready(1.2))
        held.let_go()
        self.assertEqual((daemon, daemon), (first.wait_ready().daemon, second.wait_ready().daemon))
        self.assertEqual([], root.log(4, second.pid))
        first.release()
        self.assertEqual(0, second.end())

    def test_a_caller_killed_while_it_waits_for_a_starting_daemon_changes_nothing(self):
        root = self.root()
        held = BlockedStart(root)
        first = Server(root, "--date", DATE)
        daemon = held.wait_held()
        second = Server(root, "--date", DATE)
        time.sleep(0.2)  # the kill may happen at any moment while the second command waits
        second.process.kill()
        second.process.wait()
        held.let_go()
        self.assertEqual(daemon, first.wait_ready().daemon)
        self.assertEqual(0, first.end())


class ReplacedLockFile(SystemTest):
    """The test itself acts as the running server, and holds the locks of the pid file."""

    def run_server(self, root):
        path = write(root.file("var/quarn2_cp.pid"), f"{os.getpid()}\n{DATE}\n{'A' * 20}\n0\n0\n")
        pid_file = open(path, "r+b")
        self.addCleanup(pid_file.close)
        fcntl.flock(pid_file, fcntl.LOCK_EX)
        fcntl.lockf(pid_file, fcntl.LOCK_EX)

    def test_a_waiting_caller_locks_the_new_lock_file(self):
        root = self.root()
        self.run_server(root)
        path = write(root.file("var/quarn2_cp.lock"), "")
        with open(path, "rb") as old:
            fcntl.flock(old, fcntl.LOCK_EX)
            server = Server(root, "--date", DATE)
            wait_for(lambda: path in descriptors(server.pid).values(), "a waiting caller")
            self.assertFalse(server.is_ready(0.3))
            os.unlink(path)
            write(path, "")
        self.assertTrue(server.is_ready(DEADLINE))
        with open(path, "rb") as new:
            with self.assertRaises(BlockingIOError):
                fcntl.flock(new, fcntl.LOCK_EX | fcntl.LOCK_NB)
            server.release()
            fcntl.flock(new, fcntl.LOCK_EX | fcntl.LOCK_NB)


class Races(SystemTest):
    def shortDescription(self):
        return f"QUARN2_CP_SEED={SEED}"

    def in_roots(self, work):
        """Runs work(root, random) in several roots in parallel."""
        def one(number):
            return work(self.root(f"root{number}"), random.Random(SEED + number))
        with ThreadPoolExecutor(ROOTS) as pool:
            list(pool.map(one, range(ROOTS)))

    def test_callers_at_the_same_instant_share_one_daemon(self):
        def work(root, _):
            seen = set()
            for _ in range(ROUNDS):
                barrier = threading.Barrier(2)

                def start():
                    barrier.wait()
                    return Server(root, "--date", DATE)

                with ThreadPoolExecutor(2) as pool:
                    servers = list(pool.map(lambda _: start(), range(2)))
                for server in servers:
                    server.wait_ready()
                daemons = {server.daemon for server in servers}
                self.assertEqual(1, len(daemons))
                callers = {server.pid for server in servers}
                self.assertEqual(1, len([entry for entry in root.log(5)
                                         if entry.text == "Size control started"
                                         and entry.pid in callers]))
                seen |= daemons | callers
                # A kill ends the daemon at once. After a release it ends only at the next check of its lock, up to a
                # second later.
                self.kill_all(servers, daemons.pop())
            self.assertEqual([], [entry for entry in root.log(3) if entry.pid in seen])
        self.in_roots(work)

    @staticmethod
    def kill_all(servers, daemon):
        os.kill(daemon, signal.SIGKILL)
        for server in servers:
            server.release()
        wait_gone(daemon)

    def test_a_caller_that_comes_while_the_daemon_ends_gets_a_server(self):
        def work(root, choice):
            server = Server(root, "--date", DATE).wait_ready()
            for _ in range(ROUNDS):
                old = server
                old.release()
                # The daemon polls once a second, so it ends at any moment of this interval.
                time.sleep(choice.uniform(0, 1.1))
                server = Server(root, "--date", DATE).wait_ready()
                self.assertEqual(server.daemon, write_lock_holder(server.pid_file))
                self.assertTrue(os.path.exists(server.lock_file))
                if server.daemon != old.daemon:
                    self.assertEqual(0, wait_gone(old.daemon))
                    self.assertTrue(os.path.exists(server.pid_file))
                    self.assertTrue(os.path.exists(server.lock_file))
            self.assertEqual(0, server.end())
            self.assertEqual([], root.log(3))
        self.in_roots(work)

    def test_a_caller_that_comes_while_the_daemon_is_terminated_gets_a_server(self):
        def work(root, choice):
            server = Server(root, "--date", DATE).wait_ready()
            for _ in range(ROUNDS):
                old = server
                os.kill(old.daemon, signal.SIGTERM)
                time.sleep(choice.uniform(0, 0.03))
                between = Server(root, "--date", DATE)
                self.assertTrue(between.is_ready(DEADLINE))
                old.release()
                wait_gone(old.daemon)
                # The command `between` may have joined the old daemon just before that daemon ended. The next --server
                # command cannot join it.
                server = Server(root, "--date", DATE).wait_ready()
                between.release()
                self.assertNotEqual(old.daemon, server.daemon)
                self.assertEqual(server.daemon, write_lock_holder(server.pid_file))
            self.assertEqual(0, server.end())
        self.in_roots(work)


if __name__ == "__main__":
    unittest.main()
