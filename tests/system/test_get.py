"""--get and --update: invalid input, directories at the paths of files, the progress line."""

import os
import pty
import re
import select
import subprocess
import unittest

from local_files import read, tree, write
from samples import DATE, Backup, info_text
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE

SLICE = f"F{DATE}.web1.2.dar"


class GetTest(SystemTest):
    def site(self):
        """Creates a backup on the storage and an empty folder for a restore."""
        root = self.root()
        self.backup = Backup(root, "web1", DATE, data=b"0123456789")
        self.place = os.path.join(root.base, "restore")
        os.mkdir(self.place)
        return root

    def local(self, name):
        return os.path.join(self.place, name)

    def target(self, name):
        return self.place + "//" + name

    def fails(self, root, *arguments):
        result = root.run("--get", *arguments)
        self.assertEqual((1, ""), (result.returncode, result.stdout), result.stderr)
        self.assertRegex(result.stderr, r"\Aquarn2_cp: \S.*\n\Z")
        return result.stderr


class Get(GetTest):
    def test_a_file_is_fetched_twice(self):
        root = self.site()
        self.assert_success(root.run("--get", self.target(SLICE)))
        self.assertEqual(b"0123456789", read(self.local(SLICE)))
        self.assertEqual([SLICE], tree(self.place))
        write(os.path.join(root.storage, SLICE), "changed")
        self.assert_success(root.run("--get", self.target(SLICE)))
        self.assertEqual(b"0123456789", read(self.local(SLICE)))

    def test_without_a_double_slash_the_file_is_at_the_storage_root(self):
        root = self.site()
        self.assert_success(root.run("--get", self.local(SLICE)))
        self.assertEqual(b"0123456789", read(self.local(SLICE)))

    def test_a_file_in_a_directory_of_the_storage(self):
        root = self.site()
        backup = Backup(root, "web4", DATE, form="dir", data=b"in a directory")
        self.assert_success(root.run("--get", self.target(backup.archives[0])))
        self.assertEqual([backup.archives[0]], tree(self.place))

    def test_the_first_call_brings_info_file_and_last_slice(self):
        root = self.site()
        tmp_file = os.path.join(root.base, "fetched")
        self.assert_success(root.run("--get", "--init", "--tmp-file", tmp_file,
                                     self.target(f"F{DATE}.web1.0.dar")))
        self.assertEqual([f"{DATE}.web1.info", SLICE], tree(self.place))
        self.assertEqual(self.local(SLICE).encode(), read(tmp_file))
        self.assert_success(root.run("--get", "--tmp-file", tmp_file,
                                     self.target(f"F{DATE}.web1.1.dar")))
        self.assertEqual([f"{DATE}.web1.info", f"F{DATE}.web1.1.dar"], tree(self.place))

    def test_a_hostile_last_slice_stays_in_the_local_directory(self):
        root = self.site()
        write(os.path.join(root.storage, "evil"), "evil")
        write(os.path.join(root.storage, f"{DATE}.web1.info"),
              info_text({"last-slice": "../../../evil", "type": "full"}))
        self.assert_success(root.run("--get", "--init", self.target(f"F{DATE}.web1.0.dar")))
        self.assertEqual([f"{DATE}.web1.info", "evil"], tree(self.place))
        self.assertFalse(os.path.exists(os.path.join(root.base, "evil")))


class Encrypted(GetTest):
    def test_without_a_password_an_encrypted_file_is_refused_and_nothing_written(self):
        root = self.root()
        plain, name = root.token, "F2026-11-20.web1.tgz"
        root.token = plain + "?arch_password=long%20enough"
        server = Server(root, "--count-limit", "0:9").wait_ready()
        self.assert_success(root.run("--put", write(os.path.join(root.work, name), "data" * 1000)))
        server.end()
        place = os.path.join(root.base, "back")
        refused = root.run("--get", f"{place}//{name}", env={"BACKUP_TOKEN": plain})
        self.assert_error(refused, "the file is encrypted, but the storage token has no "
                                   "arch_password; add the password that the file was encrypted with; "
                                   f"'{place}/{name}' was not written")
        self.assertEqual([], tree(place))
        self.assert_success(root.run("--get", f"{place}//{name}"))
        self.assertEqual(b"data" * 1000, read(os.path.join(place, name)))


