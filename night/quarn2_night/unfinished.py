"""Backups that were begun and not completed. Each job has a work directory, which stays when the job is killed."""

import errno
import os
import re
import shutil

from .info import read_info
from .names import is_date, is_user

_REMOVALS = 10


def cleanup_lines(token, user, date, info_paths):
    """Returns the lines of .cleanup for a backup whose job failed. The server removes the files that they name."""
    name = f"{date}.{user}"
    count = max((_slices(path) for path in info_paths), default=0)
    prefixes = [name]
    # Adds a line for one more slice, because a slice may be on the storage although the info file does not name it yet.
    for number in range(1, count + 2):
        prefixes += [f"{name}.{number}.dar", f"{name}.tar.zst.part{number}"]
    escaped = token.replace("\\", "\\\\").replace("\t", "\\t")
    return "".join(f"{escaped}\t{prefix}\n" for prefix in prefixes)


def _slices(info_path):
    """Returns the number of slices that an info file names."""
    last = read_info(info_path).get("last-slice", "").split(" ")[0]
    match = re.search(r"(\.[1-9][0-9]{0,6}\.dar|\.tar\.zst\.part[1-9][0-9]{0,6})$", last)
    return int(re.sub("[^0-9]", "", match.group(1))) if match else 0


def has_put(site, user, date, info_paths):
    """True when the storage may have a file of this backup."""
    entries = (os.path.join(site.ledger, f"{letter}{date}.{user}") for letter in "FI")
    return any("last-slice" in read_info(path) for path in info_paths) or any(map(os.path.exists, entries))


def _remove_index(site, user, date):
    for ending in (".1.dar", ".tgz"):
        try:
            os.remove(os.path.join(site.info_root, f"{date}.{user}{ending}"))
        except FileNotFoundError:
            pass


def note(site, token, jobs):
    """Adds the unfinished backups of `jobs`, tuples (user, date, info_paths), to .cleanup.

    A job that has put no file gets no line, because the line could match another backup of that day.
    """
    text = ""
    for job in jobs:
        if has_put(site, *job):
            text += cleanup_lines(token, *job)
        else:
            _remove_index(site, *job[:2])
    if not text:
        return
    path = os.path.join(site.info_root, ".cleanup")
    descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
    try:
        # Removes the rights of the group, because the lines contain the token, and another program may have created the
        # list with these rights.
        os.fchmod(descriptor, 0o600)
        size = os.fstat(descriptor).st_size
        if size > 0:
            text = "\n" + text  # the previous writer may have been interrupted in the middle of a line
        _append(descriptor, text.encode(), size)
    finally:
        os.close(descriptor)


def _append(descriptor, data, size):
    """Appends all of the data to a file of `size` bytes, or nothing, because half a line could match another backup."""
    try:
        if os.write(descriptor, data) != len(data):
            raise OSError(errno.ENOSPC, "No space left for the list of unfinished backups")
        os.fsync(descriptor)
    except OSError:
        os.ftruncate(descriptor, size)
        raise


def work_of(work, user, date):
    """Returns the directory of a job. Each attempt has a directory in it, with its info file."""
    return os.path.join(work, f"{date}.{user}")


def _info_paths(top):
    name = os.path.basename(top) + ".info"
    return [os.path.join(top, attempt, name) for attempt in sorted(os.listdir(top))] if os.path.isdir(top) else []


def left_over(work, backups):
    """Returns the jobs (user, date, info_paths) whose work directories an interrupted nightly run has left."""
    found = []
    for name in sorted(os.listdir(work)):
        date, _, user = name.partition(".")
        if is_date(date) and is_user(user) and not backups.find(user, date):
            found.append((user, date, _info_paths(os.path.join(work, name))))
    return found


def remove_tree(path):
    """Removes a work directory. An upload or an archiver that still runs may remove or add files at the same time."""
    def ignore_missing(_function, _path, error):
        if not isinstance(error[1], FileNotFoundError):
            raise error[1]
    for attempts_left in reversed(range(_REMOVALS)):
        try:
            return shutil.rmtree(path, onerror=ignore_missing)
        except OSError as error:
            if error.errno != errno.ENOTEMPTY or attempts_left == 0:
                raise


def remove_work(work):
    """Removes the work directories of an interrupted nightly run."""
    for name in os.listdir(work):
        date, _, user = name.partition(".")
        if is_date(date) and is_user(user):
            remove_tree(os.path.join(work, name))
