"""Measures the cost of several machines and prints the figures as JSON:  nodes.py BINARY

The machines are those of the system tests. Where the remote end of a session does not matter, a script
replaces ssh.
"""

import contextlib
import json
import os
import statistics
import sys
import tempfile
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(TOP, "tests/system"))
sys.dont_write_bytecode = True
os.environ["QUARN2_CP_BINARY"] = sys.argv[1]

from install_root import Root  # noqa: E402
from local_files import write, write_executable  # noqa: E402
from machines import Head, Node  # noqa: E402
from processes import adopt_orphans, children  # noqa: E402
from server_command import Server  # noqa: E402
from waiting import wait_for  # noqa: E402

DELAY = 10  # milliseconds one way
SHORT = bool(os.environ.get("BENCH_SHORT"))
PUTS = 5 if SHORT else 100
SESSIONS = 5 if SHORT else 50
SECONDS = 3 if SHORT else 20

# Sends a reservation each second and ignores the answers, until the server closes its end. cat runs in the
# foreground, because a shell redirects the input of a background command from /dev/null.
SSH = """#!/bin/sh
while sleep 1; do echo 'RESERVE 1000'; done &
cat >/dev/null
kill $!
"""


class Site:
    """Stands in for a test case: provides a directory, and runs the clean-up functions of the machines."""

    def __init__(self, stack):
        self.folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="quarn2-cp-bench-"))
        self.addCleanup = stack.callback


def put_times(machine):
    """The seconds of each --put of a small slice, from process start to exit."""
    path = write(os.path.join(machine.work, "F2026-03-01.web1.1.dar"), os.urandom(1024))
    times = []
    for number in range(PUTS + 10):
        # Waits for the end of the upload. Without this pause, the next --put of the backup would wait for the upload.
        time.sleep(0.05)
        begin = time.perf_counter()
        result = machine.run("--put", "--no-delete", path)
        times.append(time.perf_counter() - begin)
        if result.returncode != 0:
            raise AssertionError(result.stderr)
        if number < 10:
            times.clear()
    return times


def round_trip(node):
    """Measures the round trip time of the network link in seconds: the time until a connection is refused."""
    script = """
import socket, time
begin = time.perf_counter()
refused = socket.socket().connect_ex(("10.77.1.1", 9))
print(time.perf_counter() - begin if refused else "somebody listens there")"""
    return min(float(node.tool(sys.executable, "-c", script)) for _ in range(20))


def measure_round_trips(site):
    head = Head(site)
    head.log_level = None
    node = Node(site, head, 1, lossy=True)
    node.start_sshd()
    node.cable.order(f"delay {DELAY}")
    server = Server(head, "--count-limit", "0:1000", "--ssh-key", head.key, "--node",
                    node.option).wait_ready()
    node.served()
    local, remote, trip = put_times(head), put_times(node), round_trip(node)
    server.end()
    more = statistics.median(remote) - statistics.median(local)
    return {"local_ms": statistics.median(local) * 1000,
            "node_ms": statistics.median(remote) * 1000,
            "round_trip_ms": trip * 1000, "round_trips_more": more / trip}


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        words = stat.read().rpartition(")")[2].split()
    return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


def memory(pid):
    """The private memory of the process in KiB."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        return sum(int(line.split()[1]) for line in rollup if line.startswith("Private_"))


def served_server(root, count):
    """Starts a server with `count` sessions besides its own and waits until each has had its first answer."""
    write_executable(root.file("bin/ssh"), SSH)
    nodes = [word for number in range(count) for word in ("--node", f"node{number}")]
    path = root.file("bin") + ":" + os.environ["PATH"]
    server = Server(root, "--count-limit", "0:1000", *nodes, env={"PATH": path}).wait_ready()
    wait_for(lambda: len(children(server.daemon)) == count + 1, "all sessions")
    time.sleep(3)
    return server


def measure_sessions(site):
    alone = served_server(Root(site), 0)
    empty = memory(alone.daemon)
    alone.end()
    server = served_server(Root(site), SESSIONS)
    used, begin = processor_seconds(server.daemon), time.monotonic()
    time.sleep(SECONDS)
    load = (processor_seconds(server.daemon) - used) / (time.monotonic() - begin)
    full = memory(server.daemon)
    server.end()
    return {"sessions": SESSIONS, "percent_of_a_core": load * 100,
            "kib_per_session": (full - empty) / SESSIONS}


def main():
    adopt_orphans()
    figures = {}
    for measure in (measure_round_trips, measure_sessions):
        with contextlib.ExitStack() as stack:
            figures |= measure(Site(stack))
    print(json.dumps(figures))


if __name__ == "__main__":
    main()
