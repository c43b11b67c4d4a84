"""--delete: which files it removes, which it keeps, and when it refuses."""

import os
import unittest

from local_files import read, tree, write
from samples import Backup, DATE, day, write_info
from server_command import Server
from system_test import SystemTest

REFUSED = "the node client refused the command: "


class DeleteTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()

    def delete(self, path, *options, **more):
        result = self.r.run("--delete", path, *options, **more)
        self.assert_success(result)
        self.assertEqual("", result.stdout)


class OneBackup(DeleteTest):
    def test_every_form_is_deleted_completely_and_nothing_else(self):
        forms = {"numbered slices": {"form": "dar", "slices": 12},
                 "one slice": {"form": "dar", "slices": 1},
                 "single file": {"form": "tgz"},
                 "parts": {"form": "part", "slices": 11}}
        for kind in ("full", "incremental"):
            for name, form in forms.items():
                with self.subTest(form=name, kind=kind):
                    backup = Backup(self.r, "web1", DATE, kind, **form)
                    neighbours = [Backup(self.r, "web10", DATE, kind, **form),
                                  Backup(self.r, "web1", day(-1), kind, **form),
                                  Backup(self.r, "1.web1", DATE, kind, **form)]
                    self.delete(backup.info_path)
                    self.assertTrue(backup.is_gone())
                    for neighbour in neighbours:
                        self.assertTrue(neighbour.is_whole(), neighbour.stem)
                    self.assertEqual(
                        sorted(sum((other.stored_names() for other in neighbours), [])),
                        self.r.stored())
                    for neighbour in neighbours:
                        self.delete(neighbour.info_path)
                    self.assertEqual(([], []), (self.r.stored(), self.r.local()))

    def test_the_directory_form_removes_both_directories(self):
        backup = Backup(self.r, "web1", DATE, form="dir")
        older = Backup(self.r, "web1", day(-1), form="dir")
        self.delete(backup.info_path)
        self.assertTrue(backup.is_gone() and older.is_whole())
        self.assertEqual([day(-1)], os.listdir(os.path.join(self.r.storage, "web1")))
        self.assertEqual([day(-1)], os.listdir(os.path.join(self.r.info_root, "web1")))
        self.delete(older.info_path)
        self.assertEqual([], self.r.stored())
        self.assertEqual([], os.listdir(self.r.info_root))

    def test_the_log_shows_the_order_of_deletion(self):
        self.r.log_level = 8
        backup = Backup(self.r, "web1", DATE, slices=3)
        self.delete(backup.info_path)
        self.assertEqual([f"Delete {backup.info_path}"], self.r.log_texts(5))
        self.assertEqual([f"Delete 'F{DATE}.web1.3.dar'"], self.r.log_texts(6))

    def test_role_slices_go_with_the_last_slice(self):
        fields = {"role-sql": f"F{DATE}.web1.sql.2.dar words that follow"}
        backup = Backup(self.r, "web1", DATE, **fields)
        for number in (1, 2):
            write(os.path.join(self.r.storage, f"F{DATE}.web1.sql.{number}.dar"), "role")
        self.delete(backup.info_path)
        self.assertEqual(([], []), (self.r.stored(), self.r.local()))

    def test_an_encrypted_index_goes_with_its_line_only(self):
        backup = Backup(self.r, "web1", DATE, form="tgz")
        listed = write(os.path.join(self.r.info_root, ".encrypted_indexes"),
                       f"{day(-1)}.web1.tgz.aes=aa\n{DATE}.web1.tgz.aes=bb\nother=cc")
        index = write(os.path.join(self.r.info_root, f"{DATE}.web1.tgz.aes"), "secret")
        other = write(os.path.join(self.r.info_root, f"{day(-1)}.web1.tgz.aes"), "secret")
        self.delete(backup.info_path)
        self.assertTrue(backup.is_gone())
        self.assertEqual((False, True), (os.path.exists(index), os.path.exists(other)))
        self.assertEqual(f"{day(-1)}.web1.tgz.aes=aa\nother=cc", read(listed).decode())

    def test_a_broken_backup_is_cleared_by_its_prefix(self):
        backup = Backup(self.r, "web1", DATE, form="tgz")
        neighbour = Backup(self.r, "web10", DATE, form="tgz")
        write_info(self.r.info_root, "web1", DATE, **{"last-slice": ""})
        self.delete(backup.info_path)
        self.assertEqual([f"Last slice in '{backup.info_path}' is empty"], self.r.log_texts(4))
        self.assertTrue(backup.is_gone() and neighbour.is_whole())

    def test_a_custom_backup_takes_its_twin_along(self):
        archive = f"C{DATE}.web1.tgz"
        info = write(os.path.join(self.r.info_root, "custom.web1.info"),
                     f"last-slice={archive}\ntype=custom")
        for name in (archive, "custom.web1.tgz", "custom.web1.info", "custom.web2.tgz"):
            write(os.path.join(self.r.storage, name), "data")
        self.delete(info)
        self.assertEqual((["custom.web2.tgz"], []), (self.r.stored(), self.r.local()))

    def test_missing_files_do_not_stop_the_deletion(self):
        backup = Backup(self.r, "web1", DATE, slices=3)
        for name in (backup.archives[1], backup.index, backup.info_name):
            os.unlink(os.path.join(self.r.storage, name))
        self.delete(backup.info_path)
        self.assertTrue(backup.is_gone())

    def test_a_missing_path_does_nothing(self):
        Backup(self.r, "web1", DATE)
        before = self.r.stored(), self.r.local()
        path = os.path.join(self.r.info_root, f"{DATE}.web2.info")
        self.delete(path)
        self.delete(path, "--force", env={"BACKUP_TOKEN": None})
        self.assertEqual(before, (self.r.stored(), self.r.local()))
        self.assertEqual([f"Delete {path}"] * 2, self.r.log_texts())

    def test_a_storage_that_is_missing_stops_the_deletion(self):
        backup = Backup(self.r, "web1", DATE)
        token = "local://" + self.r.base + "/unmounted"
        result = self.r.run("--delete", backup.info_path, env={"BACKUP_TOKEN": token})
        self.assertEqual(1, result.returncode)
        self.assertIn("unmounted", result.stderr)
        self.assertTrue(backup.is_whole())

    def test_a_storage_without_any_known_backup_stops_the_deletion(self):
        backups = [Backup(self.r, f"web{number}", DATE, form=form)
                   for number, form in enumerate(("dar", "dir", "tgz"))]
        empty = self.r.file("mount-point")
        os.mkdir(empty)
        for backup in backups:
            result = self.r.run("--delete", backup.info_path, env={"BACKUP_TOKEN": "local://" + empty})
            self.assertEqual(1, result.returncode)
            self.assertIn("nothing was removed. Check that the storage is mounted", result.stderr)
            self.assertTrue(backup.is_whole())

    def test_a_backup_whose_files_are_all_missing_is_deleted_where_others_are(self):
        gone, *_ = [Backup(self.r, f"web{number}", DATE, form="dir") for number in range(3)]
        for name in (*gone.archives, gone.index, gone.info_name):
            os.unlink(os.path.join(self.r.storage, name))
        self.delete(gone.info_path)
        self.assertTrue(gone.is_gone())


