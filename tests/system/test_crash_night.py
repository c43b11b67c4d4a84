"""quarn2-night: nights that are killed, told to end, or started twice."""

import os
import signal
import unittest

from local_files import write
from nights import FORMATS, MONDAY, SUNDAY, NightTest, end_of
from samples import read_info
from waiting import wait_for


class Interruptions(NightTest):
    """A night waits in its before-user hook, or in the archiver after all of its output but the end."""

    def waiting_site(self, form="dar"):
        site = self.site(form.replace(".", "-"), backup=f"format = {form}\nslice-size = 64K")
        write(os.path.join(site.user("web1"), "file"), os.urandom(300000))
        self.pipe = os.path.join(site.root.base, "pipe")
        os.mkfifo(self.pipe)
        tool = {"dar": "dar", "tar.zst": "zstd"}[form]
        # The test has the pipe open, so the archiver waits for the line that let_go() writes.
        self.writer = os.open(self.pipe, os.O_RDWR)
        self.addCleanup(os.close, self.writer)
        path = site.tool(tool, f'/usr/bin/{tool} "$@"; read line <"{self.pipe}"')
        process = site.start_night(SUNDAY, PATH=path)
        # The first slices are on the storage, and the last one waits for the archiver's end.
        wait_for(lambda: [name for name in site.root.stored() if name.startswith("F")], "a slice on the storage")
        return site, process

    def let_go(self):
        os.write(self.writer, b"\n")

    def test_two_nights_at_once(self):
        site, process = self.waiting_site()
        result = site.night(MONDAY)
        self.assertEqual((3, ""), (result.returncode, result.stdout))
        self.assertEqual(f"quarn2-night: another quarn2-night is running: process {process.pid} for {SUNDAY}; wait for "
                         f"its end, or end it with: kill {process.pid}\n", result.stderr)
        self.let_go()
        status, out, err = end_of(process)
        self.assertEqual((0, ""), (status, err), out)
        self.assert_nothing_left(site, SUNDAY + ".web1")

    def test_a_killed_night_and_the_next_one(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site, process = self.waiting_site(form)
                process.kill()
                end_of(process)
                self.let_go()
                wait_for(lambda: not self.new_children(), "the end of the archiver and of the server")
                self.assertTrue([name for name in site.root.stored() if name.startswith("F" + SUNDAY)])
                result = site.good_night(MONDAY)
                self.assertIn(f"an earlier night was interrupted; its unfinished backups are removed: {SUNDAY}.web1",
                              result.stdout)
                self.assert_nothing_left(site, MONDAY + ".web1")
                self.assertEqual("full", read_info(os.path.join(site.root.info_root, MONDAY + ".web1.info"))["type"])

    def test_a_night_that_is_told_to_end(self):
        for form in FORMATS:
            with self.subTest(form=form):
                site, process = self.waiting_site(form)
                process.send_signal(signal.SIGTERM)
                status, out, err = end_of(process)
                self.assertEqual((1, ""), (status, err))
                self.assertIn("web1: FAILED: ", out)
                self.assertIn("0 backed up, 0 skipped, 1 failed", out)
                self.assert_nothing_left(site)
                site.good_night(SUNDAY)
                self.assert_nothing_left(site, SUNDAY + ".web1")


if __name__ == "__main__":
    unittest.main()
