"""Ends processes by their ids, never by a name.

A pid file contains "PID START". The start time distinguishes a process from a later one with the same id.
"""

import os
import signal
import time


def _stat(pid):
    """(state, parent, start time, session) of a process; None when it does not exist."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as stat:
            words = stat.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return words[0], int(words[1]), words[19], int(words[3])


def identity(pid):
    """"PID START" of a running process; None for an ended one, also if it is still a zombie."""
    stat = _stat(pid)
    return None if stat is None or stat[0] in "ZX" else f"{pid} {stat[2]}"


def runs(process):
    return identity(process.split()[0]) == process


def tree(process):
    """The identities of the process and of all its descendants.

    A child that was forked during a kill may have lost its parent. Its session still identifies it, because
    each server has a session of its own.
    """
    leader = int(process.split()[0])
    parents, orphans = {}, []
    for name in os.listdir("/proc"):
        if name.isdigit():
            stat = _stat(name)
            if stat:
                parents.setdefault(stat[1], []).append(int(name))
                if stat[3] == leader and int(name) != leader:
                    orphans.append(int(name))
    found, open_ends = [], [leader] if runs(process) else []
    while open_ends:
        pid = open_ends.pop()
        found.append(pid)
        open_ends += parents.get(pid, [])
    found += [pid for pid in orphans if pid not in found]
    return [each for each in map(identity, found) if each]


def kill(process, seconds=10):
    """Kills the process and all its descendants, including those that it forks meanwhile."""
    end = time.monotonic() + seconds
    while (family := tree(process)) and time.monotonic() < end:
        send(family, signal.SIGKILL)
        wait_end(family, seconds)


def send(processes, number):
    for process in processes:
        if runs(process):
            try:
                os.kill(int(process.split()[0]), number)
            except ProcessLookupError:
                pass


def wait_end(processes, seconds):
    """True when all have ended within the time."""
    end = time.monotonic() + seconds
    while any(runs(process) for process in processes):
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def stop(process, seconds=10):
    """Ends a server: the main process with SIGTERM, then its remaining descendants with SIGTERM and SIGKILL."""
    family = tree(process)
    send([process], signal.SIGTERM)
    send([process], signal.SIGCONT)  # a stopped process does not handle SIGTERM
    wait_end([process], seconds)
    send(family, signal.SIGTERM)
    wait_end(family, 2)
    send(family, signal.SIGKILL)
    wait_end(family, 5)
    kill(process)
