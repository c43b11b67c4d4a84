"""Computes what a power failure can leave on the disk of a program.

The program runs with a preloaded recorder (tests/support/write_recorder.cpp). This module replays the trace
on a model of a disk, which contains the current and the last synced state of every file and directory. At
each point of the trace the model computes what the disk may contain when the power fails there. Each
directory entry is in the state of the directory's last sync, or in the state after a later change. Each file has the
content of its last sync, or a later content. Every combination is possible, so a program must be correct for each of
them.
"""

import os
import random
import shutil
import tempfile

from install_root import Root
from local_files import read, write


RECORDER = os.environ.get("QUARN2_WRITE_RECORDER", "")

# The model ignores these paths: the log and the events are never synced, and sbin contains only the program.
IGNORED = ("root/sbin/", "root/var/quarn2_cp.log", "root/var/quarn2_cp.events")


class RecordedRoot(Root):
    """An install root whose program runs with the recorder."""

    def __init__(self, test, name="root", drop=""):
        super().__init__(test, name)
        if not os.path.exists(RECORDER):
            raise AssertionError(f"QUARN2_WRITE_RECORDER does not name the recorder: '{RECORDER}'")
        self.base = os.path.realpath(self.base)
        self.record = tempfile.mkdtemp(prefix="record-", dir=test.folder)
        os.mkdir(os.path.join(self.record, "blobs"))
        write(os.path.join(self.record, "lock"), bytes(8))
        write(os.path.join(self.record, "trace"), "")
        self.drop = drop
        self.blobs = {}
        self.sources = 0
        self.start = None

    def environment(self, **changes):
        return super().environment(LD_PRELOAD=RECORDER, QUARN2_RECORD=self.record,
                                   QUARN2_RECORD_BELOW=self.base, QUARN2_RECORD_DROP=self.drop,
                                   **changes)

    def begin(self):
        """Starts the model of the disk. The model treats the current files as synced; the trace has later changes."""
        self.start = Disk.of(self.base)

    def make_source(self, name, data):
        """Writes a file of the job. The model treats it as synced at once."""
        path = write(os.path.join(self.work, name), data)
        self.given(path)
        return path

    def given(self, path):
        """Records a file that the job has just written. The model treats it as synced at once."""
        self.sources += 1
        blob = f"source-{self.sources}"
        write(os.path.join(self.record, "blobs", blob), read(path))
        self.line("J", path, os.stat(path).st_ino, blob)

    def line(self, *words):
        with open(os.path.join(self.record, "trace"), "a", encoding="utf-8") as trace:
            trace.write("\t".join(map(str, (0,) + words)) + "\n")

    def mark(self, text):
        """Adds a line of the test to the trace, for example the success of a command."""
        self.line("#", text)

    def events(self):
        """Returns the changes below the root's folder, with relative paths, and the marks."""
        lines = read(os.path.join(self.record, "trace")).decode().splitlines()
        found = []
        ignored = set()  # the inodes of ignored files
        for line in lines:
            _, operation, *arguments = line.split("\t")
            if operation in "CJMXUDR":
                arguments = [os.path.relpath(argument, self.base) if argument.startswith("/")
                             else argument for argument in arguments]
                if arguments[0].startswith(IGNORED):
                    ignored.update(arguments[1:])
                    continue
            if operation in "WS" and arguments[0] in ignored:
                continue
            if operation in "JWS":
                arguments[-1] = self.blob(arguments[-1])
            found.append((operation, *arguments))
        return found

    def blob(self, name):
        if name not in self.blobs:
            self.blobs[name] = read(os.path.join(self.record, "blobs", name))
        return self.blobs[name]


class File:
    def __init__(self, data=b"", synced=b""):
        self.now = data
        self.synced = synced
        self.since = []  # every content since the last sync

    def hold(self, data):
        self.now = data
        self.since.append(data)

    def sync(self, data=None):
        self.now = self.synced = self.now if data is None else data
        self.since = []


class Folder:
    def __init__(self):
        self.now = {}
        self.synced = {}
        self.since = []  # changes since the last sync, each {name: node, or None for a removal}

    def change(self, entries):
        self.since.append(entries)
        apply_changes(self.now, entries)

    def sync(self):
        self.synced = dict(self.now)
        self.since = []


def apply_changes(entries, changes):
    for name, node in changes.items():
        if node is None:
            entries.pop(name, None)
        else:
            entries[name] = node


