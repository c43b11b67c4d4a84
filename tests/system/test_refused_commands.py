"""Commands that would destroy an installation or its backups are refused before they change anything."""

import os
import shutil
import unittest

from archives import hold, rescan
from master_link import ScriptedServer, frame
from local_files import read, tree, write
from samples import DATE, Backup, day
from server_command import Server
from system_test import SystemTest
from waiting import wait_for

REFUSED = "quarn2_cp: the node client refused the command: '"


def snapshot(root):
    """Returns all files below the test's folder, except the program's own state files."""
    own = ("root/var/quarn2_cp.", "root/tmp/quarn2_cp.")
    return {name: read(os.path.join(root.base, name)) for name in tree(root.base)
            if not name.startswith(own)}


class RefusalTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()

    def assert_refused(self, *arguments, words=(), **options):
        """Checks that the command fails with these words and changes no file."""
        before = snapshot(self.r)
        result = self.r.run(*arguments, **options)
        self.assertEqual((1, ""), (result.returncode, result.stdout), result.stderr)
        self.assertRegex(result.stderr, r"\Aquarn2_cp: [^\n]+\n\Z")
        for word in words:
            self.assertIn(word, result.stderr)
        self.assertEqual(before, snapshot(self.r))


class StorageDirectories(RefusalTest):
    """Directories that a local: token must not name."""

    def setUp(self):
        super().setUp()
        self.backup = Backup(self.r, "web1", DATE)
        for name in ("sbin", "etc", "tmp"):
            write(self.r.file(f"{name}/kept/file"), "kept")

    def bad_directories(self):
        link = os.path.join(self.r.base, "link")
        os.symlink(self.r.path, link)
        os.symlink("../..", os.path.join(self.r.storage, "up"))
        return [self.r.path, self.r.base, link, link + "/var", f"{self.r.storage}/up",
                f"{self.r.storage}/../root", self.r.file("sbin"), self.r.file("etc/kept"),
                self.r.file("tmp/kept"), self.r.file("var"), self.r.file("var/backup"),
                self.r.info_root]

    def test_clear_refuses_directories_of_the_installation(self):
        for directory in self.bad_directories():
            with self.subTest(directory=directory):
                self.assert_refused("--clear", words=("cannot be used", os.path.normpath(directory)),
                                    env={"BACKUP_TOKEN": "local://" + directory})

    def test_every_command_refuses_directories_of_the_installation(self):
        new = write(os.path.join(self.r.work, f"F{day(1)}.web1.tgz"), "new")
        commands = [["--clear"], ["--delete", self.backup.info_path], ["--server"],
                    ["--server", "--rescan"], ["--put", new], ["--update", self.backup.info_path],
                    ["--get", f"{self.r.work}//{self.backup.archives[0]}"]]
        for path in (self.r.path, self.r.file("etc/kept")):
            for command in commands:
                with self.subTest(path=path, command=command):
                    self.assert_refused(*command, words=("cannot be used", path),
                                        env={"BACKUP_TOKEN": "local://" + path})
        self.assertFalse(os.path.exists(self.r.file("var/quarn2_cp.pid")))

    def test_the_node_client_refuses_directories_of_the_installation(self):
        server = ScriptedServer(self.r, greet=False)
        server.send(frame("") + frame("local://" + self.r.path))
        server.hang_up()
        status, errors = server.wait_end()
        self.assertEqual(1, status)
        self.assertIn("cannot be used", errors)

    def test_the_info_root_that_the_server_is_given_is_protected_too(self):
        inside = os.path.join(self.r.base, "info/storage")
        os.makedirs(inside)
        self.assert_refused("--server", "--path", os.path.dirname(inside),
                            words=("cannot be used", "is inside of"),
                            env={"BACKUP_TOKEN": "local://" + inside})

    def test_other_directories_below_the_install_root_can_be_used(self):
        for name in ("var/backup/storage", "backups"):
            with self.subTest(name=name):
                os.makedirs(self.r.file(name))
                env = {"BACKUP_TOKEN": "local:" + name}
                server = Server(self.r, env=env).wait_ready()
                path = write(os.path.join(self.r.work, f"F{DATE}.web2.tgz"), "data")
                self.assert_success(self.r.run("--put", path, env=env))
                self.assertEqual(0, server.end())
                self.assertEqual([f"F{DATE}.web2.tgz"], tree(self.r.file(name)))


