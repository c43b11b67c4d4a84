"""Another machine that the size control server serves over ssh: its address and keys, and the set-up of ssh for it."""

import ipaddress
import os
import pwd
import re
import shlex
import subprocess

from .replacement import replace
from .site import Problem, clean_environment

CLIENT = "/usr/local/kro5/sbin/quarn2_cp --client"
# The node client prints this text when no server is connected to its standard input.
CLIENT_ANSWER = "quarn2_cp: Failed to get answer size from server"
# The forced command of the key. It prints the version if quarn2-node requests that; otherwise it starts the node client
# for the server.
_FORCED = ("case $SSH_ORIGINAL_COMMAND in *--version) exec /usr/local/kro5/sbin/quarn2_cp --version ;; "
           f"*) exec {CLIENT} ;; esac")
_WORD = re.compile(r"[A-Za-z0-9_][A-Za-z0-9_.-]{0,252}")
_SECONDS = 60
# The options that share/ssh_config sets for the connections of the server, as ssh -G prints them.
_WANTED = {"batchmode": "yes", "stricthostkeychecking": ("true", "yes"), "serveraliveinterval": "10",
           "identitiesonly": "yes"}


class Node:
    """A node in the syntax of the option --node of quarn2_cp: HOST, ADDRESS or NAME:DESTINATION:PORT."""

    def __init__(self, text):
        name, first, rest = text.partition(":")
        destination, _, port = rest.rpartition(":") if first else (text, "", "22")
        destination = destination.strip("[]") if ":" in destination else destination
        if not _WORD.fullmatch(name) or not _is_host(destination) or not re.fullmatch("[1-9][0-9]{0,4}", port) \
                or int(port) > 65535:
            raise Problem(f"the node {text!r} cannot be used: expected a host name or address, or NAME:DESTINATION:PORT")
        self.text, self.name, self.destination, self.port = text, name, destination, port

    @property
    def known_as(self):
        """The name of the machine in known_hosts."""
        return self.destination if self.port == "22" else f"[{self.destination}]:{self.port}"


def _is_host(text):
    try:
        ipaddress.ip_address(text)
        return True
    except ValueError:
        return _WORD.fullmatch(text) is not None


def run(command, text=""):
    """Runs a command and returns (exit status, output, errors). Raises Problem when it takes too long."""
    try:
        result = subprocess.run(command, input=text, capture_output=True, text=True, errors="replace", check=False,
                                timeout=_SECONDS, env=clean_environment())
    except FileNotFoundError:
        raise Problem(f"there is no program {command[0]}; install the Debian package openssh-client") from None
    except subprocess.TimeoutExpired:
        raise Problem(f"{command[0]} did not end within {_SECONDS} s") from None
    return result.returncode, result.stdout, result.stderr


