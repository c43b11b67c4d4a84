"""quarn2-node: sets up the connection to another machine, and checks the connections."""

import argparse
import os
import subprocess
import sys
import time

from . import settings as settings_module
from .node import CLIENT, CLIENT_ANSWER, Machine, Node, authorize_script, authorized_line, run
from .site import CONFIGURATION, Problem, Site, clean_environment, complain, say

PROGRAM = "quarn2-node"
DONE, FAILED, USAGE = 0, 1, 2
_ATTEMPTS, _PAUSE_SECONDS = 10, 0.5


def options():
    parser = argparse.ArgumentParser(
        prog=PROGRAM, usage="%(prog)s [options] add NODE\n       %(prog)s [options] check [NODE ...]",
        description="Sets up the connection of the size control server to another machine, and checks it.",
        epilog="NODE is a host name or address, or NAME:DESTINATION:PORT. add can be run again after an error. "
               "Exit status: 0 the node can be used, 1 it cannot, 2 the command line is invalid.")
    parser.add_argument("command", metavar="add|check", choices=("add", "check"))
    parser.add_argument("nodes", metavar="NODE", nargs="*")
    parser.add_argument("--config", metavar="FILE", default=CONFIGURATION,
                        help="configuration with the nodes for the command check (default: %(default)s)")
    parser.add_argument("--host-key", metavar="FINGERPRINT",
                        help="fingerprint of the node's host key, SHA256:..., instead of a confirmation by hand")
    parser.add_argument("--identity", metavar="FILE", help="the private key of your own login as root on the node")
    parser.add_argument("--from", metavar="ADDRESS", dest="address",
                        help="address of the server's machine; the node accepts the key only from this address")
    parser.add_argument("--dry-run", action="store_true", help="print what add would change, and change nothing")
    return parser


def parse(arguments):
    parser = options()
    given = parser.parse_intermixed_args(arguments)
    if given.command == "add" and len(given.nodes) != 1:
        parser.error("add needs one NODE")
    if given.address and not all(letter.isalnum() or letter in ".:/," for letter in given.address):
        parser.error(f"--from {given.address!r} cannot be used: expected an address")
    return given


class Addition:
    """The steps of one `add`. Each step adds only missing keys and settings, and prints the change."""

    def __init__(self, site, machine, given):
        self.site, self.machine, self.node, self.given = site, machine, machine.node, given
        self.is_interactive = sys.stdin.isatty()

    def run(self):
        self.key()
        self.host_key()
        self.step(not self.machine.has_settings(), f"ssh settings for {self.node.destination} in {self.machine.config}",
                  self.machine.add_settings)
        if self.given.dry_run and not os.path.exists(self.machine.key):
            say("would add the key to authorized_keys of the node")
            return
        # With --identity, the script on the node also checks the settings of its ssh server.
        if self.works() and not self.given.identity:
            say("the node accepts the key")
        else:
            self.authorize()
        self.result()

    def step(self, is_needed, text, action):
        if not is_needed:
            say(f"unchanged: {text}")
        elif self.given.dry_run:
            say(f"would add {text}")
        else:
            action()
            say(f"added {text}")

    def key(self):
        self.step(not os.path.exists(self.machine.key), f"the key {self.machine.key}", self.machine.make_key)

    def host_key(self):
        offered, known = self.machine.offered_keys(), self.machine.known_keys()
        if known:
            if not known & set(offered.values()):
                raise Problem(f"the host key of {self.node.known_as} differs from the one in {self.machine.known_hosts}. "
                              "If the machine was installed again, compare the fingerprint on the machine itself, and "
                              f"remove the old key: ssh-keygen -R '{self.node.known_as}'")
            say(f"unchanged: the host key in {self.machine.known_hosts}")
            return
        for text, (kind, _) in sorted(offered.items()):
            say(f"host key of {self.node.destination}: {text} ({kind})")
        chosen = self.chosen(offered)
        self.step(True, f"the host key to {self.machine.known_hosts}", lambda: self.machine.add_known(chosen))

    def chosen(self, offered):
        """Returns the (kind, key) that the administrator has confirmed."""
        if self.given.host_key:
            if self.given.host_key not in offered:
                raise Problem(f"no host key of the node has the fingerprint {self.given.host_key}; nothing was sent to "
                              "it. Compare on the node: ssh-keygen -l -f /etc/ssh/ssh_host_ed25519_key.pub")
            return [offered[self.given.host_key]]
        if self.given.dry_run:
            return []
        if not self.is_interactive:
            raise Problem("without a terminal give --host-key FINGERPRINT; on the node print it with: "
                          "ssh-keygen -l -f /etc/ssh/ssh_host_ed25519_key.pub")
        print("Compare with the output of ssh-keygen -l -f /etc/ssh/ssh_host_ed25519_key.pub on the node.", flush=True)
        if input("Are these the keys of the node (yes/no)? ").strip() != "yes":
            raise Problem("the host key was not confirmed")
        return sorted(offered.values())

    def works(self):
        return self.is_client() or self.version() is not None

    def is_client(self):
        return CLIENT_ANSWER in self.machine.ask("true")[2]

    def version(self):
        return version_of(self.machine)

    def answers(self):
        """Returns True when the node client answers. An sshd that reads its settings again refuses connections."""
        for _ in range(_ATTEMPTS):
            if self.is_client():
                return True
            time.sleep(_PAUSE_SECONDS)
        return self.is_client()

    def authorize(self):
        line = authorized_line(*self.machine.public_key(), self.given.address)
        if self.given.dry_run:
            say(f"would add this line to authorized_keys of root on the node: {line}")
            say("would check the settings of the ssh server on the node")
            return
        # The script is on the standard input; ssh asks for a password at the terminal.
        command = self.machine.login(self.given.identity, self.is_interactive)
        result = subprocess.run(command, input=authorize_script(line, self.machine.public_key()[1]), text=True,
                                stdout=subprocess.PIPE, check=False, env=clean_environment())
        words = result.stdout.split()
        if "missing" in words:
            raise Problem(f"the node has no program {CLIENT.split()[0]}; install the same package there, then run this "
                          "again")
        if "other" in words:
            raise Problem("authorized_keys of the node has the key with other options; remove that line, then run this "
                          "again")
        if result.returncode != 0:
            raise Problem("no login as root on the node. Give --identity FILE, or add this line to its "
                          f"~root/.ssh/authorized_keys and run this again: {line}")
        say("added the key to authorized_keys of root on the node" if "added" in words
            else "unchanged: the key in authorized_keys of root on the node")
        say_sshd(words)

    def result(self):
        if self.given.dry_run:
            return
        if not self.answers():
            raise Problem("the node client did not answer: " + reason_of(self.machine))
        errors = errors_of_program(self.site, self.machine)
        if errors:
            raise Problem("the node: " + "; ".join(errors))
        say(f"the node client answers; add {self.node.text} to the line nodes in {CONFIGURATION}")


