"""--rescan: which files it removes and keeps, interruptions at any point, unusual storages."""

import os
import random
import shutil
import signal
import time
import unittest

from archives import rescan, tree_bytes, wipe
from local_files import read, tree, write
from processes import children, wait_gone
from samples import DATE, Backup, info_text
from server_command import Server
from system_test import SystemTest
from waiting import wait_for

MARKER = ".rescan"
MARKER_BEING_WRITTEN = "..rescan.part~"


def fill(root):
    """Creates backups in all forms. Returns the files that the info root must have after a rescan."""
    for form, user in (("dar", "web1"), ("tgz", "shop.example"), ("part", "a.b.c"),
                       ("dir", "web4")):
        Backup(root, user, DATE, form=form, data=user.encode() * 100)
    return tree_bytes(root.info_root)


class RescanTest(SystemTest):
    def rescan_fails(self, root, *words):
        result = root.run("--server", "--rescan")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertRegex(result.stderr, r"\Aquarn2_cp: \S.*\n\Z")
        for word in words:
            self.assertIn(word, result.stderr)
        self.assertFalse(os.path.exists(root.file("var/quarn2_cp.pid")))


class FetchedAndRemovedFiles(RescanTest):
    def test_a_missing_info_root(self):
        root = self.root()
        expected = fill(root)
        wipe(root)
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))

    def test_local_files_that_the_storage_has_no_longer_are_removed(self):
        root = self.root()
        expected = fill(root)
        for name in ("2026-11-01.web1.info", "2026-11-01.web1.1.dar", "stray", "gone/2026-11-01/x",
                     "web4/2026-11-01/2026-11-01.web4.info", "web4/stray",
                     f"web4/{DATE}/2026-11-19.web4.info", f"web4/{DATE}/{DATE}.web4.tgz",
                     ".encrypted_indexes", "deep/er/and/deeper"):
            write(os.path.join(root.info_root, name), "old")
        os.symlink("/etc", os.path.join(root.info_root, "a link"))
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))
        self.assertEqual(sorted(name for name in expected if "/" not in name) + ["web4"],
                         sorted(os.listdir(root.info_root)))

    def test_files_of_the_storage_that_are_missing_or_cut_short_here_are_fetched(self):
        root = self.root()
        expected = fill(root)
        for name in sorted(expected)[::2]:
            os.remove(os.path.join(root.info_root, name))
        write(os.path.join(root.info_root, f"{DATE}.web1.info"), "cut")
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))

    def test_the_list_of_incomplete_backups_stays(self):
        root = self.root()
        fill(root)
        path = write(os.path.join(root.info_root, ".cleanup"), f"local:///nowhere\t{DATE}.web9\n")
        rescan(root)
        self.assertIn(b"web9", read(path))

    def test_a_failed_download_keeps_the_local_file(self):
        root = self.root()
        expected = fill(root)
        for name in (f"{DATE}.web1.info", f"{DATE}.a.b.c.tgz"):
            path = os.path.join(root.storage, name)
            os.remove(path)
            os.symlink("/nowhere", path)
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))
        told = [text for text in root.log_texts(4) if text.startswith("Cant download file: '")]
        self.assertEqual(2, len(told), told)

    def test_the_storage_of_one_user(self):
        root = self.root()
        expected = fill(root)
        wipe(root)
        write(os.path.join(root.info_root, "kept"), "kept")
        rescan(root, "--storage", "web4")
        local = tree_bytes(root.info_root)
        self.assertEqual({name: data for name, data in expected.items() if "/" in name},
                         {name: data for name, data in local.items() if "/" in name})
        self.assertEqual(b"kept", local["kept"])

    def test_the_server_after_the_rescan_applies_the_count_limits(self):
        root = self.root()
        for date, kind in (("2026-11-15", "full"), ("2026-11-16", "daily"),
                           ("2026-11-17", "daily")):
            Backup(root, "web1", date, kind)
        server = Server(root, "--rescan", "--count-limit", "4:1").wait_ready()
        self.assertEqual((0, ""), server.release())
        self.assertEqual(["2026-11-15.web1.info", "2026-11-17.web1.info"],
                         [name for name in root.local() if name.endswith(".info")])


class UnavailableStorage(RescanTest):
    def test_a_missing_storage_directory_ends_the_rescan_before_any_removal(self):
        root = self.root()
        expected = fill(root)
        os.rename(root.storage, root.storage + ".unmounted")
        self.rescan_fails(root, root.storage, "does not exist")
        self.assertEqual(expected, tree_bytes(root.info_root))

    def test_a_file_at_the_path_of_the_storage(self):
        root = self.root()
        expected = fill(root)
        os.rename(root.storage, root.storage + ".away")
        write(root.storage, "a file")
        self.rescan_fails(root, root.storage, "not a directory")
        self.assertEqual(expected, tree_bytes(root.info_root))

    def test_an_empty_storage_empties_the_info_root(self):
        root = self.root()
        fill(root)
        shutil.rmtree(root.storage)
        os.mkdir(root.storage)
        server = Server(root, "--rescan").wait_ready()
        self.assertEqual([], os.listdir(root.info_root))
        self.assertEqual(0, server.end())

    def test_a_directory_above_the_info_roots_is_refused(self):
        root = self.root()
        fill(root)
        before = tree_bytes(root.info_root)
        for path in ("var/backup", root.file("var/backup"), root.file("var/backup/")):
            result = root.run("--server", "--rescan", "--path", path)
            self.assertEqual(1, result.returncode)
            self.assertIn("cannot be rescanned", result.stderr)
        self.assertEqual(before, tree_bytes(root.info_root))


