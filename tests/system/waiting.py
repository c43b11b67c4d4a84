"""Waiting: every wait has a condition and a deadline. No function waits for a fixed time."""

import os
import select
import threading
import time

DEADLINE = float(os.environ.get("QUARN2_CP_DEADLINE", "180"))


def wait_for(condition, what, timeout=None, pause=0.002):
    """Calls `condition` until it returns a true value, and returns that value."""
    timeout = DEADLINE if timeout is None else timeout
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what() if callable(what) else what}")
        time.sleep(pause)
        pause = min(pause * 1.5, 0.05)


def read_available(fd, timeout):
    """Returns bytes of a pipe as soon as it has some, b"" at its end, None after the timeout."""
    ready, _, _ = select.select([fd], [], [], timeout)
    return os.read(fd, 65536) if ready else None


class Watch:
    """A context manager. Between entry and exit, a thread calls look() repeatedly."""

    pause = 0.02

    def __init__(self):
        self.over = threading.Event()
        self.thread = threading.Thread(target=self.run)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join()

    def run(self):
        while not self.over.is_set():
            self.look()
            self.over.wait(self.pause)
