"""The simulated backup jobs: the file names, contents and commands of each run."""

import datetime
import os

from local_files import write

FORMS = {"u1": "dar", "u2": "part", "u3": "dir"}
LETTERS = {"full": "F", "incremental": "I", "custom": "C"}
USERS = sorted(FORMS)


def week_of(date):
    """Returns the first day of the date's week, a Sunday."""
    day = datetime.date.fromisoformat(date)
    return (day - datetime.timedelta(day.isoweekday() % 7)).isoformat()


def fields_of(path):
    """Returns the entries of an info file, or None when the file is missing or malformed."""
    try:
        with open(path, encoding="utf-8") as file:
            return dict(line.split("=", 1) for line in file.read().split("\n") if line)
    except (FileNotFoundError, NotADirectoryError, ValueError):
        return None


def has_length_of(cipher, plain):
    """Returns whether the bytes `cipher` can be an encrypted file whose original size is `plain`."""
    head, tag, chunk = 64, 16, 65536
    return cipher.startswith(b"QN2ENC1\n") and len(cipher) == head + plain + tag * (-(-plain // chunk))


def content_of(path):
    try:
        with open(path, "rb") as file:
            return file.read()
    except (FileNotFoundError, NotADirectoryError):
        return None


class Run:
    """One run of a backup job. Another run for the same backup uses the same file names with other contents."""

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
        self.sources = {}  # path of each slice that the job has written -> its stored name
        self.passwords = {}  # stored name -> arch_password of its latest --put
        self.plain_sizes = {}  # stored name -> original size, of files that find_encrypted() has not found yet
        self.folder = os.path.join(root.work, f"r{number}", self.place)
        self.info_folder = os.path.join(root.info_root, self.place)
        self.make(step)
        self.done = 0  # number of commands that succeeded or were skipped
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
        """Returns whether a careless job continues without this slice. The job never skips the last slice, because
        its --put writes the number of slices to the info file."""
        return path in self.slices[:-1] and (
            self.careless == "ignores" and failed or self.careless == "skips" and path == self.slices[0])

    def stored_name(self, path):
        return self.place + os.path.basename(path)

    @property
    def identity(self):
        """The value of "base" in the info files of dailies made on this full backup."""
        return f"{self.place}F{self.date}.{self.user}.tgz"

    @property
    def bytes(self):
        return sum(map(len, self.contents.values()))

    @property
    def info_name(self):
        return self.place + self.name + ".info"

    def commands(self):
        """Returns the argument list of each command. The last command puts the index and the info file."""
        keep = ["--no-delete"] if self.keeps else []
        made = [["--put", "--info-file", self.info, *keep,
                 "--last_slice" if path == self.slices[-1] else "--operation", path]
                for path in self.slices]
        return [*made, ["--put", "--info-file", self.info, "--no-delete", "--isolated", self.index]]

    def note_password(self, path, password):
        """Records the password and the size of a file before a command puts the file."""
        name = self.stored_name(path)
        self.passwords[name] = password
        if password:
            self.plain_sizes[name] = len(content_of(path))

    def find_encrypted(self, storage, earlier):
        """Reads the encrypted files of this run from the storage, because the simulator cannot compute what the program
        encrypts. Removes the files that are found from plain_sizes. Ignores files that belong to `earlier`, the other
        runs for this backup."""
        for name, size in list(self.plain_sizes.items()):
            stored = content_of(os.path.join(storage, name))
            is_other = any(run.contents.get(name) == stored for run in earlier)
            if stored and not is_other and has_length_of(stored, size):
                self.contents[name] = stored
                del self.plain_sizes[name]

    def write_index(self):
        write(self.index, self.index_text)

    def lay(self, storage):
        """Writes the complete backup to the storage and the info root, as the program would have done."""
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
            fields["deletion"] = "planned"  # an entry that another program has added
        fields["last-slice"] = self.stored_name(self.slices[-1])
        text = ""
        for _ in range(2):  # the size includes this text, whose length depends on the digits of the size
            fields["size"] = str(self.bytes + len(text))
            text = "\n".join(f"{key}={fields[key]}" for key in sorted(fields))
        for path in (os.path.join(storage, self.info_name), self.local_path):
            write(path, text)
        self.done = len(self.slices) + 1

    # --- The files on the storage ---

    def missing(self, storage):
        """Returns the names of the files that are missing on the storage or have other contents than in this run."""
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
        """The path of the info file in the info root."""
        return os.path.join(self.info_folder, self.name + ".info")

    def local_info(self):
        return fields_of(self.local_path)

    def __str__(self):
        return f"run {self.number} of {self.kind} {self.name}"