class BadInput(GetTest):
    def test_a_target_directory_that_cannot_be_made(self):
        root = self.site()
        obstacle = write(self.local("obstacle"), "a file")
        for directory in (obstacle, obstacle + "/deeper"):
            self.assertIn(f"'{directory}'", self.fails(root, directory + "//" + SLICE))
        self.assertEqual(b"a file", read(obstacle))

    def test_an_unusable_info_file(self):
        for what, text, words in (("empty", b"", "does not contain the name of the last slice"),
                                  ("binary", b"\0\xff\n" * 99, "is not an info file"),
                                  ("without last-slice", b"type=full", "does not contain the name of the last slice"),
                                  ("last-slice empty", b"last-slice=\ntype=full",
                                   "does not contain the name of the last slice")):
            for side in ("here", "on the storage"):
                with self.subTest(what=what, side=side):
                    root = self.site()
                    info = f"{DATE}.web1.info"
                    write(self.local(info) if side == "here" else
                          os.path.join(root.storage, info), text)
                    previous = write(self.local("previous"), "previous")
                    tmp_file = write(os.path.join(root.base, "fetched"), previous)
                    error = self.fails(root, "--init", "--tmp-file", tmp_file,
                                       self.target(f"F{DATE}.web1.0.dar"))
                    self.assertIn(self.local(info), error)
                    self.assertIn(words, error)
                    self.assertEqual([info, "previous"], tree(self.place))
                    self.assertEqual(previous.encode(), read(tmp_file))

    def test_a_missing_info_file(self):
        root = self.site()
        os.remove(os.path.join(root.storage, f"{DATE}.web1.info"))
        error = self.fails(root, "--init", self.target(f"F{DATE}.web1.0.dar"))
        self.assertIn(f"no file '{DATE}.web1.info' on the storage", error)
        self.assertEqual([f"{DATE}.web1.info.attempts"], tree(self.place))

    def test_a_file_that_the_storage_does_not_list_fails_without_a_retry(self):
        root = self.site()
        for name in ("nowhere.1.dar", "web4/2026-11-20/nowhere.1.dar"):
            self.assertIn(name, self.fails(root, self.target(name)))
            self.assertRegex(read(self.local(name + ".attempts")).decode(),
                             r"\A\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \S.*\n\Z")
        self.assertEqual([], root.log_texts(4))

    def test_a_tmp_file_that_is_a_directory(self):
        root = self.site()
        folder = os.path.join(root.base, "folder")
        write(os.path.join(folder, "kept"), "kept")
        self.assertIn(folder, self.fails(root, "--tmp-file", folder, self.target(SLICE)))
        self.assertEqual((["kept"], []), (tree(folder), tree(self.place)))

    def test_a_tmp_file_that_names_what_get_has_not_written(self):
        root = self.site()
        folder = os.path.join(root.base, "folder")
        kept = write(os.path.join(folder, "kept"), "kept")
        link = os.path.join(root.base, "link")
        os.symlink(kept, link)
        tmp_file = os.path.join(root.base, "fetched")
        for name in (folder, link, "/", kept + "\0more"):
            write(tmp_file, name)
            self.assertIn(tmp_file, self.fails(root, "--tmp-file", tmp_file, self.target(SLICE)))
            self.assertEqual(name.encode(), read(tmp_file))
        self.assertEqual((["kept"], []), (tree(folder), tree(self.place)))
        self.assertTrue(os.path.islink(link))

    def test_a_tmp_file_that_names_nothing_that_exists(self):
        root = self.site()
        tmp_file = os.path.join(root.base, "fetched")
        for text in ("", "/no/such/file", "some words\nover two lines"):
            write(tmp_file, text)
            self.assert_success(root.run("--get", "--tmp-file", tmp_file, self.target(SLICE)))
            self.assertEqual(self.local(SLICE).encode(), read(tmp_file))
            os.remove(self.local(SLICE))


class Update(GetTest):
    def test_a_file_of_a_backup_is_replaced_beside_its_last_slice(self):
        for form in ("dar", "dir"):
            with self.subTest(form=form):
                root = self.root(form)
                backup = Backup(root, "web1", DATE, form=form)
                index = os.path.join(root.info_root, backup.index)
                write(index, "a new index")
                self.assert_success(root.run("--update", index))
                self.assertEqual(b"a new index", read(os.path.join(root.storage, backup.index)))
                self.assertEqual(backup.stored_names(), root.stored())

    def test_a_local_file_that_is_missing_costs_nothing(self):
        root = self.site()
        os.remove(os.path.join(root.info_root, self.backup.index))
        result = root.run("--update", os.path.join(root.info_root, self.backup.index))
        self.assertEqual(1, result.returncode)
        self.assertIn(self.backup.index, result.stderr)
        self.assertEqual(self.backup.stored_names(), root.stored())


class Progress(GetTest):
    """The download of a file that takes some seconds."""

    SIZE = 3000000

    def slow_get(self, root, stderr):
        write(os.path.join(root.storage, SLICE), os.urandom(self.SIZE))
        process = root.spawn("--get", self.target(SLICE), stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=stderr,
                             env={"BACKUP_TOKEN": root.token + f"?limit_rate={self.SIZE // 3}"})
        self.assertEqual(0, process.wait(DEADLINE))
        self.assertEqual(self.SIZE, os.path.getsize(self.local(SLICE)))

    def test_the_progress_line_is_printed_on_a_terminal(self):
        root = self.site()
        terminal, other = pty.openpty()
        self.addCleanup(os.close, terminal)
        self.addCleanup(os.close, other)
        self.slow_get(root, other)
        shown = b""
        while select.select([terminal], [], [], 0.2)[0]:
            shown += os.read(terminal, 65536)
        lines = re.findall(r"\r([^\r\n]+)\x1b\[K", shown.decode())
        self.assertTrue(lines, shown)
        for line in lines:
            self.assertRegex(line, r"\A[01] of 1 file, \d+(\.\d)? [KMG]?i?B, "
                                   r"\d+\.\d [KMG]iB/s, \d+:\d\d left\Z")
        self.assertTrue(shown.endswith(b"\n"), shown)

    def test_no_progress_line_is_printed_to_a_file(self):
        root = self.site()
        path = os.path.join(root.base, "stderr")
        with open(path, "wb") as file:
            self.slow_get(root, file)
        self.assertEqual(b"", read(path))


if __name__ == "__main__":
    unittest.main()
