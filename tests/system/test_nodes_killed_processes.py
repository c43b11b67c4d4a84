"""Killed node clients, sshd and servers, a wrong clock, and a second server."""

import datetime
import os
import signal
import unittest

from machines import Job, TroubleTest
from processes import wait_gone
from samples import DATE, day
from server_command import Server
from waiting import wait_for

CLOCK_AHEAD = os.environ.get("QUARN2_CLOCK_AHEAD", "")
ARGUMENTS = ["--date", DATE, "--size-limit", "1000000", "--count-limit", "100:100"]


class KilledProcesses(TroubleTest):
    def test_a_killed_node_client_is_replaced_and_the_slice_put_again(self):
        self.make_head().token += "?limit_rate=300000"
        nodes = self.make_nodes(2)
        hit, other = nodes
        server = self.serve(nodes, "--date", DATE)
        job = Job(hit, "web1", DATE, size=600000)
        self.assert_success(job.put_slice(1))
        os.kill(hit.served(), signal.SIGKILL)
        self.wait_ended(hit, "Exit status: 255")
        self.put_elsewhere(other, "web2")
        name = os.path.basename(job.slices[0])
        self.assertNotIn(name, self.head.stored())
        self.assertTrue(os.path.exists(job.slices[0]))
        hit.served(2)
        # The job may continue, but the backup does not become complete.
        self.assert_success(job.put_slice(2))
        self.assertEqual(1, job.put_last().returncode)
        self.assertEqual(f"the backup is not complete: '{name}' is missing: its upload was interrupted. "
                         "Put this file again, or repeat the whole job", hit.log_texts(3)[0])
        self.assertNotIn(job.stem + ".info", self.head.stored())
        self.assert_success(job.put_slice(1))
        self.assert_success(job.put_last())
        job.check_stored(self.head.storage)
        self.finish(server)

    def test_a_node_whose_sshd_dies_is_served_again_when_it_is_back(self):
        nodes = self.make_nodes(2)
        hit, other = nodes
        server = self.serve(nodes, *ARGUMENTS)
        hit.kill_sshd()
        self.wait_ended(hit, "Exit status: 255")
        wait_for(lambda: not hit.clients(), "the end of the node client")
        self.put_elsewhere(other, "web2")
        self.wait_ended(hit, "Connection refused", count=2)
        hit.start_sshd()
        hit.served(2)
        self.put_elsewhere(hit, "web1")
        self.finish(server)

    def test_a_killed_server_leaves_nothing_behind_and_the_next_knows_all_backups(self):
        nodes = self.make_nodes(2)
        server = self.serve(nodes, *ARGUMENTS)
        jobs = [Job(machine, f"web{number}", DATE).run()
                for number, machine in enumerate([self.head, *nodes])]
        put = Job(nodes[0], "web9", DATE)
        self.assert_success(put.put_slice(1))
        free, reserved = self.account()
        self.assertEqual(0, reserved)
        os.kill(server.daemon, signal.SIGKILL)
        wait_gone(server.daemon)
        for node in nodes:
            wait_for(lambda node=node: not node.clients(), "the end of the node clients")
        server.release()
        server = self.start_server(nodes, *ARGUMENTS)
        for node in nodes:
            node.served(2)
        self.assert_success(put.put_slice(1))
        self.assertEqual((free, 0), self.account())
        self.assert_success(put.put_slice(2))
        self.assert_success(put.put_last())
        for job in [*jobs, put]:
            job.check_stored(self.head.storage)
        self.finish(server)

    def test_a_node_two_days_ahead_does_not_disturb_the_count(self):
        self.assertTrue(os.path.exists(CLOCK_AHEAD), "QUARN2_CLOCK_AHEAD names no library")
        ahead, node = self.make_nodes(2)
        ahead.kill_sshd()
        # Without this option the address sanitizer requires that its library is loaded first.
        wrong = {"LD_PRELOAD": CLOCK_AHEAD, "ASAN_OPTIONS": "verify_asan_link_order=0"}
        ahead.start_sshd("SetEnv " + " ".join(f"{key}={value}" for key, value in wrong.items())
                         + "\n")
        server = self.serve([ahead, node], *ARGUMENTS)
        old = [Job(self.head, "web1", day(-offset)).run() for offset in (2, 1)]
        first = Job(ahead, "web1", day(2))
        first.put_slices = lambda: [
            self.assert_success(first.put_slice(number, env=wrong)) for number in (1, 2)]
        first.put_slices()
        self.assert_success(first.put_last(env=wrong))
        self.put_elsewhere(node, "web2")
        free, _ = self.account()
        self.assertEqual(0, server.end())
        shift = (self.newest_time(ahead) - self.newest_time(self.head)).total_seconds() / 86400
        self.assertAlmostEqual(2, shift, delta=0.5)
        for job in [*old, first]:
            job.check_stored(self.head.storage)
        # The next server, whose clock is right, counts the backup as used space and never evicts it.
        server = self.start_server([ahead, node], *ARGUMENTS)
        self.assertIn(f"Skip backup. Backup date '{day(2)}' in future.",
                      " ".join(self.head.log_texts(4, server.daemon)))
        node.served(2)
        self.put_elsewhere(node, "web3")
        self.assertLess(self.account()[0], free)
        self.finish(server)
        first.check_stored(self.head.storage)

    @staticmethod
    def newest_time(machine):
        return datetime.datetime.fromisoformat(machine.log()[-1].time)

    def test_a_second_server_for_the_storage_waits_and_then_takes_the_nodes_over(self):
        nodes = self.make_nodes(2)
        first = self.serve(nodes, *ARGUMENTS)
        options = [word for node in nodes for word in ("--node", node.option)]
        second = Server(self.head, "--ssh-key", self.head.key, *options, "--date", day(1))
        self.head.wait_log("Other instanse of size control server is running. Date: " + DATE,
                           level=4, pid=second.pid, count=2)
        self.assertFalse(second.is_ready())
        for node in nodes:
            self.assertEqual(1, len(node.clients()))
            self.put_elsewhere(node, "before-" + node.name)
        self.assertEqual(0, first.end())
        second.wait_ready()
        for node in nodes:
            node.served(2)
            self.put_elsewhere(node, "after-" + node.name)
        self.finish(second)


if __name__ == "__main__":
    unittest.main()
