"""The daemon's side of the master link, with a scripted node client."""

import os
import re
import unittest

from master_link import ScriptedNode, frame, scripted_session
from processes import wait_gone
from samples import chain, day, left
from server_command import Server
from system_test import SystemTest
from waiting import wait_for

DATE = "2026-11-20"
LOCKED = "ERR No space left. But all backups are locked"


def refused(limit):
    return f"ERR No disk space left on storage. Size limit: {limit}"


class Transport(SystemTest):
    def test_the_opening_frames_are_storage_name_and_token_byte_for_byte(self):
        for name in ("", "alice"):
            with self.subTest(storage=name):
                root = self.root()
                root.token = "local://" + root.storage.replace("storage", "%73torage")
                node = ScriptedNode(root)
                server = Server(root, *(["--storage", name] if name else []))
                link = node.accept()
                expected = frame(name) + frame(root.token)
                self.assertEqual(expected, link.stream.take(len(expected), "opening frames"))
                self.assertTrue(link.is_silent())
                server.wait_ready()
                link.close()
                server.end()

    def test_the_node_client_is_started_with_client_as_its_only_argument(self):
        root = self.root()
        stub = root.binary
        _, link = scripted_session(root)
        self.assertEqual([stub, "--client"], link.arguments)

    def test_a_line_in_pieces_is_one_command(self):
        root = self.root()
        root.log_level = 9
        _, link = scripted_session(root)
        sent = ""
        for piece in ("RES", "ERVE", " 1", "0"):
            link.send(piece)
            sent += piece
            wait_for(lambda: [text for text in root.log_texts(9) if text.endswith(f"m_read = '{sent}'")],
                     "the piece's reading")
            self.assertTrue(link.is_silent(0.1))
        link.send("\nRELE")
        self.assertEqual("OK 0", link.frame())
        self.assertTrue(link.is_silent(0.1))
        link.send("ASE 10\n")
        self.assertEqual("OK", link.frame())
        self.assertEqual(["ProcessCommand line = 'RESERVE 10'",
                          "ProcessCommand line = 'RELEASE 10'"],
                         [text for text in root.log_texts(8) if text.startswith("ProcessCommand")])
        self.assertEqual(["SaveResult result = 'OK 0'", "SaveResult result = 'OK'"],
                         [text for text in root.log_texts(8)
                          if text.startswith("SaveResult result = 'OK")])
        buffers = [re.sub(r"\A\w+\.\w+:\d+ ", "", text) for text in root.log_texts(9)
                   if "m_read" in text]
        self.assertIn("m_read = 'RESERVE 1'", buffers)
        self.assertIn("m_read = 'RELE'", buffers)

    def test_several_lines_in_one_write_are_answered_in_order(self):
        _, link = scripted_session(self.root(), "--size-limit", "100")
        link.send("RESERVE 60\nRESERVE 60\nRELEASE 60\nRESERVE 60\nDROPONE 1\n")
        self.assertEqual(["OK 0", refused(100), "OK", "OK 0", "ERR Upload failed and limit is set"],
                         [link.frame() for _ in range(5)])

    def test_an_unknown_word_and_an_empty_line_get_no_frame(self):
        _, link = scripted_session(self.root())
        link.send("PING\n\nreserve 5\nRESERVE5\n OK\n")
        self.assertTrue(link.is_silent())
        self.assertEqual("OK 0", link.ask("RESERVE 0"))
        self.assertTrue(link.is_silent(0.1))

    def test_invalid_bytes_and_long_numbers_are_ignored(self):
        _, link = scripted_session(self.root())
        link.send(b"\x00\xff\x80" * 20000 + b"\n")
        link.send("RESERVE " + "9" * 60000 + "\n")
        self.assertTrue(link.frame().startswith("ERR "))
        self.assertEqual("OK 0", link.ask("RESERVE 0"))

    def test_an_endless_line_closes_the_link_and_the_daemon_continues(self):
        root = self.root()
        server, link = scripted_session(root)
        with self.assertRaises(BrokenPipeError):
            link.send(b"x" * (1 << 24))
        root.wait_log("Client sent a line of more than 65536 bytes. Close", level=4,
                      pid=server.daemon)
        link.close()
        self.assertEqual(0, server.end())

    def test_answers_wait_for_a_client_that_does_not_read(self):
        _, link = scripted_session(self.root())
        count = 20000  # more answers than a pipe holds
        link.send("RESERVE 0\n" * count)
        for _ in range(count):
            self.assertEqual("OK 0", link.frame())
        self.assertTrue(link.is_silent(0.1))

    def test_the_end_of_the_client_is_logged_and_the_daemon_continues(self):
        root = self.root()
        server, link = scripted_session(root)
        link.send("RESERVE 5\nRESER")
        self.assertEqual("OK 0", link.frame())
        link.close()
        root.wait_log("Client disconnected. Close", level=4, pid=server.daemon)
        second = Server(root).wait_ready()
        self.assertEqual(server.daemon, second.daemon)
        second.release()
        self.assertEqual(0, server.end())
        self.assertEqual([], root.log(3))

    def test_a_client_that_stops_reading_and_dies_breaks_nothing(self):
        root = self.root()
        server, link = scripted_session(root)
        link.send("RESERVE 0\n" * 20000)
        link.close()
        # The server detects the end of the client by a failed read, which it logs, or by a failed write, which it does
        # not log.
        root.wait_log("Session with node 'local' ended. Exit status: 0", level=4, pid=server.daemon)
        self.assertEqual(0, server.end())
        self.assertEqual([], root.log(3))

    def test_the_link_is_closed_when_the_daemon_ends(self):
        server, link = scripted_session(self.root())
        server.release()
        self.assertEqual(b"", link.stream.wait_end())
        link.close()
        self.assertEqual(0, wait_gone(server.daemon))