class HostileStorage(RescanTest):
    NAMES = (b"2026-11-20.line\nfeed.info", b"\n", b"..\n", b"tab\t.info", b"\x1b[2J.info",
             b"\x7f.info")

    def everything_else(self, root):
        """Returns all files except the info root and the program's own state files."""
        own = ("var/backup/tovarn/", "var/quarn2_cp.", "tmp/quarn2_cp.")
        inside = {name: read(root.file(name)) for name in tree(root.path)
                  if not name.startswith(own)}
        return inside, tree_bytes(os.path.join(root.base, "outside"))

    def hostile(self):
        root = self.root()
        expected = fill(root)
        for name in ("outside/x.info", "outside/web4/2026-11-20/x", "root/var/x.info",
                     "root/var/backup/x.info", "root/var/backup/tovarn.private/x.info"):
            write(os.path.join(root.base, name), "not the rescan's")
        wipe(root)
        return root, expected

    def test_names_with_control_characters(self):
        root, expected = self.hostile()
        storage = os.fsencode(root.storage)
        for name in self.NAMES:
            for place in (b"", b"web4/", b"web4/2026-11-20/"):
                write(os.path.join(storage, place + name), b"type=full")
            write(os.path.join(storage, b"as a user " + name, b"2026-11-20/x.info"), b"type=full")
            write(os.path.join(storage, b"web4", b"as a date " + name, b"x.info"), b"type=full")
        before = self.everything_else(root)
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))
        self.assertEqual(before, self.everything_else(root))
        skipped = [text for text in root.log_texts(4) if text.startswith("Skip bad name '")]
        self.assertEqual(5 * len(self.NAMES), len(skipped), skipped)

    def test_unusual_names_are_fetched(self):
        root, expected = self.hostile()
        odd = ("-rf.info", "...info", "$(touch x).info", "%s%n.info", "..\\..\\x.info", "a b.info",
               "' ; x '.info", "*.info")
        for name in odd:
            text = info_text({"type": "full", "last-slice": "../../../outside/x.tgz"})
            expected[name] = write(os.path.join(root.storage, name), text) and text.encode()
        before = self.everything_else(root)
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))
        self.assertEqual(before, self.everything_else(root))

    def test_a_directory_at_the_path_of_a_file(self):
        root, expected = self.hostile()
        for name in (f"{DATE}.web5.info", f"web4/{DATE}/{DATE}.web6.info"):
            write(os.path.join(root.storage, name, "x"), "x")
        for name in (f"{DATE}.web1.1.dar", f"{DATE}.shop.example.tgz",
                     f"web4/{DATE}/{DATE}.web4.1.dar"):
            os.remove(os.path.join(root.storage, name))
            os.mkdir(os.path.join(root.storage, name))
            del expected[name]
        before = self.everything_else(root)
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))
        self.assertEqual(before, self.everything_else(root))

    def test_a_file_at_the_path_of_a_directory(self):
        root, _ = self.hostile()
        shutil.rmtree(os.path.join(root.storage, "web4"))
        write(os.path.join(root.storage, "web4"), "a file")
        write(os.path.join(root.storage, "web5/2026-11-20"), "a file")
        write(os.path.join(root.info_root, "web4/2026-11-20/2026-11-20.web4.info"), "old")
        before = self.everything_else(root)
        rescan(root)
        self.assertEqual(before, self.everything_else(root))
        self.assertEqual([], [name for name in root.local() if name.startswith("web5/")])

    def test_names_of_the_info_roots_own_files(self):
        root, expected = self.hostile()
        for name in (".cleanup", ".rescan", ".rescan#web4", ".encrypted_indexes"):
            write(os.path.join(root.storage, name, "2026-11-20/x.info"), "type=full")
        rescan(root)
        local = tree_bytes(root.info_root)
        self.assertEqual(expected, {name: data for name, data in local.items()
                                    if not name.startswith(".")})
        self.assertFalse(os.path.exists(os.path.join(root.info_root, MARKER)))
        self.assertEqual((0, ""), Server(root, "--count-limit", "9:99").wait_ready().release())


