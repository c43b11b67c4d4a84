"""Power failures: every file that was reported as stored survives, even if all unsynced changes are lost.

Each scenario runs the real program once and records it (power_model.py). Then it simulates a power failure after
every change, with seven fixed and some random outcomes, and checks the files of each outcome against the
conditions (power_conditions.py). It copies some of the outcomes into a real install root, where the program must
continue to work. A long run, with the variables of power_test_case.py:

    QUARN2_POWER_SEED=7 QUARN2_POWER_CHANCES=50 QUARN2_POWER_STARTS=200 python3 -m unittest test_power
"""

import os
import signal
import unittest

from local_files import read, write
from power_test_case import PowerTest
from processes import wait_gone
from samples import DATE, Backup, chain, day, info_text
from server_command import Server
from system_test import SystemTest
from waiting import wait_for


class Job(PowerTest):
    def test_a_full_job(self):
        self.r.begin()
        server = self.serve(self.r, "--date", DATE, "--count-limit", "9:9")
        self.put_backup("web1", DATE)
        self.put_backup("web2", DATE, node="web")
        self.put_backup("web3", DATE, place=f"web3/{DATE}/")
        self.assertEqual(0, server.end())
        self.assert_nothing_lost()
        self.go_on(self.next_day)


    def test_a_job_whose_bytes_pass_through_the_program(self):
        self.r.token += "?limit_rate=1000000000"
        self.r.begin()
        server = self.serve(self.r, "--date", DATE, "--count-limit", "9:9")
        self.put_backup("web1", DATE)
        self.assertEqual(0, server.end())
        self.assert_nothing_lost()

    def test_directories_that_a_killed_process_has_made(self):
        self.r.begin()
        for folder in ("web3", f"web3/{DATE}"):
            path = os.path.join(self.r.storage, folder)
            os.mkdir(path)
            self.r.line("M", path)
        server = self.serve(self.r, "--date", DATE, "--count-limit", "9:9")
        self.put_backup("web3", DATE, place=f"web3/{DATE}/")
        self.assertEqual(0, server.end())
        self.assert_nothing_lost()


class Removal(PowerTest):
    def backups(self, user):
        found = chain(self.r, user, "FF", form={"web3": "dir", "web4": "tgz"}.get(user, "dar"),
                      data=user.encode() * 250)
        self.give(*found)
        return found

    def mark_gone(self, *backups):
        self.mark(f"gone: {[backup.stem for backup in backups]}", lambda conditions:
                  conditions.gone.update(backup.info_name for backup in backups))

    def test_delete(self):
        old = [self.backups(user)[0] for user in ("web1", "web3", "web4")]
        place = f"web5/{DATE}/"
        old.append(Backup(self.r, "web5", DATE, form="dir",
                          **{"role-sql": f"{place}F{DATE}.web5.sql.2.dar"}))
        self.give(old[-1])
        listed = write(os.path.join(self.r.info_root, ".encrypted_indexes"),
                       f"{DATE}.web1.tgz.aes=aa\n{day(-1)}.web4.tgz.aes=bb\nother=cc")
        self.r.begin()
        for backup in old:
            self.run_marked(lambda conditions, backup=backup: conditions.gone.add(backup.info_name),
                            "--delete", backup.info_path)
        self.assertEqual(f"{DATE}.web1.tgz.aes=aa\nother=cc", read(listed).decode())
        self.assert_nothing_lost()
        self.go_on(self.next_day)

    def test_eviction_at_the_start(self):
        old = [self.backups(user)[0] for user in ("web1", "web3", "web4")]
        self.r.begin()
        server = Server(self.r, "--date", DATE, "--count-limit", "1:0").wait_ready()
        self.mark_gone(*old)
        self.assertEqual(0, server.end())
        self.assertTrue(all(backup.is_gone() for backup in old))
        self.assert_nothing_lost()
        self.go_on(self.next_day)

    def test_eviction_for_a_put(self):
        old, new = self.backups("web1")
        self.r.begin()
        server = self.serve(self.r, "--date", DATE, "--count-limit", "9:9",
                        "--size-limit", "9000")
        self.put_backup("web2", DATE)
        self.assertEqual(0, server.end())
        self.assertTrue(old.is_gone() and new.is_whole())
        self.mark_gone(old)
        self.assert_nothing_lost()
        self.go_on(self.next_day)

    def test_incomplete_backups(self):
        kept = self.backups("web1")
        broken = Backup(self.r, "web2", DATE, form="tgz", data=b"broken off").interrupt()
        self.give(broken)
        listed = write(os.path.join(self.r.info_root, ".cleanup"),
                       f"{self.r.token}\t{DATE}.web2\n{self.r.token}-not-there\t{DATE}.web9\n")
        self.r.begin()
        self.assertEqual(0, Server(self.r, "--date", DATE, "-C", "9:9").wait_ready().end())
        self.mark_gone(broken)
        self.assertTrue(broken.is_gone() and kept[0].is_whole())
        self.assertIn("not-there", read(listed).decode())
        self.assert_nothing_lost()
        self.go_on(self.next_day)


class Unfinished(SystemTest):
    def test_a_backup_without_an_answer_to_its_last_file_evicts_no_complete_one(self):
        root = self.root()
        whole = Backup(root, "web1", day(-1))
        job = write(os.path.join(root.work, "info"),
                    info_text({"type": "full", "created": f"{DATE} 00:00:00",
                               "last-slice": f"F{DATE}.web1.1.dar"}))
        index = write(os.path.join(root.info_root, f"{DATE}.web1.1.dar"), "index")
        write(os.path.join(root.storage, f"F{DATE}.web1.1.dar"), "slice")
        server = Server(root, "--date", DATE, "-C", "1:0").wait_ready()
        root.wait_log(f"Client. Backup token = '{root.token}'")
        write(os.path.join(root.storage, f"{DATE}.web1.info/in the way"), "")
        put = root.spawn("--put", index, "-I", job, "--isolated", "--no-delete")
        # The put command writes the local info file, then the storage refuses its upload.
        root.wait_log(f"Put {index}")
        wait_for(lambda: any("Attempt: 1 of 3" in text for text in root.log_texts(4)), "a refusal")
        for pid in (put.pid, server.node_client(), server.daemon):
            os.kill(pid, signal.SIGKILL)
            wait_gone(pid)
        server.release()
        self.assertEqual(0, Server(root, "--date", DATE, "-C", "1:0").wait_ready().end())
        self.assertTrue(whole.is_whole(), f"{root.stored()} {root.log()}")


if __name__ == "__main__":
    unittest.main()
