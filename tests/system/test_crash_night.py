"""quarn2-night: nights that are killed, terminated by a signal, or started twice."""

import os
import re
import signal
import unittest

from archives import manifest
from local_files import tree, write
from nights import FORMATS, MONDAY, SUNDAY, NightTest, end_of
from processes import command_line
from samples import read_info
from waiting import wait_for


class Interruptions(NightTest):
    """Nights that wait for their archiver, which has written all of its output but has not ended."""

    def waiting_site(self, form="dar"):
        site = self.site(form.replace(".", "-"), backup=f"format = {form}\nslice-size = 64K")
        write(os.path.join(site.user("web1"), "file"), os.urandom(300000))
        process, self.writer = self.start_waiting_night(site, "pipe", {"dar": "dar", "tar.zst": "zstd"}[form])
        # The storage has the first slices. The nightly run puts the last slice only after the archiver has ended.
        wait_for(lambda: len([name for name in site.root.stored() if name.startswith("F")]) >= 3, "three slices on the storage")
        return site, process

    def start_waiting_night(self, site, name, tool):
        """Returns the process, and the descriptor to which a line must be written before the archiver ends."""
        pipe = os.path.join(site.root.base, name)
        os.mkfifo(pipe)
        # The test keeps the pipe open, so the archiver waits until the test writes a line.
        writer = os.open(pipe, os.O_RDWR)
        self.addCleanup(os.close, writer)
        path = site.tool(tool, f'/usr/bin/{tool} "$@"; read line <"{pipe}"')
        return site.start_night(SUNDAY, PATH=path), writer

    def let_go(self):
        os.write(self.writer, b"\n")

    @staticmethod
    def archivers(site):
        lines = {pid: command_line(pid) for pid in os.listdir("/proc") if pid.isdigit()}
        return [pid for pid, line in lines.items() if line.startswith("dar_xform") and site.root.base in line]

    @staticmethod
    def slices_in_work(site):
        """Returns the largest number of a slice in the work directories."""
        numbers = re.findall(r"/F[^/]*\.([0-9]+)\.dar", "\n".join(tree(site.root.file("var/night"))))
        return max(map(int, numbers), default=0)

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

    def test_an_archiver_that_has_outlived_its_night_does_not_write_into_the_next_one(self):
        site, process = self.waiting_site()
        wait_for(lambda: self.slices_in_work(site) == 4, "the slice that waits for the end of the archiver")
        process.kill()
        end_of(process)
        old, = self.archivers(site)
        # Both archives have the same number of slices, so the old archiver's last slice has the same name as a slice
        # that the new archiver is writing.
        write(os.path.join(site.user("web1"), "file"), os.urandom(300000))
        process, writer = self.start_waiting_night(site, "second pipe", "dar")
        # When the old archiver continues, it writes this slice or the next one.
        wait_for(lambda: len(self.archivers(site)) == 2 and self.slices_in_work(site) == 4, "the second archiver", 60)
        self.let_go()
        wait_for(lambda: old not in self.archivers(site), "the end of the old archiver")
        os.write(writer, b"\n")
        status, out, err = end_of(process)
        self.assertEqual((0, ""), (status, err), out)
        target = os.path.join(site.root.base, "restored")
        site.good_restore("web1", SUNDAY, target)
        self.assertEqual(manifest(site.user("web1")), manifest(target))
        self.assert_nothing_left(site, SUNDAY + ".web1")

    def test_a_server_that_is_killed_in_the_middle_is_started_again(self):
        site = self.site()
        for user in ("web1", "web2"):
            write(os.path.join(site.user(user), "file"), "text")
        flag = write(os.path.join(site.root.base, "flag"), "")
        hook = site.hook("before", f'rm "{flag}" 2>/dev/null || exit 0; kill -9 $(head -1 {site.root.file("var/quarn2_cp.pid")})')
        site.configure(hooks=f"before-user = {hook}", night="retries = 1")
        result = site.good_night(SUNDAY)
        self.assertIn("web1: FAILED: ", result.stdout)
        self.assertIn("2 backed up, 0 skipped, 0 failed", result.stdout)
        self.assert_nothing_left(site, SUNDAY + ".web1", SUNDAY + ".web2")

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
