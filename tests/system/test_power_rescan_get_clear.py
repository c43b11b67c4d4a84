"""Power failures during --rescan, --get, --update and --clear, and a proof that the checks detect missing
syncs. See test_power.py.
"""

import os
import shutil
import unittest

from local_files import read, tree, write
from power_test_case import PowerTest
from power_conditions import INFO, STORAGE, is_hidden
from samples import DATE, Backup, chain, day
from server_command import Server

MARKER = INFO + ".rescan"


def info_root(files):
    return {path: data for path, data in files.items()
            if path.startswith(INFO) and data is not None and not is_hidden(path)}


class Rescan(PowerTest):
    def setUp(self):
        super().setUp()
        for user, form in (("web1", "dar"), ("web3", "dir"), ("web4", "tgz")):
            self.give(*chain(self.r, user, "FF", form=form, data=user.encode() * 100))
        self.final = self.here(self.r)

    def here(self, root):
        return info_root({INFO + name: read(os.path.join(root.info_root, name))
                          for name in root.local()})

    def violations(self, left):
        """Returns the violated conditions. Without the marker file .rescan the info root must be as before the rescan,
        or complete. With the marker file the program does not use the info root, so any content is allowed."""
        if MARKER in left:
            return super().violations({path: data for path, data in left.items()
                                   if not path.startswith(INFO)})
        if info_root(left) not in (self.first, self.final):
            return [f"no mark beside {sorted(info_root(left))}"]
        return super().violations(left)

    def rescan(self):
        self.first = self.here(self.r)
        self.r.begin()
        server = Server(self.r, "--rescan", "-C", "9:9").wait_ready()
        self.assertEqual(0, server.end())
        self.assertEqual(self.final, self.here(self.r))
        self.assert_nothing_lost()
        self.go_on(self.rescan_again)

    def rescan_again(self, root, left, _stored):
        if MARKER not in left:
            self.assertEqual(0, Server(root, "-C", "9:9").wait_ready().end())
        server = Server(root, "--rescan", "-C", "9:9").wait_ready()
        self.assertEqual(0, server.end())
        self.assertEqual(self.final, self.here(root))
        self.assertEqual([], root.log_texts(3))

    def test_rescan_for_a_lost_node(self):
        shutil.rmtree(self.r.file("var"))
        self.rescan()

    def test_rescan_of_an_outdated_info_root(self):
        for name in (f"{day(-9)}.web1.info", f"{day(-9)}.web1.1.dar"):
            write(os.path.join(self.r.info_root, name), "type=full")
        os.unlink(os.path.join(self.r.info_root, f"{DATE}.web4.tgz"))
        self.rescan()


class Get(PowerTest):
    def test_get_slice_by_slice(self):
        self.give(Backup(self.r, "web1", DATE, slices=3, data=b"archive" * 500))
        place = os.path.join(self.r.work, "restore/here")
        for name in (f"F{DATE}.web1.{number}.dar" for number in (1, 2, 3)):
            self.conditions.contents[f"work/restore/here/{name}"] = self.conditions.contents[name]
        self.r.begin()
        for asked, name in ((0, 3), (1, 1), (2, 2)):
            path = f"work/restore/here/F{DATE}.web1.{name}.dar"
            self.run_marked(lambda conditions, path=path: conditions.fetched.add(path), "--get",
                            "--init", "--tmp-file", os.path.join(self.r.work, "fetched"),
                            f"{place}//F{DATE}.web1.{asked}.dar")
        self.assertEqual([f"{DATE}.web1.info", f"F{DATE}.web1.2.dar"], tree(place))
        self.assert_nothing_lost()
        self.go_on(self.get_the_rest)

    def get_the_rest(self, root, _left, _stored):
        place = os.path.join(root.work, "restore/here")
        for number in (1, 2):
            self.assert_success(root.run("--get", "--tmp-file", os.path.join(root.work, "fetched"),
                                         f"{place}//F{DATE}.web1.{number}.dar"))
            self.assertEqual(b"archive" * 500,
                             read(os.path.join(place, f"F{DATE}.web1.{number}.dar")))


class Update(PowerTest):
    def test_update_leaves_the_old_file_the_new_one_or_none(self):
        backup = Backup(self.r, "web1", DATE, data=b"old" * 1000)
        name = backup.index
        for stored in backup.archives:
            self.conditions.contents[stored] = {b"old" * 1000}
        self.conditions.contents[name] = {b"old" * 1000, b"new" * 2000}
        write(os.path.join(self.r.info_root, name), b"new" * 2000)
        self.r.begin()

        def updated(conditions):
            conditions.contents[name] = {b"new" * 2000}
            conditions.stored.add(name)
        self.run_marked(updated, "--update", os.path.join(self.r.info_root, name))
        self.assert_nothing_lost()


class Clear(PowerTest):
    def test_no_info_file_reappears_after_clear(self):
        backups = [backup for user, form in (("web1", "dar"), ("web3", "dir"))
                   for backup in chain(self.r, user, "FF", form=form)]
        self.give(*backups)
        self.r.begin()
        self.run_marked(lambda conditions: conditions.gone.update(backup.info_name
                                                              for backup in backups), "--clear")
        self.assert_nothing_lost()
        self.go_on(self.clear_again)

    def clear_again(self, root, left, stored):
        if INFO + ".clear" in left:
            self.assertEqual(1, root.run("--server").returncode)
            self.assert_success(root.run("--clear"))
            os.unlink(root.file("var/quarn2_cp.log"))
        self.next_day(root, left, stored)


class MissingSyncs(PowerTest):
    """Proves that the checks fail for a program whose syncs have no effect."""

    def losses(self, drop):
        self.r.drop = drop
        self.r.begin()
        server = self.serve(self.r, "--date", DATE, "--count-limit", "9:9")
        self.put_backup("web1", DATE)
        self.assertEqual(0, server.end())
        self.fail_everywhere()
        return " ".join(self.lost)

    def test_missing_file_syncs_leave_empty_files_under_final_names(self):
        lost = self.losses("file")
        self.assertIn(f"names stay, data does not: {STORAGE}F{DATE}.web1.1.dar has 0 bytes", lost)
        self.assertIn(f"{INFO}{DATE}.web1.info is no info file: b''", lost)
        self.assertIn(f"F{DATE}.web1.2.dar is neither on the storage nor at its job", lost)

    def test_missing_directory_syncs_lose_files(self):
        lost = self.losses("dir")
        self.assertIn(f"F{DATE}.web1.1.dar is neither on the storage nor at its job", lost)
        self.assertIn(f"nothing stays: {DATE}.web1.info had been stored", lost)


if __name__ == "__main__":
    unittest.main()
