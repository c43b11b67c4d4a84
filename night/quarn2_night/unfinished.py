"""Backups that were begun and not completed. Each job has a work directory, which stays when the job is killed."""

import os
import re
import shutil

from .info import read_info
from .names import is_date, is_user


def cleanup_lines(token, user, date, info_path):
    """Returns the lines of .cleanup for a backup whose job failed. The server removes the files that they name."""
    name = f"{date}.{user}"
    last = read_info(info_path).get("last-slice", "").split(" ")[0]
    match = re.search(r"(\.[1-9][0-9]{0,6}\.dar|\.tar\.zst\.part[1-9][0-9]{0,6})$", last)
    count = int(re.sub("[^0-9]", "", match.group(1))) if match else 0
    prefixes = [name]
    # A slice may be on the storage although the info file does not name it yet.
    for number in range(1, count + 2):
        prefixes += [f"{name}.{number}.dar", f"{name}.tar.zst.part{number}"]
    escaped = token.replace("\\", "\\\\").replace("\t", "\\t")
    return "".join(f"{escaped}\t{prefix}\n" for prefix in prefixes)


def has_put(site, user, date, info_path):
    """True when the storage may have a file of this backup."""
    entries = (os.path.join(site.ledger, f"{letter}{date}.{user}") for letter in "FI")
    return "last-slice" in read_info(info_path) or any(map(os.path.exists, entries))


def _remove_index(site, user, date):
    for ending in (".1.dar", ".tgz"):
        try:
            os.remove(os.path.join(site.info_root, f"{date}.{user}{ending}"))
        except FileNotFoundError:
            pass


def note(site, token, jobs):
    """Adds the unfinished backups of `jobs`, tuples (user, date, info_path), to .cleanup.

    A line without files on the storage could refer to another backup of that day, so those jobs get none.
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
        # The lines contain the token. A list of another program may have let the group read it.
        os.fchmod(descriptor, 0o600)
        if os.fstat(descriptor).st_size > 0:
            text = "\n" + text  # the previous writer may have been interrupted in the middle of a line
        os.write(descriptor, text.encode())
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def info_path_of(work, user, date):
    return os.path.join(work, f"{date}.{user}", f"{date}.{user}.info")


def left_over(work, backups):
    """Returns the jobs (user, date, info_path) whose work directories an interrupted night has left."""
    found = []
    for name in sorted(os.listdir(work)):
        date, _, user = name.partition(".")
        if is_date(date) and is_user(user) and not backups.find(user, date):
            found.append((user, date, info_path_of(work, user, date)))
    return found


def remove_tree(path):
    """Removes a work directory. An upload that still runs removes its slice at the same time."""
    def ignore_missing(_function, _path, error):
        if not isinstance(error[1], FileNotFoundError):
            raise error[1]
    shutil.rmtree(path, onerror=ignore_missing)


def remove_work(work):
    """Removes the work directories of an interrupted night."""
    for name in os.listdir(work):
        date, _, user = name.partition(".")
        if is_date(date) and is_user(user):
            remove_tree(os.path.join(work, name))