class Dependants(DeleteTest):
    """Deletions of full backups with dailies. The week begins on Sunday 2026-11-15 and ends on 2026-11-21."""

    def week(self, **options):
        full = Backup(self.r, "web1", "2026-11-15", **options)
        dailies = [Backup(self.r, "web1", f"2026-11-{number}", "incremental", base=full.identity,
                          **options) for number in (16, 17, 21)]
        return full, dailies

    def test_a_dependant_stops_the_deletion_before_anything_is_gone(self):
        for form in ("dar", "tgz", "part", "dir"):
            with self.subTest(form=form):
                full, dailies = self.week(form=form)
                self.assert_error(self.r.run("--delete", full.info_path),
                                  "Failed to delete backup. Depended backup '"
                                  + dailies[2].info_path + "' still exists")
                for backup in [full] + dailies:
                    self.assertTrue(backup.is_whole())
                self.delete(full.info_path, "--force")
                self.assertEqual(([], []), (self.r.stored(), self.r.local()))

    def test_force_deletes_the_newest_first_and_the_full_last(self):
        self.r.log_level = 6
        full, _ = self.week()
        self.delete(full.info_path, "-f")
        self.assertEqual(["Delete 'I2026-11-21.web1.2.dar'", "Delete 'I2026-11-17.web1.2.dar'",
                          "Delete 'I2026-11-16.web1.2.dar'", "Delete 'F2026-11-15.web1.2.dar'"],
                         self.r.log_texts(6))

    def test_a_daily_is_deleted_without_a_search_for_dependants(self):
        full, dailies = self.week()
        write(dailies[1].info_path, b"base=\xff\xfe rubbish")
        self.delete(dailies[0].info_path)
        self.assertTrue(dailies[0].is_gone() and full.is_whole())

    def test_a_full_of_the_weeks_last_day_has_no_dependants(self):
        full = Backup(self.r, "web1", "2026-11-14")
        daily = Backup(self.r, "web1", "2026-11-15", "incremental", base=full.identity)
        self.delete(full.info_path)
        self.assertTrue(full.is_gone() and daily.is_whole())

    def test_only_the_same_base_of_the_same_user_counts(self):
        full = Backup(self.r, "web1", "2026-11-15")
        others = [Backup(self.r, "web1", "2026-11-16", "incremental", base=full.identity + "x"),
                  Backup(self.r, "web1", "2026-11-17", "incremental"),
                  Backup(self.r, "web1", "2026-11-18"),
                  Backup(self.r, "web2", "2026-11-16", "incremental", base=full.identity)]
        self.delete(full.info_path)
        self.assertTrue(full.is_gone())
        for other in others:
            self.assertTrue(other.is_whole())


