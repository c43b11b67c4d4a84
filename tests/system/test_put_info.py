"""--put and the backup's info file: sizes, times, and the copy for the storage."""

import datetime
import os
import unittest

from local_files import read, tree, write
from samples import info_text, read_info
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE

DATE = "2026-11-20"


class InfoTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.r = self.root()
        self.server = Server(self.r, "--date", DATE, "--count-limit", "100:100").wait_ready()
        self.r.wait_log(f"Client. Backup token = 'local://{self.r.storage}'")
        self.stored_info = os.path.join(self.r.storage, f"{DATE}.web1.info")
        self.local_info = os.path.join(self.r.work, f"{DATE}.web1.info")

    def source(self, name, data="0123456789"):
        return write(os.path.join(self.r.work, name), data)

    def job(self, text=None, **fields):
        return self.source("job.info", info_text(fields) if text is None else text)

    def put(self, name, *options, data="0123456789"):
        self.assert_success(self.r.run("--put", self.source(name, data), *options))


class Arithmetic(InfoTest):
    def test_sizes_add_up_and_keys_come_back_sorted(self):
        info = self.job("type=full\nsize=100\nlast-slice=old\nbase=b\nA=1\nzz=a=b\n")
        self.put("F2026-11-20.web1.1.dar", "-I", info, "--convert", data="x" * 23)
        self.assertEqual("A=1\nbase=b\nlast-slice=old\nsize=123\ntype=full\nzz=a=b",
                         read(info).decode())

    def test_a_missing_size_counts_as_nothing(self):
        info = self.job(type="full")
        self.put("F2026-11-20.web1.1.dar", "-I", info, "--convert", data="x" * 23)
        self.assertEqual("size=23\ntype=full", read(info).decode())

    def test_carriage_returns_and_empty_lines_of_other_programs_are_read(self):
        info = self.job("type=full\r\n\r\nsize=7\r\n")
        self.put("F2026-11-20.web1.1.dar", "-I", info, "--convert", data="x" * 3)
        self.assertEqual("size=10\ntype=full", read(info).decode())

    def test_last_slice_and_operation_record_the_stored_name(self):
        info = self.job(type="full")
        self.put("F2026-11-20.web1.1.dar", "-I", info, "--convert")
        self.assertNotIn("last-slice", read_info(info))
        self.put("F2026-11-20.web1.2.dar", "-I", info, "--convert", "--operation")
        self.assertEqual("F2026-11-20.web1.2.dar", read_info(info)["last-slice"])
        self.put("F2026-11-20.web1.3.dar", "-I", info, "--convert", "--last_slice")
        self.assertEqual("F2026-11-20.web1.3.dar", read_info(info)["last-slice"])
        self.put("web1/2026-11-20/F2026-11-20.web1.4.dar", "-I", info, "--convert", "--last_slice")
        self.assertEqual("web1/2026-11-20/F2026-11-20.web1.4.dar", read_info(info)["last-slice"])
        self.assertEqual("40", read_info(info)["size"])

    def test_times_are_stamped(self):
        created = datetime.datetime.now().replace(microsecond=0) - datetime.timedelta(seconds=90)
        info = self.job(type="full", created=created)
        self.put("F2026-11-20.web1.1.dar", "-I", info)
        fields = read_info(info)
        finished = datetime.datetime.strptime(fields["finished"], "%Y-%m-%d %H:%M:%S")
        self.assertLess(abs((datetime.datetime.now() - finished).total_seconds()), DEADLINE)
        self.assertEqual(int((finished - created).total_seconds()), int(fields["duration"]))

    def test_convert_leaves_the_times_alone(self):
        times = {"created": "2020-01-01 00:00:00", "finished": "2020-01-01 00:00:05",
                 "duration": "5"}
        info = self.job(type="full", **times)
        self.put("F2026-11-20.web1.1.dar", "-I", info, "--convert")
        self.assertEqual({"size": "10", "type": "full", **times}, read_info(info))

    def test_a_created_that_cannot_be_read_fails_and_leaves_the_info_file(self):
        info = self.job(type="full", created="some day")
        path = self.source("F2026-11-20.web1.1.dar")
        result = self.r.run("--put", path, "-I", info, "--no-delete")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn("some day", result.stderr)
        self.assertEqual("created=some day\ntype=full", read(info).decode())

    def test_a_missing_info_file_is_reported_after_the_upload(self):
        path = self.source("F2026-11-20.web1.1.dar")
        missing = os.path.join(self.r.work, "no.info")
        result = self.r.run("--put", path, "-I", missing)
        self.assertEqual(1, result.returncode)
        self.assertIn(missing, result.stderr)
        self.assertFalse(os.path.exists(missing))

    def test_the_info_file_keeps_its_mode(self):
        info = self.job(type="full")
        os.chmod(info, 0o640)
        self.put("F2026-11-20.web1.1.dar", "-I", info, "--convert")
        self.assertEqual(0o100640, os.stat(info).st_mode)
        self.assertEqual(["job.info"], [name for name in tree(self.r.work) if "info" in name])


