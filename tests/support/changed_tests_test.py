"""Checks which tests scripts/test-changed selects for a change."""

import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../scripts/lib"))

from changed_tests import script_dependencies, select  # noqa: E402

KNOWN = ["layer_check", "changed_tests", "kro_str_test", "kro_args_test", "quarn2_token_test", "quarn2_s3_token_test",
         "quarn2_storage_s3_test", "quarn2_storage_sftp_test", "quarn2_storage_trouble_s3_test", "backup_put_test",
         "system_put", "system_put_info", "system_nodes_broken_links_1", "system_storage_hang_1", "server_s3_start"]
NEEDS = {
    "tests/unit/kro/str_test.cpp": {"kro/include/kro/str.h"},
    "tests/unit/quarn2/token_test.cpp": {"tests/support/temp_dir.h"},
    "tests/unit/quarn2/storage_trouble.cpp": {"tests/support/storage_trouble.h"},
    "tests/system/test_put.py": {"tests/system/system_test.py"},
    "tests/system/test_put_info.py": {"tests/system/system_test.py", "tests/system/samples.py"},
}


class Selection(unittest.TestCase):
    def expect(self, changed, names):
        self.assertEqual(names, select(changed, NEEDS, KNOWN))

    def test_a_document_touches_nothing(self):
        self.expect(["docs/formats.md", "README.md"], [])

    def test_a_test_file_touches_itself(self):
        self.expect(["tests/unit/kro/str_test.cpp"], ["kro_str_test"])

    def test_a_header_of_tests_touches_those_that_include_it(self):
        self.expect(["tests/support/temp_dir.h"], ["quarn2_token_test"])

    def test_a_system_test_and_a_helper_of_several(self):
        self.expect(["tests/system/test_put_info.py"], ["system_put_info"])
        self.expect(["tests/system/system_test.py"], ["system_put", "system_put_info"])

    def test_a_backend_touches_its_own_tests_on_its_servers(self):
        self.expect(["quarn2/backends/s3/keys.cpp"],
                    ["quarn2_s3_token_test", "quarn2_storage_s3_test", "quarn2_storage_trouble_s3_test",
                     "system_storage_hang_1"])

    def test_the_framework_and_the_build_touch_everything(self):
        self.expect(["kro/src/str.cpp"], KNOWN)
        self.expect(["CMakePresets.json"], KNOWN)

    def test_the_program_touches_its_unit_and_system_tests(self):
        self.expect(["backup_common/src/quarn2_cp2_put.cpp"],
                    ["backup_put_test", "system_put", "system_put_info", "system_nodes_broken_links_1",
                     "system_storage_hang_1"])

    def test_a_suite_that_is_compiled_once_touches_all_its_instances(self):
        self.expect(["tests/support/storage_trouble.h"], ["quarn2_storage_trouble_s3_test"])

    def test_modules_that_are_loaded_into_the_program(self):
        self.expect(["tests/support/fault_points.cpp"],
                    ["system_put", "system_put_info", "system_nodes_broken_links_1", "system_storage_hang_1"])

    def test_imports_are_followed(self):
        folder = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../system")
        needs = script_dependencies(folder)["tests/system/test_crash_kills.py"]
        self.assertLessEqual({"tests/system/crash_test_case.py", "tests/system/faults.py", "tests/system/system_test.py"}, needs)


if __name__ == "__main__":
    unittest.main()
