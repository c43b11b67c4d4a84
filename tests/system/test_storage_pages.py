"""A storage whose directory has more objects than the server lists in one answer."""

import os
import unittest

import storages
from archives import rescan, tree_bytes, wipe
from samples import DATE, info_text
from system_test import SystemTest

PAGE = 1000
PLACE = f"web1/{DATE}/"


class ManyListingPages(SystemTest):
    def test_a_rescan_finds_files_on_later_pages(self):
        storage = storages.shared(self, "S3Http")
        # More names than one page lists come before the info files of the directory.
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


if __name__ == "__main__":
    unittest.main()
