"""Crash scenes that remove backups: deletion, eviction, clean-up, clear."""

import os

from crash_scene import GENEROUS, Scene, require
from local_files import read, write
from samples import DATE, Backup, chain, day, left, read_info


class Removal(Scene):
    """The base class of the crash test scenes that remove backups."""

    backups = ()
    staying = ()

    def holds_whole(self, stem):
        """Returns True when the backup has all of its files. Also returns True when the disk stays full: the program
        cannot record on such a disk that a deletion has begun, so missing files are accepted there."""
        return self.fault.lasting or any(backup.stem == stem and backup.is_whole()
                                          for backup in self.backups)

    def check(self):
        for backup in self.backups:
            whole, gone = backup.is_whole(), backup.is_gone()
            require(whole or backup not in self.staying,
                    lambda: f"{backup.stem} has been touched: {self.r.stored()} {self.r.local()}")
            # Without the info file no later command would find the files that are left on the storage.
            require(whole or gone or os.path.exists(backup.info_path),
                    lambda: f"{backup.stem} has lost its info file first: {self.r.stored()}")
            if os.path.exists(backup.info_path):
                self.check_info(backup)

    def check_info(self, backup):
        """Checks that the info file is unchanged, or marks the backup as being deleted."""
        old = {key: str(value) for key, value in backup.fields.items()}
        info = read_info(backup.info_path)
        marked = {**info, "finished": old["finished"]}
        since = marked.pop("deletion", None)
        kept = marked.pop("deletion-finished", None)
        require(info == old or (since and kept == old["finished"] and "finished" not in info
                                and marked == old),
                lambda: f"info file of {backup.stem}: {info}")

    def remaining(self):
        return [backup.stem for backup in self.staying]

    def check_done(self):
        require(left(self.backups) == [backup.date for backup in self.staying], lambda:
                f"what stays: {self.r.stored()} {self.r.local()}")
        self.check_no_leftovers()


class Delete(Removal):
    def lay_out(self):
        self.doomed = Backup(self.r, "web1", day(-1), slices=3)
        self.staying = [Backup(self.r, "web1", day(-2)), Backup(self.r, "web10", day(-1))]
        self.backups = [self.staying[0], self.doomed, self.staying[1]]

    def work(self):
        self.arm()
        self.run("--delete", self.doomed.info_path)


class DeleteThenRescan(Delete):
    """Runs a rescan after an interrupted deletion. The info file on the storage must not make the backup complete
    again."""

    restart = ("--count-limit", "1000:1000", "--rescan")

    def remaining(self):
        """Returns no backups: the server of a rescan uses the date of this machine's clock, which may be wrong."""
        return ()


class DeleteWeek(Removal):
    """Deletes a full backup and the daily made on it. Each archive is one file, with an encrypted index."""

    def lay_out(self):
        full = Backup(self.r, "web1", day(-2), form="tgz")
        daily = Backup(self.r, "web1", day(-1), "incremental", form="tgz", base=full.identity)
        self.staying = [Backup(self.r, "web1", DATE, form="tgz")]
        self.backups = [full, daily, *self.staying]
        lines = [f"{backup.stem}.tgz.aes={'ab' * number}" for number, backup
                 in enumerate(self.backups, 1)]
        self.list = write(os.path.join(self.r.info_root, ".encrypted_indexes"), "\n".join(lines))
        self.lines = lines

    def work(self):
        self.arm()
        self.run("--delete", "--force", self.backups[0].info_path)

    def check(self):
        super().check()
        text = read(self.list).decode()
        require(set(filter(None, text.split("\n"))) <= set(self.lines) and self.lines[-1] in text,
                lambda: f"the list of encrypted indexes: {text!r}")


class DeleteDirectory(Removal):
    def lay_out(self):
        self.staying = [Backup(self.r, "web1", day(-2), form="dir")]
        self.backups = [*self.staying, Backup(self.r, "web1", day(-1), form="dir")]

    def work(self):
        self.arm()
        self.run("--delete", self.backups[-1].info_path)


class DeleteByClient(Delete):
    roles = ("client",)

    def work(self):
        server = self.serve(*GENEROUS)
        if self.wait_for_client(server):
            self.arm()
            if os.path.exists(self.doomed.info_path):
                self.run("--delete", self.doomed.info_path, BACKUP_TOKEN=None)
        self.fault_control.stop()
        self.release(server)