def say_sshd(words):
    """Prints what the script on the node reported about the ssh server there."""
    if "sshd-added" in words:
        say("added the settings of the ssh server on the node: /etc/ssh/sshd_config.d/quarn2_cp.conf")
    elif "sshd-unchanged" in words:
        say("unchanged: the settings of the ssh server on the node")
    else:
        say("warning: the ssh server on the node does not end dead sessions within a minute. In its configuration, set "
            "ClientAliveInterval 10 and ClientAliveCountMax 3, and reload it")


def version_of(machine):
    """Returns the version of the program on the node, None when the node does not report it."""
    status, output, _ = machine.ask("quarn2_cp --version")
    words = output.split()
    return words[1] if status == 0 and words[:1] == ["quarn2_cp"] and len(words) == 2 else None


def reason_of(machine):
    _, _, errors = machine.ask("true")
    lines = [line for line in errors.splitlines() if line.strip()]
    return lines[-1] if lines else "it printed nothing"


# --- check ---

def check_node(site, machine):
    """Prints the state of a node. Returns True when it can be used."""
    node = machine.node
    errors = []
    try:
        offered = machine.offered_keys()
        if not machine.known_keys() & set(offered.values()):
            errors.append(f"its host key is not the one in {machine.known_hosts}")
    except Problem as error:
        errors.append(str(error))
    if not errors:
        errors += errors_of_program(site, machine)
    if not machine.has_settings():
        errors.append(f"no ssh settings in {machine.config}")
    say(f"{node.name}: " + ("reachable, host key right, " + state_of_program(site, machine) if not errors
                            else "FAILED: " + "; ".join(errors) + f"; run: {PROGRAM} add {node.text}"))
    say(f"{node.name}: " + ("served now" if session_of(machine) else "not served now"))
    return not errors


def own_version(site):
    words = run([site.program, "--version"])[1].split()
    return words[1] if len(words) == 2 else "unknown"


def errors_of_program(site, machine):
    version = version_of(machine)
    if version is None:
        return [] if CLIENT_ANSWER in machine.ask("true")[2] else [f"no node client: {reason_of(machine)}"]
    own = own_version(site)
    return [] if version == own else [f"it has version {version}, this machine {own}: install the same package on both"]


def state_of_program(site, machine):
    version = version_of(machine)
    if version is None:
        return "node client answers, its version is not known: its authorized_keys allows only the client"
    return f"version {version} as here" if version == own_version(site) else f"version {version}"


def session_of(machine):
    """Returns True when a server of this machine runs an ssh session with the node."""
    wanted = ["-p", machine.node.port, machine.node.destination, CLIENT]
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                with open(f"/proc/{name}/cmdline", "rb") as file:
                    words = file.read().decode(errors="replace").split("\0")
            except OSError:
                continue
            if words[0] == "ssh" and words[3:7] == wanted:
                return True
    return False


def nodes_of(given):
    """Returns the nodes of the command line, or of the configuration."""
    if given.nodes:
        return given.nodes
    nodes = settings_module.load(given.config).nodes
    if not nodes:
        raise Problem(f"{given.config} has no nodes; give them as arguments")
    return nodes


def main(arguments):
    given = parse(arguments)
    os.umask(0o077)
    site = Site()
    try:
        site.check()
        machines = [Machine(site, Node(text)) for text in nodes_of(given)]
    except (Problem, OSError) as error:
        for line in str(error).split("\n"):
            complain(PROGRAM, line)
        return USAGE
    try:
        if given.command == "check":
            return DONE if all([check_node(site, machine) for machine in machines]) else FAILED
        Addition(site, machines[0], given).run()
        return DONE
    except (Problem, OSError) as error:
        complain(PROGRAM, str(error))
        return FAILED
    except (KeyboardInterrupt, EOFError):
        complain(PROGRAM, "interrupted; run it again")
        return FAILED