class Disk:
    """The model of the disk. Paths are relative to the recorded folder."""

    def __init__(self):
        self.root = Folder()
        self.inodes = {}

    @classmethod
    def of(cls, base):
        """Returns a model of everything below the folder, all of it synced."""
        disk = cls()
        for directory, folders, names in os.walk(base):
            place = os.path.relpath(directory, base)
            for name in folders:
                disk.entry(os.path.normpath(os.path.join(place, name)), Folder())
            for name in names:
                path = os.path.normpath(os.path.join(place, name))
                if path.startswith(IGNORED) or not os.path.isfile(os.path.join(directory, name)):
                    continue
                data = read(os.path.join(directory, name))
                disk.inodes[str(os.stat(os.path.join(directory, name)).st_ino)] = node = \
                    File(data, data)
                disk.entry(path, node)
        disk.sync_all()
        return disk

    def folder(self, path):
        node = self.root
        for part in path.split("/"):
            if part not in ("", "."):
                node = node.now[part]
        return node

    def entry(self, path, node):
        above, name = os.path.split(path)
        self.folder(above).change({name: node})

    def node(self, path):
        above, name = os.path.split(path)
        return self.folder(above).now.get(name)

    def sync_all(self):
        def visit(node):
            node.sync()
            for below in node.now.values() if isinstance(node, Folder) else ():
                visit(below)
        visit(self.root)

    def apply(self, operation, *arguments):
        getattr(self, "do_" + {"#": "nothing"}.get(operation, operation))(*arguments)

    def do_nothing(self, _text):
        pass

    def do_J(self, path, inode, data):
        self.inodes[inode] = node = File(data, data)
        above, name = os.path.split(path)
        folder = self.root
        for part in above.split("/"):
            if part not in folder.now:
                folder.now[part] = folder.synced[part] = Folder()
            folder = folder.now[part]
        folder.now[name] = folder.synced[name] = node

    def do_C(self, path, inode):
        self.inodes[inode] = node = File()
        self.entry(path, node)

    def do_W(self, inode, data):
        self.inodes[inode].hold(data)

    def do_S(self, inode, data):
        self.inodes[inode].sync(data)

    def do_M(self, path):
        self.entry(path, Folder())

    def do_U(self, path):
        if self.node(path) is not None:  # the model contains no sockets
            self.entry(path, None)

    do_X = do_U

    def do_R(self, source, target):
        node = self.node(source)
        above, name = os.path.split(source)
        if os.path.dirname(target) == above:
            self.folder(above).change({name: None, os.path.basename(target): node})
        else:
            # A rename between directories is two changes in this model. Many file systems make both or none, but a
            # program cannot rely on that.
            self.folder(above).change({name: None})
            self.entry(target, node)

    def do_D(self, path):
        self.folder(path).sync()

    def do_Y(self):
        self.sync_all()

    def left(self, outcome):
        """Returns {path: content} of all files and folders after a power failure. The content of a folder is None."""
        found = {}

        def visit(folder, path):
            for name, node in outcome.entries(folder, path).items():
                place = path + name
                if isinstance(node, Folder):
                    found[place] = None
                    visit(node, place + "/")
                else:
                    found[place] = outcome.content(node, place)
        visit(self.root, "")
        return found


class Outcome:
    """One outcome of a power failure: decides which unsynced changes survive."""

    def __init__(self, name, keeps_change, keeps_data):
        self.name = name
        self.keeps_change = keeps_change  # (change, path of the folder) -> whether the change survives
        self.pick_data = keeps_data  # (contents since the sync, path) -> index of the survivor; None: the synced one

    def entries(self, folder, path):
        entries = dict(folder.synced)
        for change in folder.since:
            if self.keeps_change(change, path):
                apply_changes(entries, change)
        return entries

    def content(self, file, path):
        if not file.since:
            return file.now
        picked = self.pick_data(file.since, path)
        return file.synced if picked is None else file.since[picked]


def is_removal(change):
    return all(node is None for node in change.values())


def all_outcomes(seed, count):
    """Returns the extreme outcomes of a power failure, and `count` random outcomes."""
    found = [
        Outcome("nothing stays", lambda *_: False, lambda *_: None),
        Outcome("names stay, data does not", lambda *_: True, lambda *_: None),
        Outcome("everything stays", lambda *_: True, lambda *_: -1),
        Outcome("only removals stay", lambda change, _: is_removal(change), lambda *_: None),
        Outcome("all but removals stays", lambda change, _: not is_removal(change), lambda *_: -1),
        # The storage and the install root can be on different disks, of which only one loses its unsynced changes.
        Outcome("only the storage stays", lambda _, path: path.startswith("storage/"),
                lambda _, path: -1 if path.startswith("storage/") else None),
        Outcome("all but the storage stays", lambda _, path: not path.startswith("storage/"),
                lambda _, path: None if path.startswith("storage/") else -1),
    ]
    for number in range(count):
        chance = random.Random(seed * 1000 + number)
        found.append(Outcome(
            f"chance {seed}/{number}", lambda *_, chance=chance: chance.random() < 0.5,
            lambda since, _, chance=chance: chance.choice([None, *range(len(since))])))
    return found


def materialise(root, files, base):
    """Replaces the files of `root` by `files`, which a power failure left of the recorded root `base`. Changes
    the paths in the contents to those of `root`."""
    for folder in ("root/var", "root/tmp", "root/etc", "storage", "work"):
        shutil.rmtree(os.path.join(root.base, folder), ignore_errors=True)
    for path, data in sorted(files.items()):
        place = os.path.join(root.base, path)
        if data is None:
            os.makedirs(place, exist_ok=True)
        else:
            write(place, data.replace(base.encode(), root.base.encode()))
