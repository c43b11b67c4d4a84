"""The kinds of work. In each round, all tools do the same work one after another on the same server."""

import contextlib
import os
import shutil

from . import cost
from .ours import Ours, archive_name

MIB = 1 << 20


class Sizes:
    def __init__(self, big, files, names, backups, rounds):
        self.big = big  # bytes of the large file
        self.files = files  # number of files of 64 KiB
        self.names = names
        self.backups = backups  # number of backups in a rescan
        self.rounds = rounds


def make_noise(path, size):
    """Writes a file of random data, which cannot be compressed."""
    with open(path, "wb") as file:
        while size > 0:
            size -= file.write(os.urandom(min(size, 8 * MIB)))


class Bench:
    """Runs the work of all tools. The table shows `where` after the title of each kind of work."""

    def __init__(self, site, tools, meter, place, sizes, table, where):
        self.site, self.tools, self.meter = site, tools, meter
        self.sizes, self.table, self.where = sizes, table, where
        self.place = place

    # --- Sources and targets ---

    def file(self, name):
        return os.path.join(self.place, name)

    def big_source(self):
        path = self.file(f"big-{self.sizes.big // MIB}/{archive_name(1)}")
        if not os.path.exists(path):
            os.makedirs(os.path.dirname(path))
            make_noise(path, self.sizes.big)
        return path

    def many_source(self):
        folder = self.file(f"many-{self.sizes.files}")
        if not os.path.exists(folder):
            os.makedirs(folder)
            for number in range(1, self.sizes.files + 1):
                make_noise(os.path.join(folder, archive_name(number)), 64 << 10)
        return folder

    @contextlib.contextmanager
    def target(self):
        """An empty local directory."""
        folder = self.file("target")
        os.mkdir(folder)
        try:
            yield folder
        finally:
            shutil.rmtree(folder)

    # --- Measuring ---

    def run(self, titles, steps, rounds):
        """`steps(tool)` yields (index of the title, Cost) for each step that the tool supports."""
        results = [{} for _ in titles]
        for _ in range(rounds):
            for tool in list(self.tools):
                key = tool.name, isinstance(tool, Ours)
                try:
                    for index, spent in steps(tool):
                        results[index].setdefault(key, []).append(spent)
                        self.tell(titles[index], tool, spent)
                except cost.Failed as trouble:
                    text = f"{self.site.scheme}{self.where}: {titles[0]}: {tool.name}: {trouble}"
                    print("  FAILED " + text, flush=True)
                    self.table.trouble.append(text)
                    for result in results:
                        result.pop(key, None)
        for title, result in zip(titles, results):
            self.table.add(f"{self.site.scheme}: {title}{self.where}", result)

    def tell(self, title, tool, spent):
        print(f"  {self.site.scheme + ': ' + title + self.where:<40} {tool.name:<11}"
              f" {spent.wall:8.2f} s {spent.processor:8.2f} s processor {spent.memory:7.1f} MiB",
              flush=True)

    def durable(self, tool, command, path, whole=False):
        return command if isinstance(tool, Ours) else command.then_sync(path, whole)

    # --- One large file ---

    def big(self):
        self.warm_up()
        self.run([f"{self.size()} up", f"{self.size()} down"], self.big_steps, self.sizes.rounds)

    def warm_up(self):
        """Uploads a file first, because a server that has just started would be slow for the first tool."""
        source = self.big_source()
        self.site.empty()
        peer = next(tool for tool in self.tools if not isinstance(tool, Ours))
        self.meter.measure(peer.up(source, os.path.basename(source)))
        self.site.empty()

    def sealed(self):
        self.warm_up()
        self.run([f"{self.size()} encrypted up", f"{self.size()} encrypted down"],
                 self.sealed_steps, self.sizes.rounds)

    def size(self):
        mib = self.sizes.big // MIB
        return f"{mib // 1024} GiB" if mib % 1024 == 0 else f"{mib} MiB"

    def big_steps(self, tool):
        source = self.big_source()
        self.site.empty()
        command = tool.up(source, os.path.basename(source))
        if command:
            yield 0, self.meter.measure(command)
            self.site.check_file(os.path.basename(source), source)
            yield from self.fetch(tool, tool.down, source)
        self.site.empty()

    def sealed_steps(self, tool):
        source = self.big_source()
        self.site.empty()
        command = tool.sealed_up(source, os.path.basename(source))
        if command:
            spent = self.meter.measure(command)
            # The stored file is encrypted and cannot be compared, so the download verifies the upload.
            fetched = list(self.fetch(tool, tool.sealed_down, source))
            yield 0, spent
            yield from fetched
        self.site.empty()

    def fetch(self, tool, down, source):
        with self.target() as folder:
            local = os.path.join(folder, os.path.basename(source))
            command = down(os.path.basename(source), local)
            spent = self.meter.measure(self.durable(tool, command, local))
            cost.run(["cmp", source, local])
            yield 1, spent

    # --- Many files ---

    def many(self):
        self.warm_up()
        text = f"{self.sizes.files} files of 64 KiB"
        self.run([text + " up", text + " down"], self.many_steps, self.sizes.rounds)

    def many_steps(self, tool):
        source = self.many_source()
        self.site.empty()
        command = tool.up_many(source)
        if command:
            yield 0, self.put_many(tool, command)
            self.site.check_folder(source)
            with self.target() as folder:
                command = tool.down_many(sorted(os.listdir(source)), folder)
                if command:
                    command = self.durable(tool, command, folder, whole=True)
                    spent = self.meter.measure(command)
                    cost.run(["diff", "-rq", source, folder])
                    yield 1, spent
        self.site.empty()

    def put_many(self, tool, command):
        if not hasattr(tool, "session"):
            return self.meter.measure(command)
        with tool.session() as add:
            spent = add(self.meter.measure(command))
        self.site.drop(tool.added())
        return spent

    # --- Many names ---

    def names(self):
        names = [f"entry-{number:06}" for number in range(self.sizes.names)]
        text = f"{len(names)} names "
        self.site.empty()
        self.site.fill(names)
        self.run([text + "listed"], lambda tool: self.list_steps(tool, len(names)), 1)
        self.run([text + "removed, each"],
                 lambda tool: self.remove_steps(tool.remove_each(names), names), 1)
        self.run([text + "removed, all"],
                 lambda tool: self.remove_steps(tool.remove_all(), names), 1)
        self.site.empty()

    def list_steps(self, tool, count):
        command = tool.list()
        if command:
            spent = self.meter.measure(command)
            with open(self.meter.output, encoding="utf-8") as output:
                text = output.read()
            told = text.strip() if isinstance(tool, Ours) else str(text.count("entry-"))
            if not count <= int(told) <= 2 * count:
                raise cost.Failed(f"listed {told} names of {count}")
            yield 0, spent

    def remove_steps(self, command, names):
        if command:
            if self.site.count() != len(names):
                self.site.empty()
                self.site.fill(names)
            yield 0, self.meter.measure(command)
            left = self.site.count()
            if left != 0:
                raise cost.Failed(f"{left} names are left")


    # --- A rescan ---

    def rescan(self):
        names = []
        for number in range(self.sizes.backups):
            names += [f"2026-03-01.user{number:06}.info", f"2026-03-01.user{number:06}.1.dar"]
        self.site.empty()
        self.site.fill(names, "last-slice=archive.1.dar")
        self.run([f"{self.sizes.backups} backups rescanned"],
                 lambda tool: self.rescan_steps(tool, names), 1)
        self.site.empty()

    def rescan_steps(self, tool, names):
        with self.target() as folder:
            command = tool.rescan(names, folder)
            if command:
                command = self.durable(tool, command, folder, whole=True)
                yield 0, self.meter.measure(command)
                left = set(names) - set(os.listdir(folder))
                if left:
                    raise cost.Failed(f"{len(left)} files are missing")


KINDS = ("big", "sealed", "many", "names", "rescan")
