"""Runs a program on a pseudo-terminal and answers its questions."""

import fcntl
import os
import pty
import select
import struct
import termios
import time

from processes import start, stat_of
from waiting import DEADLINE


class Terminal:
    """A program whose controlling terminal has this number of columns. `output` is its complete output."""

    def __init__(self, test, command, environment, columns=80):
        self.test, self.output, self._seen = test, "", 0
        self.master, slave = pty.openpty()
        test.addCleanup(os.close, self.master)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
        environment = {name: value for name, value in environment.items() if name not in ("COLUMNS", "LINES")}
        self.process = start(command, env=environment, stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
                             preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(slave)

    def _read(self, end):
        """Appends the next output to `output`. Returns False at the end of the output."""
        ready, _, _ = select.select([self.master], [], [], max(0, end - time.monotonic()))
        if not ready:
            self.process.terminate()
            self.process.wait(DEADLINE)
            self.test.fail(f"timeout; the terminal shows: {self.output}")
        try:
            data = os.read(self.master, 65536)
        except OSError:  # the program has closed the terminal
            return False
        self.output += data.decode(errors="replace").replace("\r\n", "\n")
        return bool(data)

    def expect(self, text):
        """Waits for this text after the last expected text. The program may break lines between its words."""
        words, end = " ".join(text.split()), time.monotonic() + DEADLINE
        while True:
            shown = self.output[self._seen:]
            found = " ".join(shown.split()).find(words)
            if found >= 0:
                self._skip(words, shown)
                return
            if not self._read(end):
                self.test.fail(f"no {text!r} on the terminal: {self.output}")

    def _skip(self, words, shown):
        """Lets the next search begin after the first occurrence of the words."""
        length = next(n for n in range(len(shown) + 1) if words in " ".join(shown[:n].split()))
        self._seen += length

    def answer(self, question, prompt, answer):
        self.expect(question)
        self.expect(prompt)
        self.type((answer if isinstance(answer, bytes) else answer.encode()) + b"\n")

    def type(self, data):
        os.write(self.master, data)

    def press_ctrl_c(self):
        """Waits until the program sleeps, and interrupts it. A signal just before a blocking call of the program takes
        effect only after that call."""
        asleep, end = 0, time.monotonic() + DEADLINE
        while asleep < 5:
            self.test.assertLess(time.monotonic(), end, "the program does not wait for input")
            asleep = asleep + 1 if stat_of(self.process.pid)[0] == "S" else 0
            time.sleep(0.02)
        self.type(b"\x03")

    def end(self):
        """Waits for the end of the program and returns its exit status."""
        end = time.monotonic() + DEADLINE
        while self._read(end):
            pass
        return self.process.wait(DEADLINE)