class Machine:
    """The ssh settings of this machine for one node."""

    def __init__(self, site, node):
        self.node = node
        self.key = os.path.join(site.root, "etc/.ssh/master_id")
        self.settings = os.path.join(site.root, "share/quarn2_cp/ssh_config")
        # The home directory comes from the user database and not from HOME, as in ssh.
        self.folder = os.path.join(pwd.getpwuid(os.geteuid()).pw_dir, ".ssh")
        self.known_hosts = os.path.join(self.folder, "known_hosts")
        self.config = os.path.join(self.folder, "config")

    def make_key(self):
        os.makedirs(os.path.dirname(self.key), 0o700, exist_ok=True)
        status, _, errors = run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "quarn2_cp", "-f", self.key])
        if status != 0:
            raise Problem(f"the key '{self.key}' could not be made: {errors.strip()}")

    def public_key(self):
        try:
            with open(self.key + ".pub", encoding="ascii") as file:
                words = file.read().split()
        except (OSError, UnicodeDecodeError) as error:
            raise Problem(f"the public key '{self.key}.pub' cannot be read: {error}; make it again with: "
                          f"ssh-keygen -y -f {self.key}") from None
        if len(words) < 2:
            raise Problem(f"the public key '{self.key}.pub' is damaged; make it again with: ssh-keygen -y -f {self.key}")
        return words[0], words[1]

    # -- The host key --

    def offered_keys(self):
        """Returns {fingerprint: (kind and key)} of the node."""
        _, output, errors = run(["ssh-keyscan", "-T", "10", "-p", self.node.port, "--", self.node.destination])
        found = {}
        for line in output.splitlines():
            words = line.split()
            if len(words) >= 3 and not line.startswith("#"):
                found[fingerprint(f"{words[1]} {words[2]}")] = (words[1], words[2])
        if not found:
            reason = "; ".join(line for line in errors.splitlines() if not line.startswith("#"))
            raise Problem(f"the node {self.node.name} does not answer at {self.node.destination}, port {self.node.port}"
                          + (f": {reason}" if reason else "") + "; start its ssh server, and look at its firewall")
        return found

    def known_keys(self):
        """Returns the set of (kind, key) that this machine knows for the node."""
        _, output, _ = run(["ssh-keygen", "-F", self.node.known_as, "-f", self.known_hosts])
        lines = [line.split() for line in output.splitlines() if not line.startswith("#")]
        return {(words[1], words[2]) for words in lines if len(words) >= 3 and not words[0].startswith("@")}

    def add_known(self, keys):
        text = read(self.known_hosts)
        if text and not text.endswith("\n"):
            text += "\n"
        replace(self.known_hosts, text + "".join(f"{self.node.known_as} {kind} {key}\n" for kind, key in keys))

    # -- The settings of the ssh client --

    def has_settings(self):
        status, output, _ = run(["ssh", "-G", "-p", self.node.port, "--", self.node.destination])
        found = dict(line.split(" ", 1) for line in output.splitlines() if " " in line)
        return status == 0 and all(found.get(name) in ((value,) if isinstance(value, str) else value)
                                   for name, value in _WANTED.items())

    def add_settings(self):
        # "Match all" ends the block, so that the first lines of the previous text apply to all hosts as before.
        block = (f"# For the size control server, by quarn2-node.\nHost {self.node.destination}\n"
                 f"    Include {self.settings}\nMatch all\n\n")
        before = read(self.config)
        replace(self.config, block + before)
        if not self.has_settings():
            replace(self.config, before)
            raise Problem(f"the settings in '{self.config}' do not apply to {self.node.destination}; the file is as it "
                          f"was. Look at {self.settings}, which must exist")

    # -- Connections --

    def ask(self, command):
        """Runs a command on the node as the server does. Returns (exit status, output, errors)."""
        return run(["ssh", "-i", self.key, "-p", self.node.port, "-o", "BatchMode=yes", "-o", "IdentitiesOnly=yes", "-o",
                    "StrictHostKeyChecking=yes", "-o", "ConnectTimeout=15", "--", self.node.destination, command])

    def login(self, identity, is_interactive):
        """Returns the words of an ssh command that uses the administrator's own login."""
        words = ["ssh", "-p", self.node.port, "-o", f"BatchMode={'no' if is_interactive else 'yes'}", "-o",
                 "NumberOfPasswordPrompts=3", "-o", "PreferredAuthentications=publickey,keyboard-interactive,password",
                 "-o", "StrictHostKeyChecking=yes", "-o", "ConnectTimeout=15"]
        words += ["-i", identity, "-o", "IdentitiesOnly=yes"] if identity else ["-o", "IdentitiesOnly=no"]
        return words + ["--", self.node.destination, "sh -s"]


def fingerprint(key):
    status, output, _ = run(["ssh-keygen", "-l", "-f", "-"], key + "\n")
    words = output.split()
    return words[1] if status == 0 and len(words) > 1 else "unknown"


def authorized_line(kind, key, address):
    """Returns the line for authorized_keys of the node."""
    limit = f'from="{address}",' if address else ""
    return f'restrict,{limit}command="{_FORCED}" {kind} {key} quarn2_cp'


# sshd reads the file again after SIGHUP. A node whose sshd runs only on demand has no pid file and needs no signal.
_SSHD_SCRIPT = """
sshd=$(command -v sshd || echo /usr/sbin/sshd)
target=/etc/ssh/sshd_config.d/quarn2_cp.conf
ends_dead_sessions() {
    "$sshd" -T 2>/dev/null | awk '$1 == "clientaliveinterval" { seconds = $2 }
        $1 == "clientalivecountmax" { count = $2 }
        END { exit !(seconds > 0 && count > 0 && seconds * count <= 60) }'
}
if ends_dead_sessions; then
    echo "sshd-unchanged"
elif test -e "$target" || ! cp /usr/local/kro5/share/quarn2_cp/sshd_config "$target"; then
    echo "sshd-other"
elif "$sshd" -t && ends_dead_sessions; then
    pid_file=$("$sshd" -T | sed -n 's/^pidfile //p')
    if test -s "$pid_file"; then kill -HUP "$(cat "$pid_file")"; fi
    echo "sshd-added"
else
    rm -f "$target"
    echo "sshd-other"
fi
"""


def authorize_script(line, key):
    """Returns the shell script that adds `line` to authorized_keys and changes the settings of sshd on the node. The
    script prints what it has changed."""
    return f"""set -e
umask 077
file=$HOME/.ssh/authorized_keys
line={shlex.quote(line)}
test -x /usr/local/kro5/sbin/quarn2_cp || echo "missing"
if test -f "$file" && grep -qxF -e "$line" "$file"; then
    :
elif test -f "$file" && grep -qF -e {shlex.quote(key)} "$file"; then
    echo "other"
    exit 0
else
    mkdir -p "$HOME/.ssh"
    if test -s "$file" && test -n "$(tail -c 1 "$file")"; then echo >>"$file"; fi
    printf '%s\\n' "$line" >>"$file"
    echo "added"
fi
{_SSHD_SCRIPT}"""


# --- Files ---

def read(path):
    """Returns the text of a file, "" when the file does not exist."""
    try:
        with open(path, encoding="utf-8", errors="surrogateescape") as file:
            return file.read()
    except FileNotFoundError:
        return ""
