"""Crash scenes (see crash_scene.py) that put, fetch and start a server; and SCENES, the list of all scenes."""

import os

from crash_removals import (CleanUp, Clear, Delete, DeleteByClient, DeleteDirectory, DeleteThenRescan,
                            DeleteWeek, Evict, EvictBySize, EvictForPut, Removal)
from crash_scene import GENEROUS, Scene, names, require
from local_files import read, tree, write
from samples import DATE, Backup, day, info_text, read_info


class Put(Scene):
    """Puts a backup of two slices and an index. The node client removes the source of a stored slice."""

    stem = f"{DATE}.web1"
    slices = [f"F{DATE}.web1.{number}.dar" for number in (1, 2)]
    index = f"{stem}.1.dar"
    armed = 0  # index of the first command that runs with the fault
    data = {name: name.encode() * 300 for name in [*slices, index]}

    def lay_out(self):
        self.again()

    def again(self):
        for name in self.slices:
            write(self.source(name), self.data[name])
            if os.path.exists(self.source(name) + ".attempts"):
                os.unlink(self.source(name) + ".attempts")
        write(self.local(self.index), self.data[self.index])
        self.job_info = write(self.source("job.info"),
                              info_text({"type": "full", "created": f"{DATE} 00:59:00"}))

    def source(self, name):
        return os.path.join(self.r.work, name)

    def local(self, name):
        return os.path.join(self.r.info_root, name)

    def stored(self, name):
        return os.path.join(self.r.storage, name)

    def commands(self):
        info = ("--info-file", self.job_info)
        yield "--put", *info, self.source(self.slices[0])
        yield "--put", *info, "--last_slice", self.source(self.slices[1])
        yield "--put", *info, "--isolated", "--no-delete", self.local(self.index)

    def work(self):
        server = self.serve(*GENEROUS)
        if self.wait_for_client(server):
            for number, command in enumerate(self.commands()):
                if number == self.armed:
                    self.arm()
                if not self.run(*command):
                    break
        self.disarm()
        self.release(server)

    def disarm(self):
        """Does nothing, because the node client still uploads files. The fault stays active until the client ends."""

    def given_up(self):
        return any(name.endswith(".attempts") for name in tree(self.r.work))

    def is_stored(self, name):
        return os.path.exists(self.stored(name)) and read(self.stored(name)) == self.data[name]

    def holds_whole(self, stem):
        return stem == self.stem and all(map(self.is_stored, self.data))

    def check(self):
        for name in names(self.r.storage):
            require(name == self.stem + ".info" or self.is_stored(name), f"{name} is not whole")
        for name in self.slices:
            require(os.path.exists(self.source(name)) or self.is_stored(name) or self.given_up(),
                    f"the source of {name} is gone, and it is not stored")
        require(read(self.local(self.index)) == self.data[self.index], "the index has changed")
        self.check_job_info()
        for path in (self.stored(self.stem + ".info"), self.local(self.stem + ".info")):
            if os.path.exists(path):
                self.check_info(path)
        if os.path.exists(self.stored(self.stem + ".info")) and not self.given_up():
            require(self.holds_whole(self.stem), "the storage's info file tells of a whole backup")

    def check_job_info(self):
        info = read_info(self.job_info)
        sizes = [len(self.data[name]) for name in self.slices]
        states = [{}, {"size": str(sizes[0])},
                  {"size": str(sum(sizes)), "last-slice": self.slices[1]}]
        state = {key: info[key] for key in ("size", "last-slice") if key in info}
        require(state in states and info["type"] == "full" and info["created"] == f"{DATE} 00:59:00"
                and ("finished" in info) == bool(state), lambda: f"the job's info file: {info}")

    def check_info(self, path):
        info = read_info(path)
        size = sum(map(len, self.data.values())) + len(read(path))
        require(info["size"] == str(size) and info["last-slice"] == self.slices[1]
                and "finished" in info, lambda: f"{path}: {info}")

    def remaining(self):
        return [self.stem]

    def check_done(self):
        self.check()
        require(self.holds_whole(self.stem), "a slice is missing")
        for path in (self.stored(self.stem + ".info"), self.local(self.stem + ".info")):
            self.check_info(path)
        require(not any(os.path.exists(self.source(name)) for name in self.slices), "a source is left")
        require(not self.given_up(), "an upload was abandoned")
        require(not self.r.unfinished(), "the ledger has an entry of a complete backup")
        self.check_no_leftovers()


class PutByClient(Put):
    roles = ("client",)


class PutLast(Put):
    armed = 2


class PutLastByClient(PutLast):
    roles = ("client",)


class PutLastByDaemon(PutLast):
    roles = ("daemon",)

    def disarm(self):
        self.fault_control.stop()


