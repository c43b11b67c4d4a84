"""The program's log, and the warnings on its standard error."""

import re

LOG_LINE = re.compile(
    r"(?P<time>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) \[(?P<pid>\d+):(?P<tid>\d+)\] "
    r"(?P<program>\S+) (?P<module>\S+) (?P<level>\d): (?P<text>.*)")


class LogEntry:
    def __init__(self, line):
        match = LOG_LINE.fullmatch(line)
        if not match:
            raise AssertionError(f"not a log line: {line!r}")
        self.time = match["time"]
        self.pid = int(match["pid"])
        self.tid = int(match["tid"])
        self.program = match["program"]
        self.module = match["module"]
        self.level = int(match["level"])
        self.text = match["text"]

    def __repr__(self):
        return f"[{self.pid}] {self.level}: {self.text}"


def read_log(path):
    """Returns the entries of a log file, none when the file does not exist."""
    try:
        with open(path, encoding="utf-8", errors="backslashreplace") as log:
            lines = log.read().split("\n")
    except FileNotFoundError:
        return []
    # The last element is empty, or a line that the program has not completely written yet.
    return [LogEntry(line) for line in lines[:-1]]


def split_warnings(errors):
    """Returns standard error without the lines of warnings, and the texts of the warnings."""
    lines = errors.splitlines(keepends=True)
    begin = "quarn2_cp: warning: "
    return ("".join(line for line in lines if not line.startswith(begin)),
            [line[len(begin):].rstrip("\n") for line in lines if line.startswith(begin)])
