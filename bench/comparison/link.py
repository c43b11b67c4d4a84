"""Two networks, one for the server and one for the clients, with a delayed link between them.

In both networks, the server has the address 127.0.0.1, because both ends of the link translate addresses.
Therefore the certificates, host keys and addresses in the server's replies are the same as without the link.
"""

import subprocess

from . import cost

CLIENT, SERVER = "10.77.0.2", "10.77.0.1"

CLIENT_RULES = f"""table ip link {{
  chain leave {{
    type nat hook output priority -100
    ip daddr 127.0.0.1 dnat to {SERVER}
  }}
  chain source {{
    type nat hook postrouting priority 100
    oifname "link0" masquerade
  }}
}}
"""

SERVER_RULES = """table ip link {
  chain arrive {
    type nat hook prerouting priority -100
    iifname "link0" dnat to 127.0.0.1
  }
}
"""


class Network:
    """A network namespace, which a sleeping process keeps alive."""

    def __init__(self):
        self.keeper = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo made; exec sleep infinity"],
                                       stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                       start_new_session=True)
        if self.keeper.stdout.readline() != b"made\n":
            raise cost.Failed("a network namespace cannot be made: root is needed")
        self.file = f"/proc/{self.keeper.pid}/ns/net"
        self.prefix = ["nsenter", "--net=" + self.file]

    def run(self, *arguments):
        cost.run([*self.prefix, *arguments])

    def connect(self, address, rules):
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "addr", "add", address + "/30", "dev", "link0")
        self.run("ip", "link", "set", "link0", "up", "txqueuelen", "10000")
        self.run("sysctl", "-qw", "net.ipv4.conf.link0.route_localnet=1")
        subprocess.run([*self.prefix, "nft", "-f", "-"], input=rules, text=True, check=True)

    def close(self):
        cost.end_group(self.keeper)
        self.keeper.stdout.close()


class Link:
    """A context manager with the networks `client` and `server` and the given round trip time between them."""

    def __init__(self, program, round_trip_milliseconds):
        self.program = program
        self.delay = round_trip_milliseconds / 2
        self.networks = []
        self.relay = None

    def __enter__(self):
        try:
            self.client, self.server = self.add_network(), self.add_network()
            self.relay = subprocess.Popen(
                [self.program, self.client.file, self.server.file, str(self.delay)],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
            if self.relay.stdout.readline() != b"ready\n":
                raise cost.Failed("the delayed link cannot be made: see above")
            self.client.connect(CLIENT, CLIENT_RULES)
            self.server.connect(SERVER, SERVER_RULES)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if self.relay:
            cost.end_group(self.relay)
            self.relay.stdin.close()
            self.relay.stdout.close()
        for network in self.networks:
            network.close()

    def add_network(self):
        self.networks.append(Network())
        return self.networks[-1]
