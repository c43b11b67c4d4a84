"""What a job makes: the names, the content and the commands of one run of one backup."""

import datetime
import os

from harness import write

FORMS = {"u1": "dar", "u2": "part", "u3": "dir"}
LETTERS = {"full": "F", "incremental": "I", "custom": "C"}
USERS = sorted(FORMS)


def week_of(date):
    """The first day of the week, a Sunday."""
    day = datetime.date.fromisoformat(date)
    return (day - datetime.timedelta(day.isoweekday() % 7)).isoformat()


def fields_of(path):
    """The entries of an info file; None when there is none, or none that can be read."""
    try:
        with open(path, encoding="utf-8") as file:
            return dict(line.split("=", 1) for line in file.read().split("\n") if line)
    except (FileNotFoundError, NotADirectoryError, ValueError):
        return None


def has_length_of(cipher, plain):
    """Whether a stored file can be the encrypted form of a file of this many bytes."""
    head, tag, chunk = 64, 16, 65536
    return cipher.startswith(b"QN2ENC1\n") and len(cipher) == head + plain + tag * (-(-plain // chunk))


def content_of(path):
    try:
        with open(path, "rb") as file:
            return file.read()
    except (FileNotFoundError, NotADirectoryError):
        return None


class Run:
    """One run of a job. The next run of the same backup has the same names and other content."""

    def __init__(self, root, number, step, base):
        self.number = number
        self.user, self.date, self.kind = step["user"], step["date"], step["kind"]
        self.base = base if self.kind == "incremental" else None
        if self.kind == "incremental" and base is None:
            self.kind = "full"
        is_custom = self.kind == "custom"
        self.key = (self.user, "custom" if is_custom else self.date)
        self.form = "dar" if is_custom and FORMS[self.user] == "dir" else FORMS[self.user]
        self.place = f"{self.user}/{self.date}/" if self.form == "dir" else ""
        self.name = f"{self.key[1]}.{self.user}"
        self.keeps = step.get("keep", False)
        self.careless = step.get("careless")
        self.is_foreign = step.get("foreign", False)
        self.contents = {}  # stored name -> bytes
        self.sources = {}  # path of a slice that was made -> its stored name
        self.passwords = {}  # stored name -> with which it was put last
        self.plain_sizes = {}  # stored name -> bytes, of encrypted files that were not found yet
        self.folder = os.path.join(root.work, f"r{number}", self.place)
        self.info_folder = os.path.join(root.info_root, self.place)
        self.make(step)
        self.done = 0  # commands that were acknowledged
        self.begun = False

    def make(self, step):
        stem = f"{LETTERS[self.kind]}{self.date}.{self.user}"
        pattern = f"{stem}.tgz.part%d" if self.form == "part" else f"{stem}.%d.dar"
        self.slices = []
        for number, size in enumerate(step["sizes"], 1):
            name = pattern % number
            path = os.path.join(self.folder, name)
            self.slices.append(path)
            self.sources[path] = self.place + name
            self.contents[self.place + name] = self.fill(name, size)
            write(path, self.contents[self.place + name])
        index = self.name + (".tgz" if self.form == "part" else ".1.dar")
        self.index = os.path.join(self.info_folder, index)
        self.index_text = self.contents[self.place + index] = self.fill(index, 60)
        kind = "incremental" if self.kind == "incremental" else "full"
        text = f"type={kind}\ncreated={self.date} 01:00:00\n"
        if self.base:
            text += f"base={self.base.identity}\n"
        self.info = write(os.path.join(self.folder, "info"), text)

    def fill(self, name, size):
        text = f"run {self.number} of {name}\n".encode()
        return (text * (size // len(text) + 1))[:max(size, len(text))]

    def is_skipped(self, path, failed):
        """A careless job goes on without this slice. The info file says how many there are only when
        the last one is put."""
        return path in self.slices[:-1] and (
            self.careless == "ignores" and failed or self.careless == "skips" and path == self.slices[0])

    def stored_name(self, path):
        return self.place + os.path.basename(path)

    @property
    def identity(self):
        """What "base" names this backup, if it is a full one."""
        return f"{self.place}F{self.date}.{self.user}.tgz"

    @property
    def bytes(self):
        return sum(map(len, self.contents.values()))

    @property
    def info_name(self):
        return self.place + self.name + ".info"

    def commands(self):
        """The argument lists of the job's commands; the last one puts the index and the info file."""
        keep = ["--no-delete"] if self.keeps else []
        made = [["--put", "--info-file", self.info, *keep,
                 "--last_slice" if path == self.slices[-1] else "--operation", path]
                for path in self.slices]
        return [*made, ["--put", "--info-file", self.info, "--no-delete", "--isolated", self.index]]

    def note_password(self, path, password):
        """A command is about to put this file."""
        name = self.stored_name(path)
        self.passwords[name] = password
        if password:
            self.plain_sizes[name] = len(content_of(path))

    def find_encrypted(self, storage, earlier):
        """Takes what the storage has as content of an encrypted file: only the program can make
        it. `earlier`: the other runs of this backup, whose files are not this run's."""
        for name, size in list(self.plain_sizes.items()):
            stored = content_of(os.path.join(storage, name))
            is_other = any(run.contents.get(name) == stored for run in earlier)
            if stored and not is_other and has_length_of(stored, size):
                self.contents[name] = stored
                del self.plain_sizes[name]

    def write_index(self):
        write(self.index, self.index_text)

    def lay(self, storage):
        """The complete backup, as the program would have left it."""
        for path in self.slices:
            os.unlink(path)
        self.sources = {}
        self.write_index()
        for name, data in self.contents.items():
            write(os.path.join(storage, name), data)
        fields = fields_of(self.info)
        fields["finished"] = f"{self.date} 01:30:00"
        fields["duration"] = "1800"
        if self.is_foreign:
            fields["deletion"] = "planned"  # another program's key
        fields["last-slice"] = self.stored_name(self.slices[-1])
        text = ""
        for _ in range(2):  # the size counts its own digits, three or four of them
            fields["size"] = str(self.bytes + len(text))
            text = "\n".join(f"{key}={fields[key]}" for key in sorted(fields))
        for path in (os.path.join(storage, self.info_name), self.local_path):
            write(path, text)
        self.done = len(self.slices) + 1

    # --- What is left of it ---

    def missing(self, storage):
        """Stored names that do not have this run's content."""
        names = [name for name, data in self.contents.items()
                 if content_of(os.path.join(storage, name)) != data]
        info = fields_of(os.path.join(storage, self.info_name))
        if info is None or "finished" not in info:
            names.append(self.info_name)
        return names

    def is_whole(self, storage):
        return not self.missing(storage)

    @property
    def local_path(self):
        """Of the info file in the info root."""
        return os.path.join(self.info_folder, self.name + ".info")

    def local_info(self):
        return fields_of(self.local_path)

    def __str__(self):
        return f"run {self.number} of {self.kind} {self.name}"
