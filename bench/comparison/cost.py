"""What a command costs its machine, measured around the command and nothing else."""

import contextlib
import dataclasses
import os
import shlex
import signal
import statistics
import subprocess


class Failed(Exception):
    """A tool that did not do its work: the figures would be worth nothing."""


@dataclasses.dataclass
class Command:
    """A program with its arguments, or several in a line of the shell."""

    arguments: list
    environment: dict = dataclasses.field(default_factory=dict)

    def then_sync(self, path, whole_file_system=False):
        """A download of ours is durable when it ends, so others' have to be."""
        text = f"{shlex.join(self.arguments)} && sync {'-f ' if whole_file_system else ''}"
        return shell(text + shlex.quote(path), self.environment)


def shell(text, environment=None):
    return Command(["bash", "-o", "pipefail", "-c", text], environment or {})


@dataclasses.dataclass
class Cost:
    wall: float  # seconds
    processor: float  # seconds, user and system, all processes of the client
    memory: float  # MiB, the largest of them


def median(costs):
    return Cost(*(statistics.median(getattr(cost, field.name) for cost in costs)
                  for field in dataclasses.fields(Cost)))


def clean_environment():
    """Settings of the machine that point to other authorities, accounts or proxies stay out."""
    heads = ("AWS_", "RCLONE_", "SSL_CERT", "CURL_", "REQUESTS_", "QUARN2_", "KRO_", "BACKUP_")
    return {name: value for name, value in os.environ.items()
            if not name.startswith(heads) and not name.lower().endswith("_proxy")}


def end_group(process):
    """Ends a process that was started with a group of its own, and its children."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


def run(arguments, environment=None, **options):
    """Runs a helper to its end; what it wrote. Never measured."""
    result = subprocess.run(arguments, env={**clean_environment(), **(environment or {})},
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, check=False, text=True, **options)
    if result.returncode != 0:
        raise Failed(f"{shlex.join(arguments)}: {result.stderr.strip()} {result.stdout.strip()}")
    return result.stdout


class Meter:
    """Runs commands, where `prefix` says (another network), and tells their cost."""

    def __init__(self, program, place, prefix=()):
        self.program = program
        self.result = os.path.join(place, "cost")
        self.output = os.path.join(place, "output")
        self.prefix = list(prefix)

    def measure(self, command):
        # What ran before must not have its data written in this command's time.
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
    """Processor seconds of a running process, with those of its ended children."""
    with open(f"/proc/{pid}/stat", encoding="utf-8") as stat:
        words = stat.read().rpartition(")")[2].split()
    return sum(int(word) for word in words[11:15]) / os.sysconf("SC_CLK_TCK")


def peak(pid):
    """The most memory that a running process ever held, in MiB."""
    with open(f"/proc/{pid}/status", encoding="utf-8") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM")) / 1024


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(child) for child in file.read().split()]