class Evict(Removal):
    """A server starts with more backups than its limits allow."""

    roles = ("daemon",)
    limits = ("--count-limit", "1:1")

    def lay_out(self):
        self.backups = chain(self.r, "web1", "FDDFD")
        self.staying = self.backups[-2:]

    def work(self):
        self.arm()
        server = self.serve("--date", DATE, *self.limits)
        self.fault_control.stop()
        self.release(server)


class EvictBySize(Evict):
    limits = ("--count-limit", "10:10", "--size-limit", "70")

    def lay_out(self):
        self.backups = chain(self.r, "web1", "FFFF", size=30)
        self.staying = self.backups[-2:]


class EvictForPut(Evict):
    """A server evicts a backup before it grants the reservation for a file."""

    limits = ("--count-limit", "10:10", "--size-limit", "100")

    def lay_out(self):
        self.backups = chain(self.r, "web1", "FFF", size=30)
        self.staying = self.backups[-2:]
        self.again()

    def again(self):
        self.new = f"F{DATE}.web2.tgz"
        self.path = write(os.path.join(self.r.work, self.new), b"x" * 20)

    def work(self):
        server = self.serve("--date", DATE, *self.limits)
        if self.wait_for_client(server):
            self.arm()
            self.run("--put", "--no-delete", self.path)
        self.fault_control.stop()
        self.release(server)

    def check_done(self):
        super().check_done()
        require(read(os.path.join(self.r.storage, self.new)) == b"x" * 20, "the new file")


class CleanUp(Removal):
    """A starting server removes the unfinished backups that another program listed in .cleanup."""

    roles = ("daemon",)

    def lay_out(self):
        self.backups = [Backup(self.r, "web1", day(-1), form="tgz")]
        self.staying = self.backups
        for user in ("web2", "web3"):
            for name in (f"F{DATE}.{user}.tgz.part1", f"F{DATE}.{user}.tgz.part2"):
                write(os.path.join(self.r.storage, name), "incomplete")
            write(os.path.join(self.r.info_root, f"{DATE}.{user}.tgz"), "index")
        self.list = os.path.join(self.r.info_root, ".cleanup")
        self.lines = [f"{self.r.token}\t{DATE}.{user}\n" for user in ("web2", "web3")]
        write(self.list, "".join(self.lines))

    def work(self):
        self.arm()
        server = self.serve(*GENEROUS)
        self.fault_control.stop()
        self.release(server)

    def unfinished(self):
        return [user for user in ("web2", "web3")
                if any(f"{DATE}.{user}." in name for name in self.r.stored() + self.r.local())]

    def check(self):
        super().check()
        listed = read(self.list).decode() if os.path.exists(self.list) else ""
        require(listed in ("", *self.lines, "".join(self.lines)), f"the list: {listed!r}")
        for user in self.unfinished():
            require(f"\t{DATE}.{user}\n" in listed, f"{user} is not on the list any more")

    def check_done(self):
        super().check_done()
        require(not self.unfinished() and not os.path.exists(self.list), "not cleaned up")


class Clear(Scene):
    def lay_out(self):
        self.backups = [Backup(self.r, "web1", DATE, slices=2), Backup(self.r, "web2", DATE, form="dir")]
        write(self.r.file("var/backup/tovarn.private/x/y"), "private")
        self.other = write(self.r.file("var/backup/web1/kept"), "a user's")

    def work(self):
        self.arm()
        self.run("--clear")

    def holds_whole(self, stem):
        return any(backup.stem == stem and backup.is_whole() for backup in self.backups)

    def check_start(self):
        """A server may refuse to start on partly removed backups, if its message names --clear."""
        if self.failed:
            require("--clear" in self.failed[0][2], lambda: f"the server does not start: {self.failed}")

    def check(self):
        require(read(self.other) == b"a user's", "what belongs to others")

    def check_done(self):
        self.check()
        require(not os.listdir(self.r.storage), "the storage is not empty")
        require(os.listdir(self.r.file("var/backup")) == ["web1"], "the info root is not empty")
