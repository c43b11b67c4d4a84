"""Measures the cost of a single command: time, processor time and peak memory."""

import contextlib
import dataclasses
import os
import shlex
import signal
import statistics
import subprocess


class Failed(Exception):
    """Raised when a tool has failed, because its figures would be meaningless."""


@dataclasses.dataclass
class Command:
    """A program with its arguments, or a shell command line of several programs."""

    arguments: list
    environment: dict = dataclasses.field(default_factory=dict)

    def then_sync(self, path, whole_file_system=False):
        """Adds a sync to a peer's download, because our downloads are durable when they end."""
        text = f"{shlex.join(self.arguments)} && sync {'-f ' if whole_file_system else ''}"
        return shell(text + shlex.quote(path), self.environment)


def shell(text, environment=None):
    return Command(["bash", "-o", "pipefail", "-c", text], environment or {})


@dataclasses.dataclass
class Cost:
    wall: float  # seconds
    processor: float  # seconds, user and system, all processes of the client
    memory: float  # MiB, of the largest process


def median(costs):
    return Cost(*(statistics.median(getattr(cost, field.name) for cost in costs)
                  for field in dataclasses.fields(Cost)))


def clean_environment():
    """The environment without settings of this program, of certificate authorities, accounts and proxies."""
    heads = ("AWS_", "RCLONE_", "SSL_CERT", "CURL_", "REQUESTS_", "QUARN2_", "KRO_", "BACKUP_")
    return {name: value for name, value in os.environ.items()
            if not name.startswith(heads) and not name.lower().endswith("_proxy")}


def end_group(process):
    """Kills a process that leads its own process group, and its children."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


def run(arguments, environment=None, **options):
    """Runs a helper program without measuring it and returns its output. Raises Failed when it fails."""
    result = subprocess.run(arguments, env={**clean_environment(), **(environment or {})},
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, check=False, text=True, **options)
    if result.returncode != 0:
        raise Failed(f"{shlex.join(arguments)}: {result.stderr.strip()} {result.stdout.strip()}")
    return result.stdout


class Meter:
    """Runs commands and returns their cost. `prefix` is a command that runs its arguments in another network
    namespace."""

    def __init__(self, program, place, prefix=()):
        self.program = program
        self.result = os.path.join(place, "cost")
        self.output = os.path.join(place, "output")
        self.prefix = list(prefix)

    def measure(self, command):
        # Writes the data of the previous command now, so that it does not slow this one.
        os.sync()
        with open(self.output, "w+", encoding="utf-8", errors="replace") as output:
            process = subprocess.Popen(
                [*self.prefix, self.program, self.result, *command.arguments],
                env={**clean_environment(), **command.environment}, stdin=subprocess.DEVNULL,
                stdout=output, stderr=output, start_new_session=True)
            try:
                status = process.wait()
            except BaseException:
                end_group(process)
                raise
            if status != 0:
                output.seek(0)
                said = output.read()[-2000:]
                raise Failed(f"{shlex.join(command.arguments)[:500]}: status {status}: {said}")
        with open(self.result, encoding="ascii") as result:
            wall, processor, kilobytes = result.read().split()
        return Cost(float(wall), float(processor), int(kilobytes) / 1024)


def spent(pid):
    """The processor seconds of a running process and of its ended children."""
    with open(f"/proc/{pid}/stat", encoding="utf-8") as stat:
        words = stat.read().rpartition(")")[2].split()
    return sum(int(word) for word in words[11:15]) / os.sysconf("SC_CLK_TCK")


def peak(pid):
    """The peak memory of a running process in MiB."""
    with open(f"/proc/{pid}/status", encoding="utf-8") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM")) / 1024


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(child) for child in file.read().split()]