class Reservation(SystemTest):
    def session(self, root, *arguments):
        _, link = scripted_session(root, "--date", DATE, "--count-limit", "1000:1000", *arguments)
        return link

    def test_nothing_to_reserve_changes_nothing(self):
        link = self.session(self.root(), "--size-limit", "100")
        self.assertEqual("OK 0", link.ask("RESERVE 0"))
        self.assertEqual("OK 0", link.ask("RESERVE"))
        self.assertEqual("OK 0", link.ask("RESERVE 100"))
        self.assertEqual("OK 0", link.ask("RESERVE 0"))

    def test_reserved_space_counts_against_the_limit(self):
        root = self.root()
        root.log_level = 8
        link = self.session(root, "--size-limit", "100")
        self.assertEqual("OK 0", link.ask("RESERVE 30"))
        self.assertEqual(refused(100), link.ask("RESERVE 71"))
        self.assertEqual("OK 0", link.ask("RESERVE 70"))
        self.assertEqual(refused(100), link.ask("RESERVE 1"))
        lines = [re.sub("0x[0-9a-f]+", "S", text) for text in root.log_texts(8)
                 if text.startswith("Reserve this")]
        common = "Reserve this = S, available_size = 100, free_size = 100, "
        self.assertEqual([common + "incomplete_size = 0, size = 30",
                          common + "incomplete_size = 30, size = 71",
                          common + "incomplete_size = 30, size = 70",
                          common + "incomplete_size = 100, size = 1"], lines)

    def test_without_a_limit_everything_fits_until_the_numbers_end(self):
        link = self.session(self.root())
        self.assertEqual("OK 0", link.ask("RESERVE 9223372036854775807"))
        self.assertEqual(refused(9223372036854775807), link.ask("RESERVE 1"))

    def test_invalid_numbers_get_an_answer_and_the_link_stays_open(self):
        link = self.session(self.root(), "--size-limit", "100")
        for line in ("RESERVE ten", "RESERVE 1 2", "RESERVE 9223372036854775808", "RESERVE 0x10",
                     "RELEASE ten", "COMPLETE web1 2026-11-20 full ten",
                     "COMPLETE web1 2026-11-20 full"):
            with self.subTest(line=line):
                answer = link.ask(line)
                if line.endswith("full"):
                    self.assertEqual("OK 0", answer)  # COMPLETE treats a missing or malformed size as 0
                else:
                    self.assertRegex(answer, r"\AERR .+")
        self.assertEqual("OK 0", link.ask("RESERVE 100"))

    def test_release_may_make_the_reservation_negative(self):
        link = self.session(self.root(), "--size-limit", "100")
        self.assertEqual("OK 0", link.ask("RESERVE 100"))
        self.assertEqual("OK", link.ask("RELEASE 40"))
        self.assertEqual(refused(100), link.ask("RESERVE 41"))
        self.assertEqual("OK 0", link.ask("RESERVE 40"))
        self.assertEqual("OK", link.ask("RELEASE 150"))
        self.assertEqual("OK 0", link.ask("RESERVE 150"))

    def test_a_completion_clears_every_reservation(self):
        link = self.session(self.root(), "--size-limit", "100")
        link.ask("RESERVE 10")
        link.ask("RESERVE 10")
        self.assertEqual("OK 0", link.ask(f"COMPLETE web1 {DATE} full 10"))
        self.assertEqual(refused(100), link.ask("RESERVE 91"))
        self.assertEqual("OK 0", link.ask("RESERVE 90"))

    def test_the_newest_chain_of_a_user_is_never_available(self):
        root = self.root()
        root.log_level = 9
        link = self.session(root, "--size-limit", "100")
        link.ask(f"COMPLETE web1 {day(-2)} full 30")
        self.assertEqual(refused(100), link.ask("RESERVE 71"))
        link.ask(f"COMPLETE web1 {day(-1)} incremental 5")
        self.assertEqual(refused(100), link.ask("RESERVE 66"))
        link.ask(f"COMPLETE web1 {DATE} incremental 6")
        # The newest daily and its full backup are locked, 36 bytes. The older daily can be evicted.
        self.assertEqual(refused(100), link.ask("RESERVE 65"))
        lines = [text.split(" ", 1)[1] for text in root.log_texts(9) if "locked_before" in text]
        self.assertEqual(["available_size = 100, locked_before = 0, locked_after = 30",
                          "available_size = 70, locked_before = 30, locked_after = 35",
                          "available_size = 65, locked_before = 35, locked_after = 36"], lines)
        for text in root.log_texts(9):
            if "locked_before" in text:
                self.assertRegex(text, r"\Aquarn2_cp2_server\.\w+:184 available_size")

    def test_a_completion_of_another_type_only_uses_space(self):
        link = self.session(self.root(), "--size-limit", "100")
        self.assertEqual("OK 0", link.ask("COMPLETE web1 custom custom 40"))
        self.assertEqual("OK 0", link.ask("RESERVE 60"))
        # The custom backup does not count as locked space, but the server cannot evict it.
        self.assertEqual(LOCKED, link.ask("RESERVE 1"))

    def test_completing_a_date_again_replaces_its_record(self):
        link = self.session(self.root(), "--size-limit", "100")
        link.ask(f"COMPLETE web1 {DATE} full 40")
        link.ask(f"COMPLETE web1 {DATE} full 10")
        # The free space is smaller by both completions, but only the new record of 10 bytes cannot be evicted.
        self.assertEqual(refused(100), link.ask("RESERVE 91"))
        self.assertEqual("OK 0", link.ask("RESERVE 50"))

    def test_a_reservation_that_does_not_fit_evicts_the_oldest_first(self):
        root = self.root()
        backups = chain(root, "web1", "FFF", size=50)
        link = self.session(root, "--size-limit", "200")
        self.assertEqual("OK 2", link.ask("RESERVE 80"))
        self.assertEqual([day(-1), DATE], left(backups))
        self.assertEqual("OK 1", link.ask("RESERVE 50"))
        self.assertEqual([DATE], left(backups))
        self.assertEqual(refused(200), link.ask("RESERVE 21"))
        self.assertEqual([DATE], left(backups))

    def test_every_pass_takes_one_from_each_user_with_the_most(self):
        root = self.root()
        users = [chain(root, "a", "FFF", size=10), chain(root, "b", "FFF", size=10),
                 chain(root, "c", "FF", size=10)]
        link = self.session(root, "--size-limit", "100")
        self.assertEqual("OK 3", link.ask("RESERVE 20"))
        self.assertEqual("OK 2", link.ask("RESERVE 1"))
        self.assertEqual([[day(-1), DATE]] * 3, [left(backups) for backups in users])

    def test_a_full_backup_with_a_dependent_daily_is_not_evicted(self):
        root = self.root()
        backups = chain(root, "web1", "FDDFD", size=10)
        link = self.session(root, "--size-limit", "50")
        self.assertEqual("OK 4", link.ask("RESERVE 10"))
        self.assertEqual([day(-4), day(-2), day(-1), DATE], left(backups))
        self.assertEqual("OK 3", link.ask("RESERVE 10"))
        self.assertEqual([day(-4), day(-1), DATE], left(backups))
        self.assertEqual("OK 2", link.ask("RESERVE 10"))
        self.assertEqual([day(-1), DATE], left(backups))
        self.assertEqual(refused(50), link.ask("RESERVE 1"))

    def test_passes_that_find_nothing_end_with_the_answer_that_all_are_locked(self):
        root = self.root()
        backups = chain(root, "web1", "FD", size=40)
        link = self.session(root, "--size-limit", "100")
        # The newest daily and its full backup are locked. The custom backup uses the remaining space.
        self.assertEqual("OK 2", link.ask("COMPLETE other custom custom 20"))
        self.assertEqual(LOCKED, link.ask("RESERVE 20"))
        self.assertEqual([day(-1), DATE], left(backups))
        self.assertEqual("OK 0", link.ask("RESERVE 0"))

    def test_a_reservation_that_evictions_cannot_meet_deletes_nothing(self):
        root = self.root()
        backups = chain(root, "web1", "FFF", size=20)
        link = self.session(root, "--size-limit", "100")
        self.assertEqual("OK 3", link.ask("COMPLETE other custom custom 40"))
        self.assertEqual(LOCKED, link.ask("RESERVE 41"))
        self.assertEqual(3, len(left(backups)))
        self.assertEqual("OK 1", link.ask("RESERVE 40"))
        self.assertEqual([DATE], left(backups))

    def test_an_eviction_that_fails_is_answered_and_can_be_repeated(self):
        root = self.root()
        backups = chain(root, "web1", "FF", size=50, slices=1)
        obstacle = os.path.join(root.storage, backups[0].archives[0])
        os.rename(obstacle, obstacle + ".away")
        os.makedirs(os.path.join(obstacle, "inside"))
        link = self.session(root, "--size-limit", "100")
        self.assertRegex(link.ask("RESERVE 50"), r"\AERR .+")
        self.assertTrue(os.path.exists(backups[0].info_path))
        os.removedirs(os.path.join(obstacle, "inside"))
        self.assertEqual("OK 1", link.ask("RESERVE 50"))
        self.assertTrue(backups[0].is_gone())

    def test_a_backup_that_is_already_gone_counts_as_evicted(self):
        root = self.root()
        backups = chain(root, "web1", "FF", size=50)
        link = self.session(root, "--size-limit", "100")
        deletion = root.run("--delete", backups[0].info_path, env={"BACKUP_TOKEN": root.token})
        self.assert_success(deletion)
        self.assertTrue(backups[0].is_gone())
        self.assertEqual("OK 1", link.ask("RESERVE 50"))
        self.assertTrue(backups[1].is_whole())

    def test_a_backup_with_an_info_file_elsewhere_is_removed_from_the_storage_too(self):
        root = self.root()
        backups = chain(root, "web1", "FF", size=50)
        link = self.session(root, "--size-limit", "100")
        os.unlink(backups[0].info_path)
        self.assertEqual("OK 1", link.ask("RESERVE 50"))
        self.assertTrue(backups[0].is_gone())
        self.assertTrue(backups[1].is_whole())


