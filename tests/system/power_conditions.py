"""The conditions that the files must meet after any power failure."""

import collections
import os

INFO = "root/var/backup/tovarn/"
STORAGE = "storage/"
LEDGER = "root/var/quarn2_cp.ledger/"  # the ledger has an entry for each incomplete backup


def fields(data):
    """Returns an info file's entries, or None when the text is no info file."""
    try:
        return dict(line.split("=", 1) for line in data.decode().split("\n"))
    except ValueError:
        return None


def is_hidden(path):
    return os.path.basename(path).startswith(".")


class Conditions:
    """The conditions for one run. Local paths are relative to the recorded folder, stored names to the root of the
    storage."""

    def __init__(self):
        self.contents = collections.defaultdict(set)  # stored name or path -> allowed contents
        self.sources = {}  # path of a file that the job has written -> its stored name
        self.backups = {}  # stored name of the info file -> stored names of all files of the backup
        self.stored = set()  # stored names that a command has reported as stored
        self.leaving = set()  # info names of backups whose removal has begun
        self.gone = set()  # info names of backups that a command has reported as removed
        self.fetched = set()  # paths that a command has reported as fetched

    def backup_of(self, name):
        return next((info for info, names in self.backups.items() if name in names), None)

    def is_leaving(self, name):
        return self.backup_of(name) in self.leaving

    def note_removal(self, path):
        """Records that the program has removed a file. If the file is a stored file of a backup, the backup's removal
        has begun."""
        self.fetched.discard(path)
        if path.startswith(STORAGE):
            for info, names in self.backups.items():
                if any(name == path[len(STORAGE):] or name.startswith(path[len(STORAGE):] + "/")
                       for name in names):
                    self.leaving.add(info)

    def violations(self, left):
        """Returns a text for each condition that the files do not meet after a power failure."""
        return [*self.wrong_files(left), *self.wrong_info_files(left), *self.unreadable_lists(left),
                *self.lost_sources(left), *self.lost_names(left), *self.wrong_backups(left)]

    def wrong_files(self, left):
        for path, data in left.items():
            name = path[len(STORAGE):] if path.startswith(STORAGE) else path
            if data is None or is_hidden(path) or name.endswith(".info"):
                continue
            if (name in self.contents or path.startswith(STORAGE)) \
                    and data not in self.contents[name]:
                yield f"{path} has {len(data)} bytes that it never had whole"

    def wrong_info_files(self, left):
        for path, data in left.items():
            if data is None or is_hidden(path) or not path.endswith(".info"):
                continue
            wanted = "finished" if path.startswith(STORAGE) else "type"
            if wanted not in (fields(data) or ()):
                yield f"{path} is no info file: {data!r}"

    def unreadable_lists(self, left):
        lines = left.get(INFO + ".cleanup", b"").split(b"\n")
        if lines[-1] or any(b"\t" not in line for line in lines[:-1]):
            yield f".cleanup cannot be read: {lines}"
        listed = left.get(INFO + ".encrypted_indexes", b"")
        if None in (fields(line) for line in listed.split(b"\n") if line):
            yield f".encrypted_indexes cannot be read: {listed!r}"

    def lost_sources(self, left):
        for path, name in self.sources.items():
            if not self.is_leaving(name) and not any(
                    left.get(place) in self.contents[name] for place in (path, STORAGE + name)):
                yield f"{name} is neither on the storage nor at its job"

    def lost_names(self, left):
        for name in sorted(self.stored):
            if STORAGE + name not in left and not self.is_leaving(name):
                yield f"{name} had been stored"
        for path in sorted(self.fetched):
            if path not in left:
                yield f"{path} had been fetched"

    def wrong_backups(self, left):
        """Reports incomplete backups that count as complete, and files that no process would remove any more."""
        for info, names in self.backups.items():
            there = [name for name in names if STORAGE + name in left]
            known = INFO + info in left
            if info in self.gone and (there or known):
                yield f"{info} is gone, but for {there} {known * [INFO + info]}"
            elif known and len(there) < len(names) and self.counts(left, info):
                yield f"{info} counts, with no more than {there}"
            elif not known and info in self.leaving and there:
                yield f"{info} is removed, but for {there}"

    def counts(self, left, info):
        """Returns True when the next server would count the backup as complete."""
        name = os.path.basename(info)
        listed = b"\t" + name.removesuffix(".info").encode() + b"\n"
        if INFO + ".clear" in left or listed in left.get(INFO + ".cleanup", b""):
            return False
        if any(is_open(path, data, name.removesuffix(".info")) for path, data in left.items()):
            return False
        return "finished" in (fields(left[INFO + info]) or ())


def is_open(path, data, backup):
    """Returns True when the path is an open ledger entry of this backup, so that no server counts the backup."""
    if data is None or not path.startswith(LEDGER) or is_hidden(path):
        return False
    stem = path[len(LEDGER):]
    entry = fields(data) or {}
    states = [value.split()[0] for key, value in entry.items() if key.startswith("slice-")]
    touched = "info" in entry or any(state != "refused" for state in states)
    return backup in (stem, stem[1:]) and touched and "completed" not in entry