class MalformedTokens(RefusalTest):
    def test_no_command_falls_back_to_another_storage(self):
        backup = Backup(self.r, "web1", DATE)
        server = hold(self.r, DATE)
        for token in ("nonsense", "local:", "s3://host", self.r.token + "?timeout=x"):
            for command in (["--clear"], ["--delete", backup.info_path],
                            ["--update", backup.info_path],
                            ["--get", f"{self.r.work}//{backup.archives[0]}"]):
                with self.subTest(token=token, command=command):
                    self.assert_refused(*command, words=("stor",), env={"BACKUP_TOKEN": token})
        self.assertEqual(0, server.end())


class Clear(RefusalTest):
    """--clear with the token of another storage."""

    def setUp(self):
        super().setUp()
        self.other = os.path.join(self.r.base, "other")
        write(os.path.join(self.other, "kept"), "another user's")
        self.env = {"BACKUP_TOKEN": "local://" + self.other}

    def fill(self, count):
        return [Backup(self.r, "web1", day(-number)) for number in range(count)]

    def test_clear_of_a_storage_without_the_newest_backups_is_refused(self):
        self.fill(4)
        self.assert_refused("--clear", env=self.env,
                            words=("none of the 4 newest backups", "local://" + self.other))

    def test_clear_of_an_emptied_storage_needs_a_rescan(self):
        self.fill(3)
        shutil.rmtree(self.r.storage)
        os.mkdir(self.r.storage)
        self.assert_refused("--clear", words=("--rescan",))
        rescan(self.r)
        self.assert_success(self.r.run("--clear"))
        self.assertFalse(os.path.exists(self.r.info_root))

    def test_clear_with_two_known_backups_is_not_refused(self):
        self.fill(2)
        self.assert_success(self.r.run("--clear", env=self.env))
        self.assertEqual([], os.listdir(self.other))

    def test_an_interrupted_clear_is_completed(self):
        self.fill(3)
        write(os.path.join(self.r.info_root, ".clear"), "")
        shutil.rmtree(self.r.storage)
        os.mkdir(self.r.storage)
        self.assert_success(self.r.run("--clear"))
        self.assertFalse(os.path.exists(self.r.info_root))

    def test_clear_of_a_storage_with_one_of_the_newest_backups(self):
        for backup in self.fill(8)[:7]:
            for name in backup.stored_names():
                os.remove(os.path.join(self.r.storage, name))
        self.assert_success(self.r.run("--clear"))
        self.assertEqual([], os.listdir(self.r.storage))


class Rescan(RefusalTest):
    def test_a_rescan_of_a_directory_with_other_files_is_refused(self):
        home = os.path.join(self.r.base, "home")
        write(os.path.join(home, "2026-11-20.web1.info"), "info")
        write(os.path.join(home, "web1/thesis.txt"), "years of work")
        self.assert_refused("--server", "--rescan", "--path", home,
                            words=("cannot be rescanned", "'web1/thesis.txt'"))

    def test_a_rescan_of_a_users_info_root_without_that_users_storage_is_refused(self):
        for user in ("web1", "web2"):
            write(self.r.file(f"var/backup/{user}/{DATE}/{DATE}.{user}.info"), "info")
        for arguments in ([], ["--storage", "web2"]):
            self.assert_refused("--server", "--rescan", "--path", "var/backup/web1", *arguments,
                                words=("cannot be rescanned", "--storage web1"))
        Backup(self.r, "web1", DATE, form="dir")
        rescan(self.r, "--path", "var/backup/web1", "--storage", "web1")
        self.assertTrue(os.path.exists(self.r.file(f"var/backup/web2/{DATE}/{DATE}.web2.info")))

    def test_a_rescan_with_a_wrong_listing_keeps_a_copy_of_the_info_root(self):
        backups = [Backup(self.r, "web1", DATE), Backup(self.r, "web2", DATE, form="dir")]
        before = {name: read(os.path.join(self.r.info_root, name)) for name in self.r.local()}
        other = os.path.join(self.r.base, "other")
        os.mkdir(other)
        rescan(self.r, env={"BACKUP_TOKEN": "local://" + other})
        self.assertEqual([], self.r.local())
        removed = self.r.file("var/quarn2_cp.removed")
        self.assertEqual(before, {name: read(os.path.join(removed, name))
                                  for name in tree(removed)})
        self.assertTrue(set(backups[1].local_names()) < set(before))