class Isolated(InfoTest):
    def test_the_last_file_sends_the_info_file_without_the_node(self):
        info = self.job(type="full", node="n1", created="2026-11-20 00:00:00")
        self.put("F2026-11-20.web1.1.dar", "-I", info, "--last_slice", "--convert")
        before = read(info)
        self.put("2026-11-20.web1.1.dar", "-I", info, "--isolated", "--convert", data="catalogue")
        stored = read(self.stored_info).decode()
        self.assertEqual(
            {"type": "full", "created": "2026-11-20 00:00:00",
             "last-slice": "F2026-11-20.web1.1.dar", "size": str(19 + len(stored))},
            read_info(self.stored_info))
        # The last --put does not change the job's own info file. Only the copy in the info root contains the node.
        self.assertEqual(before, read(info))
        self.assertEqual({**read_info(self.stored_info), "node": "n1"}, read_info(self.local_info))
        self.assertEqual(stored, info_text(read_info(self.stored_info)))

    def test_without_a_node_both_copies_are_the_same(self):
        info = self.job(type="full")
        self.put("2026-11-20.web1.tgz", "-I", info, "--isolated", "--convert")
        self.assertEqual(read(self.stored_info), read(self.local_info))
        self.assertEqual("type=full", read(info).decode())

    def test_an_info_file_that_is_the_local_copy_itself(self):
        self.source(f"{DATE}.web1.info", info_text({"type": "full", "node": "n1", "size": 5}))
        self.put("2026-11-20.web1.tgz", "-I", self.local_info, "--isolated", "--convert")
        self.assertEqual({"type": "full", "size": str(15 + os.path.getsize(self.stored_info)),
                          "node": "n1"}, read_info(self.local_info))

    def test_the_size_counts_the_info_text_even_where_that_adds_a_digit(self):
        # Near a power of ten, the length of the info text itself can add a digit to the size.
        for number, data in enumerate((70, 77, 78, 79, 80, 81, 82, 83, 84, 85, 90, 99, 979, 980,
                                       981, 982, 983, 9979, 9980, 9981, 9982)):
            user = f"u{number}"
            info = self.job(size=data, type="full")
            self.put(f"2026-11-20.{user}.tgz", "-I", info, "--isolated", "--convert", data="")
            path = os.path.join(self.r.storage, f"2026-11-20.{user}.info")
            self.assertEqual(data + os.path.getsize(path), int(read_info(path)["size"]), data)

    def test_the_completed_backup_is_reported_to_the_server(self):
        self.server.end()
        self.r.log_level = 8
        server = Server(self.r, "--date", DATE, "--count-limit", "100:100").wait_ready()
        self.r.wait_log(f"Client. Backup token = 'local://{self.r.storage}'",
                        pid=server.node_client())
        info = self.job(type="incremental")
        self.put("I2026-11-20.web1.tgz", "-I", info, "--last_slice", "--convert")
        self.put("2026-11-20.web1.tgz", "-I", info, "--isolated", "--convert")
        size = read_info(self.stored_info)["size"]
        lines = [text for text in self.r.log_texts(8, server.daemon)
                 if text.startswith("ProcessCommand")]
        self.assertEqual(["ProcessCommand line = 'RESERVE 10'",
                          "ProcessCommand line = 'RESERVE 10'",
                          f"ProcessCommand line = 'RESERVE {os.path.getsize(self.stored_info)}'",
                          f"ProcessCommand line = 'COMPLETE web1 {DATE} incremental {size}'"],
                         lines)

    def test_isolated_without_an_info_file_only_puts(self):
        self.put("2026-11-20.web1.tgz", "--isolated", "--last_slice")
        self.assertEqual(0, self.server.end())
        self.assertEqual((["2026-11-20.web1.tgz"], []), (self.r.stored(), tree(self.r.work)))

    def test_times_are_stamped_in_the_stored_copy(self):
        info = self.job(type="full", created=f"{DATE} 00:00:00")
        self.put("2026-11-20.web1.tgz", "-I", info, "--isolated")
        fields = read_info(self.stored_info)
        self.assertEqual({"created", "duration", "finished", "size", "type"}, set(fields))
        self.assertRegex(fields["finished"], r"\A\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\Z")
        int(fields["duration"])


if __name__ == "__main__":
    unittest.main()
