"""Blocks of consecutive ports for the servers.

The ports are below the range from which the kernel takes ports for outgoing connections, so that no
connection takes one by chance. Each is free on 127.0.0.1 for the server and on 127.0.0.2 for a relay in
front of it. A server reserves its block because it listens on the first port. Until then, a socket on
127.0.0.3 reserves the block.
"""

import contextlib
import random
import socket

BLOCK = 64
FIRST, LAST = 10240, 32768


def _bind(address, port):
    """A socket that is bound to the port; None when the port is in use."""
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
    """Yields the first port of a free block of BLOCK ports and reserves the block during the context."""
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
