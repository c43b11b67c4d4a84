"""Selects the calls of the program into which the library of tests/support/fault_points.h injects faults."""

import errno
import mmap
import os
import struct

LIBRARY = os.path.abspath(os.environ.get("QUARN2_FAULT_POINTS", "build/tests/system/libfault_points.so"))

KINDS = ["open", "write", "allocate", "rename", "unlink", "mkdir", "link", "sync", "send", "connect",
         "lock", "fork", "attributes", "read", "receive", "descriptor"]
ROLES = ["command", "caller", "between", "daemon", "starter", "client"]
ACTIONS = ["none", "kill_before", "kill_after", "fail", "short", "torn"]

# The kinds for the crash tests: all except reading data, receiving data and creating descriptors.
CHANGES = tuple(KINDS[:13])

_HEAD = struct.Struct("=QQIIIiIII20x")
_COUNT = struct.Struct("=Q")
_ENTRIES = 4096
_ENTRY_SIZE = 160


def bits(names, table):
    return sum(1 << table.index(name) for name in names)


class Fault:
    """A fault in one call of the program: call `number` among the counted calls. If `number` is None, the calls are
    only counted."""

    def __init__(self, action="none", number=None, error=0, kinds=CHANGES, lasting=False):
        self.action = action
        self.number = number
        self.error = error
        self.kinds = kinds
        self.lasting = lasting

    def __str__(self):
        name = errno.errorcode.get(self.error, "")
        lasting = " from there on" if self.lasting else ""
        return f"{self.action} {name}".strip() + f" at point {self.number}{lasting}"


class FaultControl:
    """The file through which the test controls the fault library in the processes of one run."""

    def __init__(self, path):
        self.path = path
        size = _HEAD.size + _ENTRIES * _ENTRY_SIZE
        with open(path, "w+b") as file:
            file.truncate(size)
            self.memory = mmap.mmap(file.fileno(), size)
        self.write(Fault(), ())

    def close(self):
        self.memory.close()
        os.unlink(self.path)

    def environment(self):
        return {"LD_PRELOAD": LIBRARY, "QUARN2_FAULT_FILE": self.path}

    def write(self, fault, roles):
        """Starts to count the calls of processes with these roles. Injects the fault `fault`."""
        self.memory[:_HEAD.size] = _HEAD.pack(
            0, fault.number or 0, bits(fault.kinds, KINDS), bits(roles, ROLES),
            ACTIONS.index(fault.action), fault.error, fault.lasting, 0, True)

    def stop(self):
        """Stops counting calls. Keeps the counts."""
        self.memory[20:24] = bytes(4)

    @property
    def count(self):
        return _COUNT.unpack_from(self.memory, 0)[0]

    @property
    def injected(self):
        return _HEAD.unpack_from(self.memory, 0)[7]

    def point(self, number):
        """Returns "ROLE CALL PATH" of the counted call with this number, counted from 1."""
        begin = _HEAD.size + (number - 1) * _ENTRY_SIZE
        return self.memory[begin:begin + _ENTRY_SIZE].split(b"\0", 1)[0].decode(errors="replace")

    def points(self):
        return [self.point(number) for number in range(1, min(self.count, _ENTRIES) + 1)]