class InterruptedRescan(RescanTest):
    USERS = 150

    def interrupt_at(self, root, files):
        """Kills a rescan when the info root has this many files. A fast rescan may end before the kill."""
        pid_file = root.file("var/quarn2_cp.pid")
        if os.path.exists(pid_file):
            os.remove(pid_file)
        server = Server(root, "--rescan", "--count-limit", "9:99")
        wait_for(lambda: self.has_come_to(root, files) or os.path.exists(pid_file),
                 "files of a rescan", pause=0)
        server.process.send_signal(signal.SIGKILL)
        server.process.wait()
        wait_for(lambda: not children(), "the end of a server that had started")

    @staticmethod
    def has_come_to(root, files):
        names = os.listdir(root.info_root) if os.path.isdir(root.info_root) else []
        return MARKER in names and len(names) >= files

    def assert_plain_server_refuses(self, root):
        before = tree_bytes(root.info_root)
        result = root.run("--server", "--count-limit", "9:99")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn(os.path.join(root.info_root, MARKER)[len(root.path) + 1:], result.stderr)
        self.assertIn("run --server --rescan again", result.stderr)
        self.assertEqual(before, tree_bytes(root.info_root))

    def test_a_rescan_that_is_killed_at_random_points_and_repeated(self):
        root = self.root()
        for number in range(self.USERS):
            form = ("dar", "tgz", "part", "dir", "dir")[number % 5]
            Backup(root, f"user.{number}", DATE, form=form, slices=1, data=b"%d\n" % number * 500)
        expected = tree_bytes(root.info_root)
        wipe(root)
        rescan(root)
        whole = len(os.listdir(root.info_root))
        refused = 0
        wipe(root)
        for number in range(25):
            if number % 5 == 4:
                rescan(root)
                self.assertEqual(expected, tree_bytes(root.info_root))
                for name in random.sample(sorted(expected), self.USERS):
                    os.remove(os.path.join(root.info_root, name))
                write(os.path.join(root.info_root, "stray/2026-11-20/x"), "old")
            before = tree_bytes(root.info_root)
            files = random.randrange(whole * 5 // 4)
            with self.subTest(files=files, whole=whole):
                self.interrupt_at(root, files)
                after = tree_bytes(root.info_root)
                after.pop(MARKER_BEING_WRITTEN, None)
                if MARKER in after:
                    self.assert_plain_server_refuses(root)
                    refused += 1
                else:
                    self.assertIn(after, (before, expected))
        self.assertGreater(refused, 0)
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))
        self.assertEqual((0, ""), Server(root, "--count-limit", "9:99").wait_ready().release())

    def test_files_of_an_interrupted_rescan_are_fetched_again(self):
        root = self.root()
        expected = fill(root)
        for name in expected:
            write(os.path.join(root.info_root, name), "")
        write(os.path.join(root.info_root, MARKER), "")
        self.assert_plain_server_refuses(root)
        rescan(root)
        self.assertEqual(expected, tree_bytes(root.info_root))


class Callers(RescanTest):
    def test_a_second_caller_joins_the_server_after_the_rescan(self):
        root = self.root()
        expected = fill(root)
        wipe(root)
        first = Server(root, "--rescan", "--count-limit", "9:99").wait_ready()
        second = Server(root, "--count-limit", "9:99").wait_ready()
        self.assertEqual(first.daemon, second.daemon)
        self.assertEqual((0, ""), first.release())
        time.sleep(1.5)
        third = Server(root, "--count-limit", "9:99").wait_ready()
        self.assertEqual(first.daemon, third.daemon)
        self.assertEqual((0, ""), second.release())
        self.assertEqual(0, third.end())
        self.assertEqual(expected, tree_bytes(root.info_root))

    def test_a_server_that_no_job_holds_ends_before_the_rescan(self):
        root = self.root()
        server = Server(root, "--date", DATE).wait_ready()
        os.kill(server.daemon, signal.SIGSTOP)  # without the signal, the daemon would end within a second
        server.release()
        rescan = Server(root, "--rescan")
        root.wait_log("Waiting for the end of the size control server", pid=rescan.pid)
        Backup(root, "web9", DATE)
        for name in tree(root.info_root):
            os.unlink(os.path.join(root.info_root, name))
        os.kill(server.daemon, signal.SIGCONT)
        wait_gone(server.daemon)
        rescan.wait_ready()
        self.assertNotEqual(server.daemon, rescan.daemon)
        self.assertIn(f"{DATE}.web9.info", root.local())
        self.assertEqual(0, rescan.end())

    def test_a_rescan_waits_until_no_job_holds_the_server(self):
        root = self.root()
        expected = fill(root)
        holder = Server(root, "--count-limit", "9:99").wait_ready()
        os.remove(os.path.join(root.info_root, f"{DATE}.web1.info"))
        waiting = Server(root, "--rescan", "--count-limit", "9:99")
        self.assertFalse(waiting.is_ready(1))
        self.assertNotIn(f"{DATE}.web1.info", root.local())
        self.assertNotIn(MARKER, root.local())
        self.assertEqual((0, ""), holder.release())
        waiting.wait_ready()
        self.assertEqual(0, waiting.end())
        self.assertEqual(expected, tree_bytes(root.info_root))


if __name__ == "__main__":
    unittest.main()
