"""The measured program, and its library with one storage object."""

import contextlib
import os
import shlex
import shutil
import subprocess
import time

from . import cost
from .cost import Command
from .peers import Peer

DATE, USER = "2026-03-01", "web1"
PASSWORD = "correct horse"
START_SECONDS = 60


def archive_name(number):
    return f"F{DATE}.{USER}.{number}.dar"


class Ours(Peer):
    def __init__(self, site, build, place):
        super().__init__(site)
        self.build = build
        self.place = place

    def environment(self, password=None):
        return {"BACKUP_TOKEN": self.site.token(password)}

    def rescan(self, names, folder):
        return None


class Library(Ours):
    """Runs the operations on many files of one storage object, as a rescan and an eviction do."""

    name = "library"

    def command(self, *arguments):
        return Command([os.path.join(self.build, "bench/bench_storage"), *arguments],
                       self.environment())

    def up_many(self, folder):
        return self.command("put", folder)

    def down_many(self, names, folder):
        return self.command("get", folder)

    def list(self):
        return self.command("list")

    def remove_each(self, names):
        return self.command("remove")

    def remove_all(self):
        return self.command("clear")


class OneByOne(Library):
    """Runs one operation after another on one storage object, like a node client."""

    name = "one by one"

    def up_many(self, folder):
        return None

    def down_many(self, names, folder):
        return self.command("get-each", folder)

    def list(self):
        return None

    def remove_each(self, names):
        return self.command("remove-each")

    def remove_all(self):
        return None


class Program(Ours):
    """Runs one process for a single file. For many files, runs a --put for each through a node client."""

    name = "quarn2_cp"

    def __init__(self, site, build, place, prefix):
        super().__init__(site, build, place)
        self.prefix = list(prefix)
        self.root = os.path.join(place, "root")
        self.program = os.path.join(self.root, "sbin/quarn2_cp")
        os.makedirs(os.path.dirname(self.program), exist_ok=True)
        shutil.copy2(os.path.join(build, "launcher/quarn2_cp"), self.program)

    def up(self, local, name, password=None):
        # Writes an info file beside the local file, because --update reads the name on the storage from it.
        with open(os.path.join(os.path.dirname(local), f"{DATE}.{USER}.info"), "w",
                  encoding="ascii") as info:
            info.write(f"last-slice={name}\ntype=full\ncreated={DATE} 01:00:00")
        return Command([self.program, "--update", local], self.environment(password))

    def down(self, name, local, password=None):
        return Command([self.program, "--get", f"{os.path.dirname(local)}//{name}"],
                       self.environment(password))

    def sealed_up(self, local, name):
        return self.up(local, name, PASSWORD)

    def sealed_down(self, name, local):
        return self.down(name, local, PASSWORD)

    def remove_all(self):
        return Command([self.program, "--clear"], self.environment())

    def rescan(self, names, folder):
        # Standard input is empty, so that the command ends immediately after the rescan.
        self.wait_for_end()
        return Command([self.program, "--server", "--rescan", "--path", folder, "--count-limit",
                        "0:100000"], self.rescan_environment())

    def rescan_environment(self):
        return self.environment()

    # --- Many files: slices of one backup ---

    def up_many(self, folder):
        names = sorted(os.listdir(folder))
        info = os.path.join(self.place, "info")
        put = f"{self.program} --put --no-delete --info-file {shlex.quote(info)}"
        with open(info, "w", encoding="ascii") as file:
            file.write(f"type=full\ncreated={time.strftime('%F %T')}")
        index = os.path.join(self.root, "var/backup/tovarn", self.added()[0])
        os.makedirs(os.path.dirname(index), exist_ok=True)
        with open(index, "w", encoding="ascii") as file:
            file.write("catalogue")
        middle = " ".join(names[:-1])
        return cost.shell(f"cd {shlex.quote(folder)} && for name in {middle}; do {put}"
                          f" --operation $PWD/$name || exit 1; done &&"
                          f" {put} --last_slice $PWD/{names[-1]} &&"
                          f" {put} --isolated {shlex.quote(index)}")

    def added(self):
        """The files that a backup has besides its slices."""
        return [f"{DATE}.{USER}.1.dar", f"{DATE}.{USER}.info"]

    @contextlib.contextmanager
    def session(self):
        """Runs a server and its node client. Yields a function that adds their cost to the cost of the commands."""
        server = subprocess.Popen(
            [*self.prefix, self.program, "--server", "--date", DATE, "--count-limit", "0:1000"],
            env={**cost.clean_environment(), **self.environment()}, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, start_new_session=True)
        pid_file = os.path.join(self.root, "var/quarn2_cp.pid")
        try:
            server.stdout.read()  # the server closes its standard output when it is ready
            with open(pid_file, encoding="ascii") as file:
                daemon = int(file.readline())
            both = [daemon, *cost.children(daemon)]
            before = sum(map(cost.spent, both))

            def add(commands):
                return cost.Cost(commands.wall,
                                 commands.processor + sum(map(cost.spent, both)) - before,
                                 max(commands.memory, *map(cost.peak, both)))
            yield add
        finally:
            server.stdin.close()
            server.stdout.close()
            server.wait(START_SECONDS)
            self.wait_for_end()

    def wait_for_end(self):
        """Waits until the server of an earlier command has ended."""
        pid_file = os.path.join(self.root, "var/quarn2_cp.pid")
        end = time.monotonic() + START_SECONDS
        while os.path.exists(pid_file) and time.monotonic() < end:
            time.sleep(0.05)


class OneRequest(Program):
    """The program with one request at a time."""

    name = "parallel=1"

    def rescan_environment(self):
        token = self.site.token()
        return {"BACKUP_TOKEN": token + ("&" if "?" in token else "?") + "parallel=1"}

    def up(self, local, name, password=None):
        return None

    down = sealed_up = sealed_down = up_many = remove_all = lambda self, *arguments: None
