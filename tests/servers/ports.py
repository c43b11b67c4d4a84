"""Ports for a server, in one run of neighbours.

They lie below the range from which the kernel takes ports for outgoing connections, so that nothing
takes one by chance. Each is free on 127.0.0.1 for the server and on 127.0.0.2 for a relay before it.
A server holds its block by listening on the first port; until it does, the block is held on
127.0.0.3.
"""

import contextlib
import random
import socket

BLOCK = 64
FIRST, LAST = 10240, 32768


def _bind(address, port):
    """A socket on the port, None when somebody else has it."""
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        listener.bind((address, port))
    except OSError:
        listener.close()
        return None
    return listener


def _is_free(address, port):
    listener = _bind(address, port)
    if listener:
        listener.close()
    return listener is not None


@contextlib.contextmanager
def reserved():
    """The first port of a block of BLOCK ports, nobody else's while the context lasts."""
    candidates = list(range(FIRST, LAST, BLOCK))
    random.shuffle(candidates)
    for base in candidates:
        holder = _bind("127.0.0.3", base)
        if not holder:
            continue
        with holder:
            if all(_is_free(address, port) for port in range(base, base + BLOCK)
                   for address in ("127.0.0.1", "127.0.0.2")):
                yield base
                return
    raise OSError(f"no {BLOCK} neighbouring ports are free between {FIRST} and {LAST}")
