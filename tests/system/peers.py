"""Simulated network peers on loopback: a port without a server, a silent server, a wrong server, a forwarder."""

import contextlib
import re
import socket
import threading


class Peer:
    """Listens on `address`. Forwards each connection to `to`, or sends it `greeting`, or stays silent."""

    def __init__(self, test, greeting=b"", to=None, address="127.0.0.1"):
        self.greeting = greeting
        self.to = to
        self.open = []
        self.requests = []  # the request lines of forwarded HTTP connections
        self.listener = socket.create_server((address, 0), backlog=100)
        self.host, self.port = self.listener.getsockname()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()
        test.addCleanup(self.close)

    def serve(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self.listener.accept()
                self.open.append(client)
                if self.to:
                    server = socket.create_connection(self.to)
                    self.open.append(server)
                    for pair in ((client, server, self.requests), (server, client, [])):
                        threading.Thread(target=self.carry, args=pair, daemon=True).start()
                elif self.greeting:
                    client.sendall(self.greeting)

    @staticmethod
    def carry(source, target, requests):
        with contextlib.suppress(OSError):
            while piece := source.recv(65536):
                requests += re.findall(rb"(?m)^(?:GET|HEAD|PUT|POST|DELETE) .* HTTP/1\.1\r$", piece)
                target.sendall(piece)
        for end in (source, target):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)

    def close(self):
        for each in (self.listener, *self.open):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        for each in (self.listener, *self.open):
            each.close()


def deserted_port(test):
    """Returns a port of 127.0.0.1 on which no process listens. The port stays bound until the test ends."""
    holder = socket.socket()
    test.addCleanup(holder.close)
    holder.bind(("127.0.0.1", 0))
    return holder.getsockname()[1]
