"""--put: stored files, info files, replies of the node client, and commands that are refused."""

import os
import socket
import threading
import time
import unittest

from local_files import read, write
from samples import info_text, read_info
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE, wait_for

DATE = "2026-11-20"
NO_SERVER = "Failed to connect to size control server socket"


def how_to_start(option=""):
    """Returns the second line of the error of a command that finds no server."""
    return ("\nNo size control server runs here for this storage. Start one and keep its standard "
            f"input open: mkfifo /run/hold; quarn2_cp --server {option}--size-limit BYTES "
            "--count-limit FULL:DAILY </run/hold & exec 3>/run/hold")


class PutTest(SystemTest):
    """A root with a running server."""

    def setUp(self):
        super().setUp()
        self.r = self.root()
        self.server = Server(self.r, "--date", DATE, "--count-limit", "100:100").wait_ready()
        self.r.wait_log(f"Client. Backup token = 'local://{self.r.storage}'")

    def source(self, name, data="0123456789"):
        return write(os.path.join(self.r.work, name), data)

    def info(self, name="job.info", **fields):
        return self.source(name, info_text(fields))

    def put(self, *arguments, **options):
        result = self.r.run("--put", *arguments, **options)
        self.assert_success(result)
        self.assertEqual("", result.stdout)

    def wait_stored(self, *names):
        wait_for(lambda: set(names) <= set(self.r.stored()), f"{names} on the storage")


class Slices(PutTest):
    def test_a_slice_is_stored_and_its_source_removed(self):
        path = self.source("F2026-11-20.web1.1.dar", "the data")
        self.put(path)
        wait_for(lambda: not os.path.exists(path), "the source's removal")
        self.assertEqual(["F2026-11-20.web1.1.dar"], self.r.stored())
        self.assertEqual(b"the data", read(os.path.join(self.r.storage, self.r.stored()[0])))
        self.assertEqual([f"Put {path}"], [text for text in self.r.log_texts(5)
                                           if text.startswith("Put ")])

    def test_no_delete_keeps_the_source(self):
        path = self.source("F2026-11-20.web1.1.dar")
        self.put(path, "--no-delete")
        self.assertEqual(0, self.server.end())  # waits for the end of the upload
        self.assertEqual(b"0123456789", read(path))
        self.assertEqual(["F2026-11-20.web1.1.dar"], self.r.stored())

    def test_a_file_of_zero_bytes(self):
        self.put(self.source("F2026-11-20.web1.tgz", ""))
        self.wait_stored("F2026-11-20.web1.tgz")
        self.assertEqual(b"", read(os.path.join(self.r.storage, "F2026-11-20.web1.tgz")))

    def test_a_blank_in_a_directory(self):
        path = self.source("my job/of today/F2026-11-20.web1.tgz")
        self.put(path)
        self.wait_stored("F2026-11-20.web1.tgz")
        wait_for(lambda: not os.path.exists(path), "the source's removal")

    def test_a_directory_that_ends_like_the_delete_suffix(self):
        path = self.source("work DELETE/F2026-11-20.web1.tgz")
        self.put(path, "--no-delete")
        self.wait_stored("F2026-11-20.web1.tgz")
        self.assertEqual(0, self.server.end())
        self.assertTrue(os.path.exists(path))

    def test_names_that_cannot_be_stored_are_refused_and_nothing_is_lost(self):
        info = self.info(type="full", created=f"{DATE} 00:00:00")
        before = read(info)
        for name in ("F2026-11-20.we b.tgz", "F2026-11-20.web1\n.tgz", "F2026-11-20.\x01web.tgz",
                     " F2026-11-20.web1.tgz"):
            with self.subTest(name=name):
                path = self.source(name)
                result = self.r.run("--put", path, "--info-file", info, "--last_slice")
                self.assertEqual(1, result.returncode)
                self.assertRegex(result.stderr,
                                 r"\Aquarn2_cp: .*: it contains a (space|control character)[^\n]*\n\Z")
                self.assertTrue(os.path.exists(path))
                self.assertEqual(before, read(info))
        self.assertEqual([], self.r.stored())

    def test_user_names_with_dots(self):
        info = self.info("2026-11-20.my.web.site.info", type="full", created=f"{DATE} 00:00:00")
        self.put(self.source("F2026-11-20.my.web.site.tgz"), "-I", info, "--last_slice")
        self.put(self.source("2026-11-20.my.web.site.tgz"), "-I", info, "--isolated", "--no-delete")
        self.assertEqual(["2026-11-20.my.web.site.info", "2026-11-20.my.web.site.tgz",
                          "F2026-11-20.my.web.site.tgz"], self.r.stored())
        self.assertEqual("F2026-11-20.my.web.site.tgz",
                         read_info(os.path.join(self.r.storage, "2026-11-20.my.web.site.info"))
                         ["last-slice"])

    def test_a_missing_source(self):
        info = self.info(type="full", created=f"{DATE} 00:00:00")
        before = read(info)
        path = os.path.join(self.r.work, "F2026-11-20.no.tgz")
        result = self.r.run("--put", path, "-I", info)
        self.assert_error(result, f"the node client refused the command: Failed to examine '{path}': "
                                  "No such file or directory")
        self.assertEqual(before, read(info))

    def test_a_relative_path_is_relative_to_the_install_root(self):
        write(self.r.file("tmp/F2026-11-20.web1.tgz"), "data")
        self.put("tmp/../tmp//F2026-11-20.web1.tgz", cwd=self.r.work)
        self.wait_stored("F2026-11-20.web1.tgz")

    def test_a_file_in_directory_form(self):
        self.put(self.source("web1/2026-11-20/F2026-11-20.web1.1.dar"))
        self.wait_stored("web1/2026-11-20/F2026-11-20.web1.1.dar")

    def test_several_puts_at_the_same_time(self):
        paths = [self.source(f"F2026-11-20.user{number}.tgz", f"data {number}")
                 for number in range(12)]
        results = []
        threads = [threading.Thread(target=lambda path=path: results.append(
            self.r.run("--put", path))) for path in paths]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([0] * 12, [result.returncode for result in results])
        self.wait_stored(*map(os.path.basename, paths))


