"""A faulty program replaces the node client. Its session has limits, and the other sessions continue."""

import os
import signal
import socket
import sys
import unittest

from local_files import read, write, write_executable
from machines import Job, NodesTest
from samples import DATE
from waiting import wait_for

LIMIT = 1000000

SCRIPT = """#!{python} -IS
import os, struct, sys
def take(size):
    data = b""
    while len(data) < size:
        piece = os.read(0, size - len(data))
        if not piece:
            sys.exit(3)
        data += piece
    return data
def frame():
    return take(struct.unpack("<I", take(4))[0])
def say(data):
    while data:
        data = data[os.write(1, data):]
def ask(line):
    say(line + b"\\n")
    return frame().decode()
def note(text):
    with open("{notes}", "a") as notes:
        notes.write(text + "\\n")
frame(), frame()
{body}
"""


class FaultyClients(NodesTest):
    """A faulty script replaces the node client on one node."""

    def play(self, node, body):
        node.notes = node.file("notes")
        write(node.notes, "")
        os.rename(node.binary, node.binary + ".away")
        write_executable(node.binary, SCRIPT.format(python=sys.executable, notes=node.notes,
                                                    body=body))

    def notes(self, node):
        return read(node.notes).decode().splitlines()

    def reserved(self):
        """Returns the number of reserved bytes that the server logged at the last reservation."""
        lines = [text for text in self.head.log_texts(8) if text.startswith("Reserve this")]
        return int(lines[-1].rpartition("incomplete_size = ")[2].split(",")[0])

    @staticmethod
    def takes_connections(machine):
        with socket.socket(socket.AF_UNIX) as connection:
            try:
                connection.connect(machine.file("tmp/quarn2_cp.sock"))
                return True
            except OSError:
                return False

    def check_others(self, server, *machines):
        for number, machine in enumerate(machines):
            # Waits, because this node's client may start after the other node has failed.
            wait_for(lambda node=machine: self.takes_connections(node), "the node client's socket")
            Job(machine, f"other{number}", DATE).run().check_stored(self.head.storage)
        self.assertEqual(0, server.end())
        self.assertEqual([], self.head.log_texts(3))

    def test_a_line_of_100_mib_is_not_buffered(self):
        bad, good = self.make_nodes(2)
        self.play(bad, 'for _ in range(100): say(b"x" * (1 << 20))')
        server = self.start_server([bad, good], "--date", DATE)
        peak = self.peak(server)
        good.served()
        self.head.wait_log("Client sent a line of more than 65536 bytes. Close", level=4, count=2)
        self.wait_ended(bad, "Exit status: ")
        self.assertLess(self.peak(server) - peak, 16384)
        self.check_others(server, good, self.head)

    @staticmethod
    def peak(server):
        """Returns the maximum resident memory of the daemon so far, in KiB."""
        with open(f"/proc/{server.daemon}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))

    def test_invalid_lines_are_refused_and_do_not_change_the_account(self):
        bad, good = self.make_nodes(2)
        self.play(bad, """
say(b"PING\\n\\n\\0\\0\\n" + bytes(range(1, 256)).replace(b"\\n", b"") + b"\\n")
for line in (b"RESERVE -5", b"RELEASE -5", b"COMPLETE web1 2026-11-20 full -5",
             b"RESERVE 9223372036854775808", b"RESERVE \\0005", b"COMPLETE ../x 2026-11-20 full 5",
             b"COMPLETE a/b 2026-11-20 full 5", b"DROPONE -1"):
    note(ask(line))
note(ask(b"RESERVE 7"))
os.read(0, 1)
""")
        server = self.start_server([bad, good], "--date", DATE, "--size-limit", str(LIMIT))
        good.served()
        wait_for(lambda: len(self.notes(bad)) == 9, lambda: f"9 answers: {self.notes(bad)}")
        answers = self.notes(bad)
        self.assertEqual(["ERR '-5' is not a size"] * 3, answers[:3])
        for answer in answers[3:8]:
            self.assertRegex(answer, r"\AERR .+")
        self.assertEqual("OK 0", answers[8])
        self.assert_success(good.run("--put", write(good.file("work/a.tgz"), b"x" * 10)))
        self.assertEqual(7, self.reserved())
        self.check_others(server, good)

    def test_endless_output_on_standard_error_is_cut(self):
        bad, good = self.make_nodes(2)
        self.play(bad, """
for number in range(20000):
    os.write(2, b"\\x1b[2J line %d\\r\\n" % number)
os.write(2, b"the end")
sys.exit(9)
""")
        server = self.start_server([bad, good], "--date", DATE)
        line = self.wait_ended(bad, "Exit status: 9. Last output: ...")
        self.assertTrue(line.endswith(r"\x1b[2J line 19999; the end"), line[-100:])
        self.assertLess(len(line), 4096)
        self.check_others(server, good)

    def test_unread_answers_do_not_fill_the_memory(self):
        bad, good = self.make_nodes(2)
        self.head.log_level = None
        self.play(bad, 'while True: say(b"RESERVE x\\n" * 1000)')
        server = self.start_server([bad, good], "--date", DATE)
        self.head.wait_log("Client has not read more than 1048576 bytes of answers. Close", level=4)
        self.check_others(server, good)

    def test_a_client_that_closes_its_output_and_hangs_is_killed(self):
        bad, good = self.make_nodes(2)
        self.play(bad, """
note(str(os.getpid()))
os.close(1), os.close(2)
import time
time.sleep(1000)
""")
        server = self.start_server([bad, good], "--date", DATE)
        hanging = int(wait_for(lambda: self.notes(bad), "the bad client")[0])
        good.served()
        Job(good, "web1", DATE).run().check_stored(self.head.storage)
        self.wait_ended(bad, "Exit status: ")
        # The server ends only its own ssh process, not the process on the other machine.
        os.kill(hanging, signal.SIGKILL)
        os.rename(bad.binary + ".away", bad.binary)
        bad.served()
        self.check_others(server, self.head)


if __name__ == "__main__":
    unittest.main()
