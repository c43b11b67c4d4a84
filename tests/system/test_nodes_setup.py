"""quarn2-node: sets up a node over a real sshd, and checks it."""

import os
import shutil
import unittest

from archives import call
from local_files import read, tree, write
from machines import Node, NodesTest, tool
from nights import PROGRAMS
from waiting import wait_for



class NodeSetup(NodesTest):
    """A machine of the server (head) without any ssh settings, and a node with a home directory that contains only
    the administrator's key."""

    def setUp(self):
        super().setUp()
        head = self.make_head()
        shutil.rmtree(head.file("etc/.ssh"))
        for name in ("config", "known_hosts"):
            os.remove(os.path.join(head.ssh, name))
        self.home = os.path.join(self.folder, "node home")
        os.makedirs(os.path.join(self.home, ".ssh"), mode=0o700)
        self.identity = os.path.join(self.folder, "administrator")
        tool("ssh-keygen", "-q", "-N", "", "-t", "ed25519", "-f", self.identity)
        self.authorized = write(os.path.join(self.home, ".ssh/authorized_keys"), read(self.identity + ".pub"))
        self.node = NewNode(self, head, 1, home=self.home)
        settings = os.path.join(self.node.base, "etc ssh")
        os.makedirs(os.path.join(settings, "sshd_config.d"))
        self.sshd_settings = os.path.join(settings, "sshd_config.d/quarn2_cp.conf")
        self.node.tool("mount", "--bind", settings, "/etc/ssh")
        self.start()

    def start(self, *lines):
        """Starts sshd with a configuration in /etc/ssh of the node's namespace."""
        return self.node.start_sshd(f'AuthorizedKeysFile "{self.authorized}"\n', "\n".join((
            *lines, "Include /etc/ssh/sshd_config.d/*.conf", f"PidFile {self.node.file('etc/sshd.pid')}")),
            "/etc/ssh/sshd_config")

    def run_node(self, *arguments):
        environment = self.head.environment(KRO_ROOT="/usr/local/kro5", BACKUP_TOKEN=None)
        return call(*self.head.inside(os.path.join(PROGRAMS, "quarn2-node"), *arguments),
                    env=environment)

    def add(self, *arguments):
        return self.run_node("add", "--host-key", self.fingerprint(), *arguments, self.node.option)

    def fingerprint(self):
        return tool("ssh-keygen", "-l", "-f", self.node.file("etc/host_key.pub")).split()[1]

    def assert_refused(self, result, text):
        self.assertEqual(1, result.returncode, result.stdout + result.stderr)
        self.assertIn(text, result.stdout + result.stderr)

    def good(self, result):
        self.assertEqual((0, ""), (result.returncode, result.stderr), result.stdout)
        return result.stdout

    def files(self):
        paths = (self.head.ssh, self.head.file("etc"), self.home)
        return [{name: read(os.path.join(path, name)) for name in tree(path)
                 if os.path.isfile(os.path.join(path, name))} for path in paths]

    def test_a_node_is_set_up_and_served(self):
        before = self.files()
        out = self.good(self.add("--dry-run", "--identity", self.identity))
        self.assertEqual(4, out.count("would add"), out)
        self.assertEqual(before, self.files())
        write(os.path.join(self.head.ssh, "config"), "ServerAliveInterval 77\n")
        out = self.good(self.add("--identity", self.identity))
        self.assertEqual(5, out.count("added"), out)
        self.assertIn("restrict,command=", read(self.authorized).decode())
        self.assertIn("serveraliveinterval 77", self.head.tool("ssh", "-G", "other"))
        self.assertEqual(0o600, os.stat(self.head.key).st_mode & 0o777)
        server = self.serve([self.node])
        out = self.good(self.run_node("check", self.node.option))
        self.assertRegex(out, "node1: reachable, host key right, version [0-9.]+ as here\nnode1: served now\n")
        self.assertEqual(0, server.end())
        # The test waits, because the server does not wait for the end of its ssh process.
        wait_for(lambda: "node1: not served now" in self.good(self.run_node("check", self.node.option)),
                 "the end of the connection to the node")
        before = self.files()
        out = self.good(self.add())
        self.assertNotIn("added", out)
        self.assertEqual(before, self.files())

    def test_the_settings_of_the_ssh_server_are_added(self):
        out = self.good(self.add("--identity", self.identity))
        self.assertIn("added the settings of the ssh server on the node: /etc/ssh/sshd_config.d/quarn2_cp.conf\n", out)
        self.assertEqual(read(self.node.file("share/quarn2_cp/sshd_config")), read(self.sshd_settings))
        wait_for(lambda: "Received SIGHUP; restarting." in self.node.text(self.node.sshd_log), "the reload of sshd")
        wait_for(lambda: self.node.text(self.node.sshd_log).count("Server listening on") >= 2, "the new sshd")
        out = self.good(self.add("--identity", self.identity))
        self.assertIn("unchanged: the settings of the ssh server on the node\n", out)

    def test_settings_that_an_administrator_chose_are_kept(self):
        # The first value of a setting counts, so the added file could not change it.
        self.node.kill_sshd()
        self.start("ClientAliveInterval 600")
        out = self.good(self.add("--identity", self.identity))
        self.assertIn("warning: the ssh server on the node does not end dead sessions within a minute.", out)
        self.assertFalse(os.path.exists(self.sshd_settings))
        self.assertNotIn("SIGHUP", self.node.text(self.node.sshd_log))
        write(self.sshd_settings, "# empty\n")
        self.assertIn("warning: the ssh server", self.good(self.add("--identity", self.identity)))
        self.assertEqual(b"# empty\n", read(self.sshd_settings))

    def test_the_host_key_must_be_confirmed(self):
        before = self.files()
        result = self.run_node("add", self.node.option)
        self.assert_refused(result, "without a terminal give --host-key FINGERPRINT")
        self.assertIn(self.fingerprint(), result.stdout)
        self.assert_refused(self.run_node("add", "--host-key", "SHA256:wrong", self.node.option),
                            "no host key of the node has the fingerprint SHA256:wrong")
        # The program has created only the key of this machine.
        self.assertEqual((before[0], before[2]), (self.files()[0], self.files()[2]))

    def test_a_changed_host_key_is_refused(self):
        self.good(self.add("--identity", self.identity))
        self.node.kill_sshd()
        for name in ("etc/host_key", "etc/host_key.pub"):
            os.remove(self.node.file(name))
        tool("ssh-keygen", "-q", "-N", "", "-t", "ed25519", "-f", self.node.file("etc/host_key"))
        os.remove(self.node.file("etc/sshd.log"))
        self.start()
        before = self.files()
        self.assert_refused(self.add("--identity", self.identity), "differs from the one in")
        self.assert_refused(self.run_node("check", self.node.option), "its host key is not the one in")
        self.assertEqual(before, self.files())

    def test_without_a_login_the_line_is_added_by_hand_and_add_is_run_again(self):
        result = self.add()
        self.assert_refused(result, "add this line to its ~root/.ssh/authorized_keys and run this again: restrict,")
        line = result.stderr.partition("run this again: ")[2]
        with open(self.authorized, "a", encoding="ascii") as file:
            file.write(line)
        out = self.good(self.add())
        self.assertIn("the node accepts the key", out)
        self.assertNotIn("added", out)

    def test_a_node_without_the_program_and_a_node_that_is_away(self):
        os.rename(self.node.binary, self.node.binary + ".away")
        self.assert_refused(self.add("--identity", self.identity), "the node has no program /usr/local/kro5/sbin/quarn2_cp")
        os.rename(self.node.binary + ".away", self.node.binary)
        self.good(self.add("--identity", self.identity))
        program = read(self.node.binary)
        write(self.node.binary, '#!/bin/sh\n[ "$1" != --version ] || exec echo quarn2_cp 0.0.1\n'
                                f"exec {self.node.binary}.away \"$@\"\n")
        with open(self.node.binary + ".away", "wb") as file:
            file.write(program)
        os.chmod(self.node.binary + ".away", 0o755)
        self.assert_refused(self.add(), "it has version 0.0.1, this machine ")
        self.assert_refused(self.run_node("check", self.node.option), "it has version 0.0.1, this machine ")
        self.node.kill_sshd()
        self.assert_refused(self.run_node("check", self.node.option), "does not answer at")

    def test_names_that_cannot_be_used(self):
        for name in ("-oProxyCommand=touch EVIL", "a b", "name:host", "name:host:0", "name:host:99999", "x;touch EVIL", ""):
            with self.subTest(name=name):
                result = self.run_node("check", "--", name)
                self.assertEqual(2, result.returncode, result.stdout)
                self.assertIn("cannot be used", result.stderr)


class NewNode(Node):
    """A node that is not set up: the machine of the server does not know its host key, and the node does not accept
    the server's key."""

    def make_keys(self):
        os.makedirs(self.file("etc"), exist_ok=True)
        tool("ssh-keygen", "-q", "-N", "", "-t", "ed25519", "-f", self.file("etc/host_key"))


if __name__ == "__main__":
    unittest.main()