class ThroughTheNodeClient(DeleteTest):
    """A --delete command without a token sends its request to the node client."""

    def start(self):
        server = Server(self.r, "--date", DATE, "--count-limit", "100:100").wait_ready()
        self.r.wait_log(f"Client. Backup token = 'local://{self.r.storage}'")
        return server

    def test_without_a_token_the_node_client_deletes(self):
        backup = Backup(self.r, "web1", DATE)
        self.start()
        self.delete(backup.info_path, env={"BACKUP_TOKEN": None})
        self.assertTrue(backup.is_gone())

    def test_force_reaches_the_node_client(self):
        full = Backup(self.r, "web1", "2026-11-15")
        daily = Backup(self.r, "web1", "2026-11-17", "incremental", base=full.identity)
        server = self.start()
        reason = f"Failed to delete backup. Depended backup '{daily.info_path}' still exists"
        self.assert_error(self.r.run("--delete", full.info_path, env={"BACKUP_TOKEN": ""}),
                          REFUSED + reason)
        self.assertEqual([reason], self.r.log_texts(3, server.node_client()))
        self.assertTrue(full.is_whole() and daily.is_whole())
        self.delete(full.info_path, "--force", env={"BACKUP_TOKEN": ""})
        self.assertTrue(full.is_gone() and daily.is_gone())

    def test_without_a_token_and_without_a_server(self):
        backup = Backup(self.r, "web1", DATE)
        result = self.r.run("--delete", backup.info_path, env={"BACKUP_TOKEN": None})
        self.assertEqual(1, result.returncode)
        self.assertRegex(result.stderr, r"\Aquarn2_cp: Failed to connect to size control server socket"
                                        r"\nNo size control server runs here .*\n\Z")
        self.assertTrue(backup.is_whole())

    def test_a_malformed_token_is_an_error_and_no_request_to_the_running_server(self):
        backup = Backup(self.r, "web1", DATE)
        self.start()
        for token in ("local:", "locall:///srv", "s3://", "x", " "):
            with self.subTest(token=token):
                result = self.r.run("--delete", backup.info_path, env={"BACKUP_TOKEN": token})
                self.assertEqual(1, result.returncode)
                self.assertRegex(result.stderr, r"\Aquarn2_cp: (storage token: |unknown storage scheme ).+\n\Z")
                self.assertTrue(backup.is_whole())

    def test_an_individual_storage_is_reached_by_its_name(self):
        backup = Backup(self.r, "web1", DATE)
        Server(self.r, "--storage", "alice", "--date", DATE).wait_ready()
        self.r.wait_log(f"Client. Backup token = 'local://{self.r.storage}'")
        self.delete(backup.info_path, env={"BACKUP_TOKEN": None, "BACKUP_STORAGE": "alice"})
        self.assertTrue(backup.is_gone())


class Clear(DeleteTest):
    def fill(self):
        Backup(self.r, "web1", DATE)
        Backup(self.r, "web2", DATE, form="dir")
        write(self.r.file("var/backup/tovarn.private/x/y"), "private")
        write(self.r.file("var/backup/web1/kept"), "a user's")

    def assert_local_cleared(self):
        self.assertEqual(["web1/kept"], tree(self.r.file("var/backup")))
        for name in ("tovarn", "tovarn.private"):
            self.assertFalse(os.path.exists(self.r.file("var/backup/" + name)))

    def clear(self, **options):
        result = self.r.run("--clear", **options)
        self.assert_success(result)
        self.assertEqual("", result.stdout)

    def test_storage_and_local_directories_are_emptied(self):
        self.fill()
        self.clear()
        self.assertEqual([], os.listdir(self.r.storage))
        self.assert_local_cleared()
        self.assertEqual(["Clear all storage"], self.r.log_texts(5))

    def test_without_a_token_only_the_local_directories_go(self):
        for token in (None, ""):
            with self.subTest(token=token):
                self.fill()
                before = self.r.stored()
                self.clear(env={"BACKUP_TOKEN": token})
                self.assertEqual(before, self.r.stored())
                self.assert_local_cleared()

    def test_clear_of_an_empty_storage_succeeds(self):
        self.clear()
        self.clear()
        self.assertEqual([], os.listdir(self.r.storage))

    def test_links_are_removed_and_not_followed(self):
        outside = write(os.path.join(self.r.base, "outside/file"), "kept")
        os.symlink(os.path.dirname(outside), os.path.join(self.r.storage, "link"))
        os.symlink(os.path.dirname(outside), os.path.join(self.r.info_root, "link"))
        self.clear()
        self.assertEqual(b"kept", read(outside))
        self.assertEqual([], os.listdir(self.r.storage))

    def test_a_storage_that_is_missing_is_an_error(self):
        self.fill()
        os.rename(self.r.storage, self.r.storage + ".away")
        result = self.r.run("--clear")
        self.assertEqual(1, result.returncode)
        self.assertIn(self.r.storage, result.stderr)
        self.assertFalse(os.path.exists(self.r.storage))


if __name__ == "__main__":
    unittest.main()
