"""Backups of real archives: made with dar and tar, put on the storage, and restored."""

import hashlib
import os
import shutil
import stat
import subprocess

from local_files import copy_executable, read, tree, write
from processes import start, wait_gone
from server_command import Server
from waiting import DEADLINE

SAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../examples")
SLICE = 64 * 1024


def call(*command, **options):
    process = start(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
    out, err = process.communicate(timeout=DEADLINE)
    return subprocess.CompletedProcess(command, process.returncode, out.decode(errors="replace"),
                                       err.decode(errors="replace"))


def tool(*command, **options):
    result = call(*command, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}: {result.stderr}")


def manifest(folder):
    """Returns everything that a restore must bring back: {relative name: kind and attributes}."""
    found = {}
    for directory, folders, names in os.walk(os.fsencode(folder)):
        for name in folders + names:
            path = os.path.join(directory, name)
            status = os.lstat(path)
            mode = stat.S_IMODE(status.st_mode)
            if stat.S_ISLNK(status.st_mode):
                what = ("link", os.readlink(path))
            elif stat.S_ISDIR(status.st_mode):
                what = ("directory", mode)
            else:
                what = ("file", mode, int(status.st_mtime), status.st_nlink, status.st_size,
                        hashlib.sha256(read(path)).hexdigest())
            found[os.path.relpath(path, os.fsencode(folder))] = what
    return found


# --- The files of a user, and their changes from day to day ---

def first_day(folder):
    os.makedirs(os.path.join(folder, "mail/old"))
    write(os.path.join(folder, "noise"), os.urandom(3 * SLICE + 17))
    write(os.path.join(folder, "mail/letter one"), "the first letter\n" * 50)
    write(os.path.join(folder, "mail/old/letter"), "an old letter\n")
    write(os.path.join(folder, "empty"), "")
    write(os.path.join(folder, "with\na line feed and \u00e9"), "odd name")
    with open(os.path.join(folder, "holes"), "wb") as file:
        file.truncate(300000)
        file.seek(200000)
        file.write(b"data between holes")
    os.link(os.path.join(folder, "noise"), os.path.join(folder, "mail/noise too"))
    os.symlink("mail/old/letter", os.path.join(folder, "a link"))
    os.symlink("/nowhere", os.path.join(folder, "dangling"))
    os.chmod(os.path.join(folder, "mail"), 0o2775)
    os.chmod(os.path.join(folder, "mail/letter one"), 0o640)


def next_day(folder, number):
    """Adds a file, changes a file and removes a file or a folder."""
    write(os.path.join(folder, f"noise of day {number}"), os.urandom(SLICE + number))
    write(os.path.join(folder, "mail/letter one"), f"changed on day {number}\n" * 9)
    os.chmod(os.path.join(folder, "mail/letter one"), 0o600)
    if number == 1:
        shutil.rmtree(os.path.join(folder, "mail/old"))
    else:
        os.remove(os.path.join(folder, f"noise of day {number - 1}"))


# --- Making backups ---

class Maker:
    """Makes backups of one archive form ("dar", "tgz", "part") in one layout ("flat", "dir")."""

    def __init__(self, root, form, place):
        self.root = root
        self.form = form
        self.place = place
        self.made = 0

    def put(self, user, date, letter, source, base=None):
        """Makes a complete backup of `source`. `base` is the result of the put() of its full backup."""
        custom = letter == "C"
        stem = ("custom." if custom else date + ".") + user
        below = f"{user}/{'custom' if custom else date}" if self.place == "dir" else ""
        work = os.path.join(self.root.work, below)
        local = os.path.join(self.root.info_root, below)
        for folder in (work, local):
            os.makedirs(folder, exist_ok=True)
        self.made += 1
        state = os.path.join(self.root.base, f"state-{self.made}")
        make = self.dar if self.form == "dar" else self.tar
        slices, index = make(os.path.join(work, f"{letter}{date}.{user}"),
                             os.path.join(local, stem), source, state, base)
        fields = {"type": "full" if letter in "FC" else "incremental",
                  "created": "2026-11-20 01:00:00"}
        if base:
            place = f"{user}/{base['date']}/" if below else ""
            fields["base"] = f"{place}F{base['date']}.{user}.tgz"
        info = write(os.path.join(work, stem + ".new"),
                     "\n".join(f"{key}={fields[key]}" for key in sorted(fields)))
        for number, path in enumerate(slices, 1):
            self.command("--last_slice" if number == len(slices) else "--operation",
                         "--info-file", info, path)
        self.command("--isolated", "--no-delete", "--info-file", info, index)
        os.remove(info)
        place = below + "/" if below else ""
        return {"date": date, "state": state, "catalogue": os.path.join(local, stem),
                "slices": [os.path.basename(path) for path in slices],
                "info": place + stem + ".info",
                "index": place + os.path.basename(index),
                "archive": [place + os.path.basename(path) for path in slices]}

    def command(self, *arguments):
        self.root.test.assert_success(self.root.run("--put", *arguments))

    def dar(self, archive, local, source, _state, base):
        reference = ["-A", base["catalogue"]] if base else []
        tool("dar", "-N", "-Q", "-q", "-c", archive, "-R", source, "-s", str(SLICE), "-@", local,
             *reference)
        slices = []
        while os.path.exists(f"{archive}.{len(slices) + 1}.dar"):
            slices.append(f"{archive}.{len(slices) + 1}.dar")
        return slices, local + ".1.dar"

    def tar(self, archive, local, source, state, base):
        if base:
            shutil.copy(base["state"], state)
        whole = archive + ".tgz"
        tool("tar", "-czf", whole, f"--listed-incremental={state}", "-C", source, ".")
        index = local + ".tgz"
        tool("tar", "-czf", index, "-C", self.root.base, os.path.basename(state))
        if self.form == "tgz":
            return [whole], index
        data = read(whole)
        os.remove(whole)
        slices = [write(f"{whole}.part{number}", data[start:start + SLICE])
                  for number, start in enumerate(range(0, len(data), SLICE), 1)]
        return slices, index


# --- The server, rescan and restore ---

def hold(root, date, *arguments):
    """Returns a ready server whose count limits are never reached."""
    return Server(root, "--date", date, "--count-limit", "9:99", *arguments).wait_ready()


def wipe(root):
    shutil.rmtree(root.info_root)


def rescan(root, *arguments, env=None):
    """Runs a rescan and its server to the end. The count limits are never reached."""
    server = Server(root, "--rescan", "--count-limit", "9:99", *arguments, env=env).wait_ready()
    root.test.assertEqual((0, ""), server.release())
    wait_gone(server.daemon)


def run_sample(root, program, *arguments, **changes):
    """Runs a sample job and checks that the job leaves no temporary files, even if it fails."""
    place = os.path.join(root.base, program + "-tmp")
    os.makedirs(place, exist_ok=True)
    environment = root.environment(KRO_ROOT=root.path, TMPDIR=place, **changes)
    result = call(os.path.join(SAMPLES, program), *arguments, env=environment)
    root.test.assertEqual([], os.listdir(place))
    return result


def restore(root, user, date, target, **changes):
    # The sample runs the report of the install root, and the report uses the install root of its own directory.
    copy_executable(os.environ["QUARN2_REPORT"], root.file("sbin/quarn2_report"))
    return run_sample(root, "restore-job", user, date, target, **changes)


def backup(root, date, user, source, **changes):
    return run_sample(root, "backup-job", date, user, source, **changes)


def tree_bytes(folder):
    return {name: read(os.path.join(folder, name)) for name in tree(folder)}
