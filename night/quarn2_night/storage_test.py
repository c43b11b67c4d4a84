"""Tests a storage: makes, restores, compares and deletes a small backup."""

import copy
import datetime
import os
import subprocess
import sys
import urllib.parse

from .archive import missing_tools
from .directories import open_directory
from .job import DONE
from .night import Night
from .processes import describe
from .restore import Restore
from .site import Problem, clean_environment, say

USER = "quarn2-setup-test"
_CONTENT = "a file of the test of quarn2-setup\n" * 100


class TestNight(Night):
    """A nightly run with its own info root and without limits, so that it does not see, and cannot delete, other
    backups."""

    def server_arguments(self):
        return ["--date", self.date, "--size-limit", "0", "--count-limit", "0:1000000", "--path", self.site.info_root]


def test_storage(site, children, settings, token, work):
    """Raises Problem when a step fails. Leaves nothing on the storage."""
    site, settings = copy.copy(site), copy.copy(settings)
    site.info_root, site.state = os.path.join(work, "info"), os.path.join(work, "state")
    settings.work_directory, settings.retries = None, 0
    settings.hooks_before_user = settings.hooks_after_user = settings.hooks_after_night = None
    missing = missing_tools(settings.format)
    if missing:
        raise Problem("\n".join(missing))
    source = os.path.join(work, "source")
    os.makedirs(source)
    with open(os.path.join(source, "file"), "w", encoding="ascii") as file:
        file.write(_CONTENT)
    token_file = os.path.join(work, "token")
    with open(token_file, "w", encoding="utf-8") as file:
        file.write(token + "\n")
    night = TestNight(site, settings, token, datetime.date.today().isoformat(), True)
    night.children = children
    say("test: making a backup of a small directory")
    outcomes = night.run([(USER, source)], [])
    if outcomes[0].state != DONE:
        raise Problem(f"the test backup failed: {outcomes[0].text}")
    try:
        restore(night, token_file, work)
    finally:
        delete(night, token)


def restore(night, token_file, work):
    say("test: restoring it and comparing the files")
    backup = night.backups.find(USER, night.date)
    target, unpack = os.path.join(work, "restored"), os.path.join(work, "unpack")
    os.mkdir(target)
    os.mkdir(unpack)
    here = os.path.dirname(os.path.realpath(sys.argv[0]))
    descriptor = open_directory(target)
    try:
        Restore(night.site, os.path.join(here, "quarn2-restore"), token_file, unpack, descriptor, target, []).run(backup)
    finally:
        os.close(descriptor)
    with open(os.path.join(target, "file"), encoding="ascii", errors="replace") as file:
        if file.read() != _CONTENT:
            raise Problem("the restored file differs from the original; this storage cannot be used")


def delete(night, token):
    say("test: deleting it from the storage")
    info = os.path.join(night.site.info_root, f"{night.date}.{USER}.info")
    status = subprocess.run([night.site.program, "--delete", info], stdin=subprocess.DEVNULL, check=False,
                            env=dict(clean_environment(), BACKUP_TOKEN=token)).returncode
    if status != 0 or os.path.exists(info):
        raise Problem(f"the test backup could not be deleted: --delete {describe(status)}; remove the files of "
                      f"{USER} from the storage")


def free_space(token, root):
    """Returns (free bytes, bytes of the stored files) of a local storage, None for any other storage."""
    parts = urllib.parse.urlsplit(token)
    if parts.scheme != "local":
        return None
    path = os.path.join(root, urllib.parse.unquote(parts.path))
    try:
        status = os.statvfs(path)
        stored = sum(os.lstat(os.path.join(directory, name)).st_size
                     for directory, _, names in os.walk(path) for name in names)
    except OSError:
        return None  # the free space is not known; test_storage() reports the reason
    return status.f_bavail * status.f_frsize, stored
