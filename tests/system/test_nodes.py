"""Sessions with several machines over ssh: backups, failures of nodes, and the log lines about them."""

import datetime
import os
import subprocess
import unittest

from local_files import read, write
from machines import Job, NodesTest, descendants
from processes import children, command_line
from samples import DATE
from server_command import Server
from waiting import wait_for

LIMIT = 1000000


class Sessions(NodesTest):
    def test_every_node_puts_backups_and_all_count_on_one_storage(self):
        nodes = self.make_nodes(3)
        server = self.serve(nodes, "--date", DATE, "--size-limit", str(LIMIT),
                            "--count-limit", "10:10")
        jobs = [Job(machine, f"web{number}", DATE).run()
                for number, machine in enumerate([self.head, *nodes])]
        for job in jobs:
            job.check_stored(self.head.storage)
            # The server's scans and evictions find every backup in the info root of the server's own machine.
            self.assertEqual(read(os.path.join(self.head.storage, job.stem + ".info")),
                             read(os.path.join(self.head.info_root, job.stem + ".info")))
        self.assertEqual(0, server.end())
        self.assertEqual([], self.head.log_texts(3))
        for node in nodes:
            wait_for(lambda node=node: not node.clients(), "the end of the node clients")

    def test_the_clients_have_no_terminal_for_prompts(self):
        node, = self.make_nodes(1)
        server = self.serve([node])
        clients = children(server.daemon)
        self.assertEqual(2, len(clients))
        for client in clients:
            with open(f"/proc/{client}/stat", encoding="ascii") as stat:
                words = stat.read().rpartition(")")[2].split()
            session, terminal = words[3], words[4]
            self.assertEqual((str(client), "0"), (session, terminal))
            environment = read(f"/proc/{client}/environ").split(b"\0")
            self.assertIn(b"SSH_ASKPASS_REQUIRE=never", environment)

    def test_the_token_is_in_no_argument_list_and_in_no_environment_of_a_session(self):
        node, = self.make_nodes(1)
        secret = "open-sesame-4711"
        self.head.token += "?arch_password=" + secret
        server = self.serve([node])
        clients = [*children(server.daemon), *node.clients()]
        self.assertEqual(3, len(clients))
        for client in clients:
            environment = read(f"/proc/{client}/environ")
            self.assertNotIn(secret.encode(), environment)
            self.assertNotIn(b"BACKUP_TOKEN", environment)
        for pid in [os.getpid(), *descendants(os.getpid())]:
            self.assertNotIn(secret, command_line(pid))
        job = Job(node, "web1", DATE).run()
        stored = read(os.path.join(self.head.storage, job.stem + ".info")).decode()
        self.assertIn("key_hash=", stored)  # proves that the node has the complete token
        for machine in (self.head, node):
            self.assertNotIn(secret.encode(), read(machine.file("var/quarn2_cp.log")))

    def test_a_key_that_may_start_the_node_client_alone_is_enough(self):
        node, = self.make_nodes(1)
        keys = node.file("etc/authorized_keys")
        write(keys, 'command="/usr/local/kro5/sbin/quarn2_cp --client",' + node.text(keys))
        self.serve([node], "--date", DATE)
        Job(node, "web1", DATE).run().check_stored(self.head.storage)
        # The documentation tells operators to try this command.
        tried = subprocess.run(
            self.head.inside("ssh", "-i", self.head.key, "-p", str(node.port), node.address, "true"),
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        self.assertEqual((1, "", "quarn2_cp: Failed to get answer size from server"),
                         (tried.returncode, tried.stdout, tried.stderr.strip()))


class Failures(NodesTest):
    def test_nodes_that_cannot_be_served_are_logged_with_the_last_output_of_ssh(self):
        nodes = self.make_nodes(5)
        good, refuses_key, has_no_program, is_down, is_stranger = nodes
        write(refuses_key.file("etc/authorized_keys"), "")
        os.rename(has_no_program.binary, has_no_program.binary + ".away")
        is_down.kill_sshd()
        known = os.path.join(self.head.ssh, "known_hosts")
        lines = is_stranger.text(known).splitlines(keepends=True)
        write(known, "".join(line for line in lines if is_stranger.address not in line))
        server = self.start_server(nodes, "--date", DATE)
        for node, words in ((refuses_key, "Permission denied (publickey"),
                            (has_no_program, "/usr/local/kro5/sbin/quarn2_cp: "),
                            (is_down, "Connection refused"),
                            (is_stranger, "Host key verification failed.")):
            status = "127" if node is has_no_program else "255"
            line = self.wait_ended(node, f"Exit status: {status}. Last output: ")
            self.assertIn(words, line)
            self.assertLess(len(line), 1000)
        good.served()
        Job(good, "web1", DATE).run().check_stored(self.head.storage)
        Job(self.head, "web2", DATE).run().check_stored(self.head.storage)
        self.check_pauses(is_down)
        is_down.start_sshd()
        is_down.served()
        Job(is_down, "web3", DATE).run().check_stored(self.head.storage)
        self.assertEqual(0, server.end())

    def check_pauses(self, node):
        """Checks that the pauses between the attempts grow."""
        self.wait_ended(node, "Connection refused", count=3)
        times = [datetime.datetime.fromisoformat(entry.time) for entry in self.head.log(4)
                 if entry.text.startswith(f"Session with node '{node.option}' ended.")]
        gaps = [(later - earlier).total_seconds() for earlier, later in zip(times, times[1:])]
        # A pause begins when the server detects the end of the session, a little before the log line.
        self.assertGreaterEqual(gaps[0], 0.9)
        self.assertGreaterEqual(gaps[1], 1.9)

    def test_a_machine_without_ssh_serves_itself(self):
        head = self.make_head()
        server = Server(head, "--node", "elsewhere:10.77.9.2:22", "--date", DATE,
                        env={"PATH": head.file("sbin")}).wait_ready()
        head.wait_log("Cant start session with node 'elsewhere:10.77.9.2:22'. What: Failed to start"
                      " 'ssh': No such file or directory", level=4, count=2)
        Job(head, "web1", DATE).run().check_stored(head.storage)
        self.assertEqual(0, server.end())


if __name__ == "__main__":
    unittest.main()
