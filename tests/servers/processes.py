"""Processes that are ended by their own ids only, never by a name.

A pid file here holds "PID START": the start time tells a process from a later one of the same id.
"""

import os
import signal
import time


def _stat(pid):
    """(state, parent, start time, session) of a process; None when there is none."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as stat:
            words = stat.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return words[0], int(words[1]), words[19], int(words[3])


def identity(pid):
    """"PID START" of a running process, None of an ended one (a zombie is one)."""
    stat = _stat(pid)
    return None if stat is None or stat[0] in "ZX" else f"{pid} {stat[2]}"


def runs(process):
    return identity(process.split()[0]) == process


def tree(process):
    """The process and everything that descends from it, as identities.

    What it forked while it was killed has lost its parent, but not the session that each server has.
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
    """Ends a whole family at once, with what it forks meanwhile."""
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
    """Ends a server: the main process politely, then what is left of its family."""
    family = tree(process)
    send([process], signal.SIGTERM)
    send([process], signal.SIGCONT)  # a halted one could not end
    wait_end([process], seconds)
    send(family, signal.SIGTERM)
    wait_end(family, 2)
    send(family, signal.SIGKILL)
    wait_end(family, 5)
    kill(process)
