"""Sample backups: info files, archives on the storage, index copies in the info root."""

import datetime
import os

from local_files import read, write


DATE = "2026-11-20"  # a Friday; the week began on Sunday the 15th


def day(offset, start=DATE):
    return (datetime.date.fromisoformat(start) + datetime.timedelta(offset)).isoformat()


def info_text(fields):
    """Returns the text of an info file: sorted KEY=VALUE lines without a line feed after the last."""
    return "\n".join(f"{key}={fields[key]}" for key in sorted(fields, key=str.encode))


def read_info(path):
    return dict(line.split("=", 1) for line in read(path).decode().split("\n"))


def write_info(directory, user, date, **fields):
    """Writes only the info file of a backup, because a scan needs no other file."""
    fields.setdefault("finished", f"{DATE} 01:00:00")
    fields.setdefault("type", "full")
    return write(os.path.join(directory, f"{date}.{user}.info"), info_text(fields))


class Backup:
    """A complete backup as the program creates it: storage and info root contain all of its files."""

    def __init__(self, root, user, date, kind="full", form="dar", slices=2, data=b"0123456789",
                 size=None, **fields):
        self.root = root
        self.user = user
        self.date = date
        self.kind = kind
        self.stem = f"{date}.{user}"
        self.letter = "F" if kind == "full" else "I"
        self.place = f"{user}/{date}/" if form == "dir" else ""
        archives, index = self.archive_names("dar" if form == "dir" else form, slices)
        self.archives = [self.place + name for name in archives]
        self.index = self.place + index
        self.info_name = self.place + self.stem + ".info"
        fields.setdefault("created", f"{DATE} 00:59:00")
        fields.setdefault("finished", f"{DATE} 01:00:00")
        fields.update({"type": kind, "last-slice": self.archives[-1],
                       "size": (len(self.archives) + 1) * len(data) if size is None else size})
        self.fields = fields
        for name in self.archives + [self.index]:
            write(os.path.join(root.storage, name), data)
        write(os.path.join(root.storage, self.info_name), info_text(fields))
        write(self.info_path, info_text(fields))
        write(os.path.join(root.info_root, self.index), data)

    def archive_names(self, form, slices):
        name = self.letter + self.stem
        if form == "dar":
            return ([f"{name}.{number}.dar" for number in range(1, slices + 1)],
                    self.stem + ".1.dar")
        if form == "part":
            return ([f"{name}.tgz.part{number}" for number in range(1, slices + 1)],
                    self.stem + ".tgz")
        return [name + ".tgz"], self.stem + ".tgz"

    def interrupt(self):
        """Removes "finished" from the local info file, as if the job had been interrupted."""
        write(self.info_path, info_text({key: value for key, value in self.fields.items() if key != "finished"}))
        return self

    @property
    def info_path(self):
        return os.path.join(self.root.info_root, self.info_name)

    @property
    def size(self):
        return int(self.fields["size"])

    @property
    def identity(self):
        """The value of "base" in the info files of dailies made on this backup."""
        return f"{self.place}F{self.stem}.tgz"

    def stored_names(self):
        return sorted(self.archives + [self.index, self.info_name])

    def local_names(self):
        return sorted([self.index, self.info_name])

    def is_whole(self, present=None):
        """Returns True when storage and info root have every file. `present` is a result of both_sides()."""
        stored, local = present or both_sides(self.root)
        return stored.issuperset(self.stored_names()) and local.issuperset(self.local_names())

    def is_gone(self, present=None):
        """Returns True when neither storage nor info root has a file of the backup."""
        stored, local = present or both_sides(self.root)
        return stored.isdisjoint(self.stored_names()) and local.isdisjoint(self.local_names())


def both_sides(root):
    """Returns the names on the storage and the names in the info root."""
    return set(root.stored()), set(root.local())


def chain(root, user, kinds, end=DATE, **options):
    """Makes backups of consecutive days up to `end`: "FDD" is a full backup and two dailies."""
    first = 1 - len(kinds)
    return [Backup(root, user, day(first + place, end),
                   "full" if letter == "F" else "incremental", **options)
            for place, letter in enumerate(kinds)]


def left(backups):
    """Returns the dates of the backups that exist. A partly removed backup is an error."""
    found = []
    for backup in backups:
        if backup.is_whole():
            found.append(backup.date)
        elif not backup.is_gone():
            raise AssertionError(f"{backup.stem} is neither whole nor gone: "
                                 f"{backup.root.stored()} {backup.root.local()}")
    return found