class Sources(RefusalTest):
    """Sources of --put and --update that are already on the storage."""

    def setUp(self):
        super().setUp()
        self.server = hold(self.r, DATE)

    def tearDown(self):
        self.assertEqual(0, self.server.end())
        super().tearDown()

    def test_a_put_of_the_stored_file_keeps_it(self):
        path = write(os.path.join(self.r.storage, f"F{DATE}.web1.tgz"), "the only copy")
        link = os.path.join(self.r.base, "way")
        os.symlink(self.r.storage, link)
        for source in (path, os.path.join(link, os.path.basename(path))):
            self.assert_refused("--put", source, words=(REFUSED, "it is the stored file itself"))
        self.assertTrue([text for text in self.r.log_texts(3) if "is the stored file itself" in text])

    def test_a_put_of_another_file_of_the_storage_keeps_it(self):
        path = write(os.path.join(self.r.storage, f"work/F{DATE}.web1.tgz"), "the only copy")
        self.assert_refused("--put", path, words=(REFUSED, "it is inside of the storage directory"))

    def test_a_put_out_of_a_directory_that_the_storage_links_to(self):
        disk = os.path.join(self.r.base, "disk")
        path = write(os.path.join(disk, f"F{DATE}.web1.tgz"), "the only copy")
        os.symlink(disk, os.path.join(self.r.storage, "web1"))
        self.assert_refused("--put", path, words=(REFUSED, "it is inside of the storage directory"))

    def test_an_update_with_the_stored_file_keeps_it(self):
        backup = Backup(self.r, "web1", DATE)
        path = os.path.join(self.r.storage, backup.info_name)
        self.assert_refused("--update", path, words=("is the stored file itself",))


class ChangingSources(SystemTest):
    """Sources that change during a slow upload."""

    NAME = f"F{DATE}.web1.tgz"
    SIZE = 600000

    def setUp(self):
        super().setUp()
        self.r = self.root()
        self.r.token += f"?limit_rate={self.SIZE // 2}"
        self.server = hold(self.r, DATE)
        self.source = write(os.path.join(self.r.work, self.NAME), b"a" * self.SIZE)
        self.assert_success(self.r.run("--put", self.source))
        part = os.path.join(self.r.storage, f".{self.NAME}.part~")
        wait_for(lambda: os.path.exists(part) and os.path.getsize(part) > 0, "the upload's begin")

    def test_a_file_that_replaced_the_source_stays(self):
        os.rename(write(self.source + ".new", "newer"), self.source)
        self.assertEqual(0, self.server.end())
        self.assertEqual(b"newer", read(self.source))
        self.assertEqual(b"a" * self.SIZE, read(os.path.join(self.r.storage, self.NAME)))

    def test_a_source_that_was_rewritten_stays_and_is_not_stored(self):
        with open(self.source, "r+b") as file:
            file.write(b"b" * self.SIZE)
        self.assertEqual(0, self.server.end())
        self.assertEqual(b"b" * self.SIZE, read(self.source))
        self.assertEqual([], self.r.stored())
        self.assertTrue([text for text in self.r.log_texts(3) if "was rewritten" in text])


class SharedDirectories(SystemTest):
    def test_deleting_one_users_backup_keeps_the_other(self):
        root = self.root()
        server = hold(root, DATE)
        staged = os.path.join(root.work, DATE)
        for user in ("web1", "web2"):
            info = write(os.path.join(root.work, user), f"type=full\ncreated={DATE} 00:00:00")
            slice_ = write(os.path.join(staged, f"F{DATE}.{user}.tgz"), user)
            index = write(os.path.join(staged, f"{DATE}.{user}.tgz"), "index")
            self.assert_success(root.run("--put", "-I", info, "--last_slice", slice_))
            self.assert_success(root.run("--put", "-I", info, "--isolated", "--no-delete", index))
        self.assertEqual(0, server.end())
        self.assertEqual(6, len(root.stored()))
        self.assert_success(root.run("--delete", os.path.join(staged, f"{DATE}.web1.info")))
        place = f"work/{DATE}/"
        self.assertEqual([place + f"{DATE}.web2.info", place + f"{DATE}.web2.tgz",
                          place + f"F{DATE}.web2.tgz"], root.stored())
        self.assertEqual([f"{DATE}.web2.info", f"{DATE}.web2.tgz"], sorted(os.listdir(staged)))


if __name__ == "__main__":
    unittest.main()