class Get(Scene):
    """Runs the second --get of a restore, which removes the slice that the first --get has fetched."""

    def lay_out(self):
        self.backup = Backup(self.r, "web1", DATE, slices=2, data=b"0123456789" * 500)
        self.first, self.second = (os.path.join(self.r.work, name) for name in self.backup.archives)
        self.tmp = os.path.join(self.r.work, "tmp")
        self.again()

    def again(self):
        if os.path.exists(self.second):
            os.unlink(self.second)
        write(self.first, b"0123456789" * 500)
        write(self.tmp, self.first)

    def work(self):
        self.arm()
        self.run("--get", "--tmp-file", self.tmp, f"{self.r.work}//{self.backup.archives[1]}")

    def holds_whole(self, stem):
        return self.backup.is_whole()

    def check(self):
        require(self.backup.is_whole(), "the storage has changed")
        for path in (self.first, self.second):
            require(not os.path.exists(path) or read(path) == b"0123456789" * 500,
                    f"{path} is not whole")
        require(read(self.tmp).decode() in (self.first, self.second), "the tmp-file")

    def check_done(self):
        self.check()
        require(os.path.exists(self.second), "nothing is fetched")
        # --get treats a tmp-file that it cannot read as missing, and then keeps the first slice.
        require(self.fault.number or not os.path.exists(self.first), "the first slice is still here")
        require(read(self.tmp).decode() == self.second, "the tmp-file")
        self.check_no_leftovers()


class Update(Scene):
    def lay_out(self):
        self.backup = Backup(self.r, "web1", DATE, form="tgz")
        self.path = os.path.join(self.r.info_root, self.backup.index)
        self.remote = os.path.join(self.r.storage, self.backup.index)
        self.new = write(self.path, b"new" * 2000) and b"new" * 2000

    def work(self):
        self.arm()
        self.run("--update", self.path)

    def holds_whole(self, stem):
        return True  # --update removes the old index first, so a missing index is allowed

    def check(self):
        require(read(self.path) == self.new, "the source has changed")
        require(not os.path.exists(self.remote) or read(self.remote) in (b"0123456789", self.new),
                "the file on the storage is neither old nor new")
        rest = [name for name in self.backup.stored_names() if name != self.backup.index]
        require(set(rest) <= set(self.r.stored()), "other files have gone")

    def check_done(self):
        self.check()
        require(os.path.exists(self.remote) and read(self.remote) == self.new, "not replaced")
        self.check_no_leftovers()


class Rescan(Scene):
    """Runs a rescan. The info root lacks one backup, has an old info file of another backup, and has a third backup
    that the storage lacks."""

    roles = ("caller",)

    def lay_out(self):
        self.backups = [Backup(self.r, "web1", DATE), Backup(self.r, "web2", DATE, form="tgz"),
                        Backup(self.r, "web3", DATE, form="dir")]
        os.unlink(self.backups[0].info_path)
        os.unlink(os.path.join(self.r.info_root, self.backups[0].index))
        self.old = write(self.backups[1].info_path, info_text({"type": "full", "old": "text"}))
        self.extra = write(os.path.join(self.r.info_root, f"{day(-1)}.web1.info"), "finished=1\nsize=1")
        self.kept = write(os.path.join(self.r.info_root, ".cleanup"), "")

    def work(self):
        self.arm()
        server = self.serve("--count-limit", "1000:1000", "--rescan")
        self.fault_control.stop()
        self.release(server)

    def holds_whole(self, stem):
        """Checks only the storage, because a rescan that cannot fetch an index logs the error and continues."""
        return any(backup.stem == stem and set(backup.stored_names()) <= set(self.r.stored())
                   for backup in self.backups)

    def check_start(self):
        """A server may refuse to start on an incomplete info root, if its message names --rescan."""
        if self.failed:
            require("--rescan again" in self.failed[0][2], lambda: f"the server does not start: {self.failed}")
            require(any(name == ".rescan" for name in self.r.local()), "refused without a mark")

    def check(self):
        for backup in self.backups:
            stored = os.path.join(self.r.storage, backup.info_name)
            require(set(backup.stored_names()) <= set(self.r.stored()), "the storage has changed")
            if os.path.exists(backup.info_path):
                require(read(backup.info_path) in (read(stored), b"old=text\ntype=full"),
                        f"{backup.info_path} is neither old nor new")

    def check_done(self):
        self.check()
        require(all(backup.is_whole() for backup in self.backups), "not everything was fetched")
        require(all(read(backup.info_path) == read(os.path.join(self.r.storage, backup.info_name))
                    for backup in self.backups), "an info file is old")
        require(not os.path.exists(self.extra), "what the storage lacks is still here")
        self.check_no_leftovers()


class StartAndEnd(Removal):
    """Starts and ends a server without backups, to test its files, locks and processes."""

    roles = ("caller", "between", "daemon", "starter")

    def lay_out(self):
        self.backups = self.staying = [Backup(self.r, "web1", DATE)]

    def work(self):
        self.arm()
        server = self.serve(*GENEROUS)
        self.release(server)


class StartOfClient(StartAndEnd):
    roles = ("client",)


SCENES = (Put, PutByClient, PutLast, PutLastByClient, PutLastByDaemon, Get, Update, Delete, DeleteThenRescan,
          DeleteWeek, DeleteDirectory, DeleteByClient, Evict, EvictBySize, EvictForPut, CleanUp, Clear, Rescan,
          StartAndEnd, StartOfClient)
