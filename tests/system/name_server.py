"""Runs a command in a network namespace whose only server is a name server of this script:

    unshare --net --mount python3 name_server.py silent|denying COMMAND...

The name server never answers (silent), or answers that the name does not exist (denying). The exit status is
that of the command.
"""

import fcntl
import os
import socket
import struct
import subprocess
import sys
import tempfile
import threading

ADDRESS = "127.0.0.1"
SIOCSIFFLAGS = 0x8914
IFF_UP_RUNNING = 0x41


def bring_loopback_up():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sh14x", b"lo", IFF_UP_RUNNING)
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, request)


def use_name_server():
    with tempfile.NamedTemporaryFile("w") as file:
        file.write(f"nameserver {ADDRESS}\n")
        file.flush()
        os.chmod(file.name, 0o644)
        subprocess.run(["mount", "--bind", file.name, "/etc/resolv.conf"], check=True)


def deny(server):
    while True:
        query, client = server.recvfrom(512)
        # The response repeats the question. Its code reports that the name does not exist, and it has no records.
        answer = query[:2] + b"\x81\x83\x00\x01" + bytes(6)
        end = query.index(b"\0", 12) + 5
        server.sendto(answer + query[12:end], client)


def main(manner, *command):
    bring_loopback_up()
    use_name_server()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind((ADDRESS, 53))
        if manner == "denying":
            threading.Thread(target=deny, args=(server,), daemon=True).start()
        return subprocess.run(command, check=False).returncode


if __name__ == "__main__":
    STATUS = main(*sys.argv[1:])
    sys.stdout.flush()
    os._exit(STATUS)  # os._exit does not wait for the thread that runs deny()
