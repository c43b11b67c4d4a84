"""Simulates several machines on one: each has a network and a mount namespace, and each node a real sshd.

A machine is an install root that is mounted at /usr/local/kro5 in its own namespaces. All machines share one
process id namespace, so that a test can inspect all processes. The namespaces have no names in the file system.
They disappear when their last processes end.
"""

import os
import shutil
import subprocess
import sys

from install_root import Root
from local_files import read, write
from processes import children, command_line, start, stat_of
from samples import DATE
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE, wait_for

HERE = os.path.dirname(os.path.abspath(__file__))
SHARE = os.path.join(HERE, "../../share")
SSHD = "/usr/sbin/sshd"
NSENTER = shutil.which("nsenter") or "nsenter"
NO_RIGHT = ("the tests with several machines need the right to make network and mount namespaces and"
            " /dev/net/tun: run them as root, in a container with CAP_SYS_ADMIN and CAP_NET_ADMIN. ")
# With these options ssh and sshd detect a dead peer after four seconds instead of forty.
QUICK = "ServerAliveInterval 1\nServerAliveCountMax 3\nConnectTimeout 3\n"
QUICK_SSHD = "ClientAliveInterval 1\nClientAliveCountMax 3\n"


class Helper:
    """A helper script of this folder that runs until its standard input closes."""

    def __init__(self, test, script, *arguments):
        self.process = start([sys.executable, "-B", os.path.join(HERE, script), *arguments],
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        test.addCleanup(self.end)
        self.said("ready")

    @property
    def pid(self):
        return self.process.pid

    def said(self, word):
        line = self.process.stdout.readline().strip()
        if line != word:
            raise AssertionError(NO_RIGHT + f"{self.process.args[2]} says: {line!r}")

    def order(self, line):
        self.process.stdin.write(line + "\n")
        self.said("done")

    def end(self):
        self.process.stdin.close()
        self.process.stdout.close()
        try:
            self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(DEADLINE)
            raise AssertionError(f"{self.process.args[2]} had to be killed") from None


def tool(*arguments):
    result = subprocess.run(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(arguments)}: {result.stdout}")
    return result.stdout


class Machine(Root):
    """An install root whose commands run in the machine's namespaces."""

    def __init__(self, test, name, home=None):
        super().__init__(test, name)
        self.name = name
        shutil.copytree(SHARE, self.file("share/quarn2_cp"))
        self.namespace = Helper(test, "namespace.py", self.path, *([home] if home else []))

    def inside(self, *arguments):
        return [NSENTER, "--target", str(self.namespace.pid), "--net", "--mount", "--",
                *arguments]

    def spawn(self, *arguments, env=None, cwd="/", wrapper=(), **pipes):
        return start(self.inside(*wrapper, self.binary, *arguments), cwd=cwd,
                     env=self.environment(**(env or {})), **pipes)

    def tool(self, *arguments):
        return tool(*self.inside(*arguments))


class Head(Machine):
    """The machine of the server. The ssh settings of root are those of docs/operations.md."""

    def __init__(self, test, ssh_options=QUICK):
        self.home = os.path.join(test.folder, "home")
        self.ssh = os.path.join(self.home, ".ssh")
        os.makedirs(self.ssh, mode=0o700)
        os.chmod(self.home, 0o700)
        super().__init__(test, "head", self.home)
        self.log_level = 8
        os.makedirs(self.file("etc/.ssh"))
        self.key = self.file("etc/.ssh/master_id")
        tool("ssh-keygen", "-q", "-N", "", "-t", "ed25519", "-f", self.key)
        write(os.path.join(self.ssh, "config"),
              "Host *\n" + ssh_options + "Include /usr/local/kro5/share/quarn2_cp/ssh_config\n")
        write(os.path.join(self.ssh, "known_hosts"), "")


class Node(Machine):
    """A machine with its own virtual cable to the head. With `lossy` the cable can have delay and loss."""

    def __init__(self, test, head, number, lossy=False, sshd_options=QUICK_SSHD, home=None):
        super().__init__(test, f"node{number}", home)
        self.head = head
        self.address = f"10.77.{number}.2"
        self.port = 2200 + number
        self.cable = None
        self.sshd = None
        self.sshd_options = sshd_options
        self.token = head.token
        self.connect(f"10.77.{number}.1", lossy)
        self.make_keys()

    @property
    def option(self):
        """The value for the option --node."""
        return f"{self.name}:{self.address}:{self.port}"

    def connect(self, gateway, lossy):
        ends = [str(self.head.namespace.pid), gateway, str(self.namespace.pid), self.address]
        if lossy:
            self.cable = Helper(self.test, "lossy_cable.py", *ends)
            return
        tool("ip", "link", "add", f"to-{self.name}", "netns", ends[0], "type", "veth",
             "peer", "name", "uplink", "netns", ends[2])
        self.head.tool("ip", "address", "add", gateway + "/24", "dev", f"to-{self.name}")
        self.head.tool("ip", "link", "set", f"to-{self.name}", "up")
        self.tool("ip", "link", "set", "uplink", "up")
        self.plug_in()

    def plug_in(self):
        self.tool("ip", "address", "add", self.address + "/24", "dev", "uplink")

    def pull_out(self):
        """Removes the address of the node, so that the node receives no packets, like a machine without network."""
        self.tool("ip", "address", "del", self.address + "/24", "dev", "uplink")

    def make_keys(self):
        os.makedirs(self.file("etc"), exist_ok=True)
        host_key = self.file("etc/host_key")
        tool("ssh-keygen", "-q", "-N", "", "-t", "ed25519", "-f", host_key)
        write(self.file("etc/authorized_keys"), "restrict " + self.text(self.head.key + ".pub"))
        kind_and_key = " ".join(self.text(host_key + ".pub").split()[:2])
        with open(os.path.join(self.head.ssh, "known_hosts"), "a", encoding="ascii") as known:
            known.write(f"[{self.address}]:{self.port} {kind_and_key}\n")

    @staticmethod
    def text(path):
        return read(path).decode()

    def start_sshd(self, options="", own=None, path=None):
        """`own` replaces the settings of docs/operations.md. `path` is the configuration file in the namespace."""
        os.makedirs("/run/sshd", exist_ok=True)  # sshd's privilege separation directory; its path is compiled in
        if own is None:
            own = f"{self.sshd_options}\nInclude {self.file('share/quarn2_cp/sshd_config')}\nPidFile none"
        config = write(self.file("etc/sshd_config"), f"""{options}{own}
ListenAddress {self.address}
Port {self.port}
HostKey {self.file('etc/host_key')}
AuthorizedKeysFile {self.file('etc/authorized_keys')}
StrictModes no
UsePAM no
UseDNS no
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
""")
        if path:
            self.tool("cp", config, path)
            config = path
        with open(self.file("etc/sshd.log"), "ab") as log:
            self.sshd = start(self.inside(SSHD, "-D", "-e", "-f", config),
                              stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.test.addCleanup(self.kill_sshd)
        self.sshd_log = self.file("etc/sshd.log")
        wait_for(lambda: f"Server listening on {self.address} port {self.port}" in
                 self.text(self.sshd_log), lambda: f"sshd: {self.text(self.sshd_log)}")
        return self

    def kill_sshd(self):
        """Kills the sshd and its sessions, as a crash would. The input of the node clients closes."""
        family = descendants(self.sshd.pid)
        for pid in [self.sshd.pid, *family]:
            if "sshd" in command_line(pid).split(" ")[0] and stat_of(pid):
                try:
                    os.kill(pid, 9)
                except ProcessLookupError:
                    pass
        self.sshd.wait(DEADLINE)

    def clients(self):
        """Returns the pids of the node clients on this machine."""
        program = "/usr/local/kro5/sbin/quarn2_cp --client"
        mine = os.stat(f"/proc/{self.namespace.pid}/ns/mnt").st_ino
        found = []
        for name in os.listdir("/proc"):
            if name.isdigit() and command_line(name) == program:
                try:
                    if os.stat(f"/proc/{name}/ns/mnt").st_ino == mine:
                        found.append(int(name))
                except (FileNotFoundError, ProcessLookupError):
                    pass
        return found

    def served(self, count=1, timeout=None):
        """Waits until the `count`th node client has read its opening frames. Returns its pid."""
        def entries():
            found = [entry for entry in self.log(5)
                     if entry.text.startswith("Client. Backup token = ")]
            return found[count - 1:]
        return wait_for(entries, lambda: f"client {count} of {self.name}; server's log: "
                        f"{self.head.log_texts(4)}; sshd: {self.text(self.sshd_log)}",
                        timeout)[0].pid


def descendants(pid):
    found = []
    for child in children(pid):
        found += [child, *descendants(child)]
    return found


class NodesTest(SystemTest):
    """A head and its nodes; `lossy` contains the numbers of the nodes whose cable can have delay and loss."""

    def setUp(self):
        super().setUp()
        missing = [name for name in ("ip", "nsenter", "ssh", "ssh-keygen", SSHD)
                   if shutil.which(name) is None]
        if missing:
            self.fail(f"{', '.join(missing)} not found: run 'scripts/install-deps servers' as root")
        if os.geteuid() != 0:
            self.fail(NO_RIGHT)
        self.head = None

    def make_head(self, **options):
        self.head = Head(self, **options)
        return self.head

    def make_nodes(self, count, lossy=(), **options):
        if self.head is None:
            self.make_head()
        nodes = [Node(self, self.head, number, number in lossy, **options)
                 for number in range(1, count + 1)]
        for node in nodes:
            node.start_sshd()
        return nodes

    def serve(self, nodes, *arguments, **options):
        """Starts a server and waits until every node has a session. Returns the server."""
        server = self.start_server(nodes, *arguments, **options)
        for node in nodes:
            node.served()
        return server

    def start_server(self, nodes, *arguments, env=None):
        options = [word for node in nodes for word in ("--node", node.option)]
        return Server(self.head, "--ssh-key", self.head.key, *options, *arguments,
                      env=env).wait_ready()

    def wait_ended(self, node, what, count=1, timeout=None):
        """Waits for the log line of an ended session and returns it."""
        head = f"Session with node '{node.option}' ended. "
        def found():
            lines = [text for text in self.head.log_texts(4) if text.startswith(head)]
            return lines[count - 1:]
        line = wait_for(found, lambda: f"{head} in {self.head.log_texts(4)}", timeout)[0]
        self.assertIn(what, line)
        return line


class Job:
    """A backup made on a machine, from its archive to its info file."""

    def __init__(self, machine, user, date, kind="full", slices=2, size=1000):
        self.machine = machine
        self.user, self.date, self.kind = user, date, kind
        self.stem = f"{date}.{user}"
        letter = "F" if kind == "full" else "I"
        folder = os.path.join(machine.work, self.stem)
        self.info = write(os.path.join(folder, "info"), f"type={kind}\ncreated={date} 01:00:00\n")
        self.content = {}
        self.slices = [self.make(folder, f"{letter}{self.stem}.{number}.dar", size)
                       for number in range(1, slices + 1)]
        self.index = self.make(machine.info_root, f"{self.stem}.1.dar", 100)

    def make(self, folder, name, size):
        self.content[name] = os.urandom(size)
        return write(os.path.join(folder, name), self.content[name])

    def put(self, path, *options, **more):
        return self.machine.run("--put", "--info-file", self.info, "--no-delete", *options, path,
                                **more)

    def put_slice(self, number, **more):
        last = ["--last_slice"] if number == len(self.slices) else ["--operation"]
        return self.put(self.slices[number - 1], *last, **more)

    def put_slices(self):
        for number in range(1, len(self.slices) + 1):
            self.machine.test.assert_success(self.put_slice(number))

    def put_last(self, **more):
        return self.put(self.index, "--isolated", **more)

    def run(self):
        self.put_slices()
        self.machine.test.assert_success(self.put_last())
        return self

    def stored_names(self):
        return sorted([*self.content, self.stem + ".info"])

    def check_stored(self, storage):
        """Checks that every file is on the storage with the content that was put."""
        for name, content in self.content.items():
            self.machine.test.assertEqual(content, read(os.path.join(storage, name)), name)
        self.machine.test.assertTrue(os.path.exists(os.path.join(storage, self.stem + ".info")))

    def is_stored(self, stored):
        return stored.issuperset(self.stored_names())

    def is_gone(self, stored):
        return stored.isdisjoint(self.stored_names())


class TroubleTest(NodesTest):
    """Helpers for tests in which one machine fails: they check the server and the other machines."""

    def account(self):
        """Returns the (free, reserved) bytes that the server logged at the last reservation."""
        line = [text for text in self.head.log_texts(8) if text.startswith("Reserve this")][-1]
        return tuple(int(line.partition(name)[2].split(",")[0])
                     for name in ("free_size = ", "incomplete_size = "))

    def put_elsewhere(self, machine, user):
        """Makes a complete backup on a machine that has not failed."""
        job = Job(machine, user, DATE).run()
        job.check_stored(self.head.storage)
        return job

    def finish(self, server):
        self.assertEqual(0, server.end())
        self.assertEqual([], self.head.log_texts(3))