class WithoutServer(SystemTest):
    def test_a_missing_server_is_reported(self):
        root = self.root()
        path = write(os.path.join(root.work, "F2026-11-20.web1.tgz"), "data")
        info = write(os.path.join(root.work, "job.info"), "type=full")
        self.assert_error(root.run("--put", path, "-I", info), NO_SERVER + how_to_start())
        self.assertEqual([NO_SERVER], root.log_texts(3))
        self.assertEqual((b"data", b"type=full"), (read(path), read(info)))

    def test_a_server_of_another_storage_is_not_used(self):
        root = self.root()
        server = Server(root, "--storage", "alice").wait_ready()
        root.wait_log(f"Client. Backup token = 'local://{root.storage}'")
        path = write(os.path.join(root.work, "F2026-11-20.web1.tgz"), "data")
        for name, option in ((None, ""), ("", ""), ("bob", "--storage 'bob' ")):
            self.assert_error(root.run("--put", path, env={"BACKUP_STORAGE": name}),
                              NO_SERVER + how_to_start(option))
        result = root.run("--put", path, env={"BACKUP_STORAGE": "alice", "BACKUP_TOKEN": None})
        self.assert_success(result)
        self.assertEqual(0, server.end())
        self.assertEqual(["F2026-11-20.web1.tgz"], root.stored())


class Replies(SystemTest):
    """The answers of a scripted node client to a --put command."""

    def setUp(self):
        super().setUp()
        self.r = self.root()
        os.makedirs(self.r.file("tmp"))
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.r.file("tmp/quarn2_cp.sock"))
        self.listener.listen(5)
        self.listener.settimeout(DEADLINE)
        self.addCleanup(self.listener.close)

    def serve(self, *answers):
        """Starts a thread that accepts one command for each answer and sends the answer. Returns the list to which the
        thread adds the texts of the commands."""
        commands = []

        def work():
            for answer in answers:
                connection, _ = self.listener.accept()
                with connection:
                    text = b""
                    while piece := connection.recv(4096):
                        text += piece
                    commands.append(text.decode())
                    for piece in answer if isinstance(answer, list) else [answer]:
                        connection.sendall(piece.encode())
                        time.sleep(0.01)
        thread = threading.Thread(target=work)
        thread.start()
        self.addCleanup(thread.join)
        return commands

    def job(self, **fields):
        return write(os.path.join(self.r.work, "job.info"), info_text(fields))

    def test_the_requests_byte_for_byte(self):
        commands = self.serve("OK name 5", "OK name 5")
        self.assert_success(self.r.run("--put", "/data/x y/file.tgz"))
        self.assert_success(self.r.run("--put", "/data//x/./file.tgz", "--no-delete"))
        wait_for(lambda: len(commands) == 2, "both commands")
        self.assertEqual(["PUT /data/x y/file.tgz DELETE", "PUT /data/x/file.tgz"], commands)

    def test_two_words_add_the_bytes_and_leave_the_key_hash_alone(self):
        self.serve("OK F1.tgz 1048576")
        info = self.job(size=5, key_hash="old", type="full", created=f"{DATE} 00:00:00")
        self.assert_success(self.r.run("--put", "/d/F1.tgz", "-I", info, "--convert"))
        self.assertEqual({"size": "1048581", "key_hash": "old", "type": "full",
                          "created": f"{DATE} 00:00:00"}, read_info(info))

    def test_further_words_are_the_key_hash_with_the_blank_between_them(self):
        self.serve(["O", "K F1.t", "gz 10 first se", "cond"])
        info = self.job(key_hash="old")
        self.assert_success(self.r.run("--put", "/d/F1.tgz", "-I", info, "--convert"))
        self.assertEqual({"size": "10", "key_hash": "first second"}, read_info(info))

    def test_invalid_replies_are_errors(self):
        info = self.job(size=5)
        for answer, text in (("OK", "Command PUT result is empty"),
                             ("OK ", "Command PUT result is empty"),
                             ("OK  7 rest", "Getting fname from result:'7 rest'"),
                             ("", "the node client refused the command; see var/quarn2_cp.log"),
                             ("NO way", "NO")):
            with self.subTest(answer=answer):
                self.serve(answer)
                self.assert_error(self.r.run("--put", "/d/F1.tgz", "-I", info), text)
                self.assertEqual("size=5", read(info).decode())
        self.serve("OK F1.tgz many")
        result = self.r.run("--put", "/d/F1.tgz", "-I", info)
        self.assertEqual(1, result.returncode)
        self.assertIn("many", result.stderr)
        self.assertEqual("size=5", read(info).decode())


if __name__ == "__main__":
    unittest.main()
