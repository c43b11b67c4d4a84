"""Links that break during a reservation, an upload or a completion, and links with delay and loss."""

import os
import threading
import unittest

from local_files import read
from machines import Job, TroubleTest
from samples import DATE, day
from waiting import DEADLINE, wait_for

ARGUMENTS = ["--date", DATE, "--size-limit", "1000000", "--count-limit", "100:100"]


class BackgroundCall(threading.Thread):
    """Runs a command in a thread; wait() returns its result."""

    def __init__(self, call):
        super().__init__()
        self.call = call
        self.result = None
        self.start()

    def run(self):
        self.result = self.call()

    def wait(self, test):
        self.join(DEADLINE)
        test.assertFalse(self.is_alive(), "the command hangs")
        return self.result


class BrokenLinks(TroubleTest):
    def test_a_link_cut_in_the_middle_of_a_reservation_is_noticed_within_a_minute(self):
        self.make_head(ssh_options="")  # no ssh settings except those of the installation
        nodes = self.make_nodes(2, lossy=[1], sshd_options="")
        cut, other = nodes
        server = self.serve(nodes, *ARGUMENTS)
        job = Job(cut, "web1", DATE, size=12345)
        cut.cable.order("loss 100 0")  # the command arrives at the server, but the answer does not arrive at the node
        put = BackgroundCall(lambda: job.put_slice(1, timeout=120))
        self.head.wait_log("ProcessCommand line = 'RESERVE 12345'", level=8)
        cut.cable.order("loss 100 100")
        self.assert_success(Job(other, "web2", DATE).put_slice(1))
        # The session has not ended yet, so the server keeps the reservation.
        self.assertEqual(12345, self.account()[1])
        self.wait_ended(cut, "not responding", timeout=60)
        self.put_elsewhere(other, "web3")
        put.join(75)
        self.assertEqual(1, put.wait(self).returncode)
        self.assertTrue(os.path.exists(job.slices[0]))
        cut.cable.order("loss 0 0")
        cut.served(2, timeout=75)
        job.run().check_stored(self.head.storage)
        # The lost reservation is no longer counted.
        self.assertEqual(2 * 12345 + 100, self.account()[1])
        self.finish(server)

    def test_a_link_cut_in_the_middle_of_an_upload_does_not_stop_it(self):
        self.make_head().token += "?limit_rate=300000"
        nodes = self.make_nodes(2)
        cut, other = nodes
        server = self.serve(nodes, "--date", DATE)
        job = Job(cut, "web1", DATE, size=900000)
        self.assert_success(job.put_slice(1))
        cut.pull_out()
        stored = os.path.join(self.head.storage, os.path.basename(job.slices[0]))
        self.assertFalse(os.path.exists(stored))
        self.put_elsewhere(other, "web2")
        self.wait_ended(cut, "Exit status: 255")
        wait_for(lambda: os.path.exists(stored), "the end of the upload")
        self.assertEqual(job.content[os.path.basename(stored)], read(stored))
        cut.plug_in()
        cut.served(2)
        self.assert_success(job.put_slice(2))
        self.assert_success(job.put_last())
        job.check_stored(self.head.storage)
        self.finish(server)

    def test_a_link_cut_before_the_completion_leaves_a_backup_that_can_be_completed_later(self):
        nodes = self.make_nodes(2, lossy=[1])
        cut, other = nodes
        server = self.serve(nodes, *ARGUMENTS)
        job = Job(cut, "web1", DATE)
        job.put_slices()
        cut.cable.order("loss 100 100")
        put = BackgroundCall(job.put_last)
        self.wait_ended(cut, "not responding")
        self.put_elsewhere(other, "web2")
        self.assertEqual(1, put.wait(self).returncode)
        cut.cable.order("loss 0 0")
        cut.served(2)
        self.assert_success(job.put_last())
        job.check_stored(self.head.storage)
        completions = [text for text in self.head.log_texts(8)
                       if text.startswith("ProcessCommand line = 'COMPLETE web1 ")]
        self.assertEqual(1, len(completions), completions)
        self.finish(server)

    def test_a_completion_whose_answer_is_lost_counts_and_can_be_repeated(self):
        nodes = self.make_nodes(1, lossy=[1])
        cut, = nodes
        server = self.serve(nodes, *ARGUMENTS)
        job = Job(cut, "web1", DATE)
        job.put_slices()
        # The commands must arrive and their answers must not. The delay leaves time to cut the link in between.
        cut.cable.order("delay 700")
        put = BackgroundCall(job.put_last)
        info = f"{DATE}.web1.info"
        wait_for(lambda: info in self.head.stored(), "the info file on the storage")
        cut.cable.order("loss 100 0")
        self.wait_ended(cut, "not responding")
        put.wait(self)
        complete = [text for text in self.head.log_texts(8)
                    if text.startswith("ProcessCommand line = 'COMPLETE web1 ")]
        self.assertEqual(1, len(complete), self.head.log_texts(8)[-20:])
        self.assertTrue(os.path.exists(os.path.join(self.head.info_root, info)))
        self.assertEqual(1, put.result.returncode)
        cut.cable.order("delay 0")
        cut.cable.order("loss 0 0")
        cut.served(2)
        self.assert_success(job.put_last())
        job.check_stored(self.head.storage)
        self.finish(server)

    def test_delay_and_loss_only_cost_time(self):
        self.make_head(ssh_options="")  # no ssh settings except those of the installation
        nodes = self.make_nodes(2, lossy=[1], sshd_options="")
        far, near = nodes
        far.cable.order("delay 200")
        far.cable.order("loss 5 5")
        server = self.serve(nodes, *ARGUMENTS)
        jobs = [Job(far, "web1", day(-1), size=20000), Job(far, "web1", DATE, "incremental")]
        for job in jobs:
            job.run()
        for job in jobs:
            job.check_stored(self.head.storage)
        self.put_elsewhere(near, "web2")
        self.finish(server)
        self.assertEqual([], [text for text in self.head.log_texts(4) if "ended" in text])


if __name__ == "__main__":
    unittest.main()
