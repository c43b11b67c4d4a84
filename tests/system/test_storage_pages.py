"""A storage whose directory has more objects than the server lists in one answer."""

import os
import shutil
import unittest

import storages
from archives import call, rescan, tree_bytes, wipe
from local_files import write
from peers import Peer
from report_test_case import REPORT
from samples import DATE, info_text
from system_test import SystemTest

PAGE = 1000
PLACE = f"web1/{DATE}/"


class ManyListingPages(SystemTest):
    def test_a_rescan_finds_files_on_later_pages(self):
        storage = storages.shared(self, "S3Http")
        # In the listing, the names before the info files of the directory fill more than one page.
        others = {f"{PLACE}0{number}.dar": "x" for number in range(PAGE + 5)}
        infos = {f"{PLACE}{DATE}.web1-{number}.info": info_text({"type": "full", "number": number})
                 for number in range(40)}
        first = {f"{DATE}.web2.info": info_text({"last-slice": f"F{DATE}.web2.1.dar"}),
                 f"{DATE}.web2.1.dar": "slice"}
        storage.put_many({**others, **infos, **first})
        self.assertGreater(len(storage.names()), PAGE)
        root = self.root()
        root.token = storage.token()
        rescan(root)
        expected = {name: text.encode() for name, text in {**infos, **first}.items()}
        self.assertEqual(expected, tree_bytes(root.info_root))
        wipe(root)
        self.assert_success(root.run("--clear"))
        self.assertEqual([], storage.names())
        self.assertFalse(os.path.exists(root.info_root))

    def test_a_verification_sends_one_request_for_each_page(self):
        storage = storages.shared(self, "S3Http")
        root = self.root()
        files = {}
        for number in range(PAGE // 2):
            user = f"web{number}"
            fields = {"type": "full", "created": f"{DATE} 01:00:00", "finished": f"{DATE} 01:00:01",
                      "last-slice": f"F{DATE}.{user}.1.dar", "size": 100}
            # The value of "size" includes the info file. The placeholder 100 and the result have three digits, so the
            # length of the info file does not change.
            fields["size"] = len("slice" + "index" + info_text(fields))
            info = info_text(fields)
            files |= {f"F{DATE}.{user}.1.dar": "slice", f"{DATE}.{user}.1.dar": "index", f"{DATE}.{user}.info": info}
            write(os.path.join(root.info_root, f"{DATE}.{user}.info"), info)
        storage.put_many(files)
        relay = Peer(self, to=(storage.parts["host"], int(storage.parts["port"])))
        report = root.file("sbin/quarn2_report")
        shutil.copy2(REPORT, report)
        found = call(report, "--verify", env=root.environment(BACKUP_TOKEN=storage.token(port=relay.port)))
        self.assertEqual((0, ""), (found.returncode, found.stderr))
        self.assertIn(f"backups   {PAGE // 2}, {len(files)} files", found.stdout)
        self.assertEqual(2, len(relay.requests), relay.requests)


if __name__ == "__main__":
    unittest.main()