class DropOne(SystemTest):
    def test_with_a_size_limit_nothing_is_dropped(self):
        root = self.root()
        backups = chain(root, "web1", "FFF")
        _, link = scripted_session(root, "--date", DATE, "--size-limit", "1000")
        self.assertEqual("ERR Upload failed and limit is set", link.ask("DROPONE 1"))
        self.assertEqual("OK 3", link.ask("RESERVE 1"))
        self.assertEqual(3, len(left(backups)))

    def test_without_a_limit_one_pass_is_made(self):
        root = self.root()
        backups = chain(root, "web1", "FFF")
        _, link = scripted_session(root, "--date", DATE)
        self.assertEqual("OK", link.ask("DROPONE 3"))
        self.assertEqual(3, len(left(backups)))
        self.assertEqual("OK", link.ask("DROPONE 2"))
        self.assertEqual([day(-1), DATE], left(backups))
        self.assertEqual("OK 2", link.ask("RESERVE 0"))
        self.assertEqual("OK", link.ask("DROPONE 0"))
        self.assertEqual([DATE], left(backups))
        self.assertEqual("OK 1", link.ask("RESERVE 0"))

    def test_a_negative_count_and_invalid_text_are_errors(self):
        _, link = scripted_session(self.root())
        self.assertEqual(LOCKED, link.ask("DROPONE -1"))
        self.assertRegex(link.ask("DROPONE 4294967296"), r"\AERR .+")
        self.assertRegex(link.ask("DROPONE many"), r"\AERR .+")
        self.assertEqual("OK", link.ask("DROPONE 0"))


if __name__ == "__main__":
    unittest.main()
