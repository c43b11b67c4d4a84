"""quarn2-restore: restores a user's files from the storage."""

import argparse
import os
import shutil
import signal
import sys
import tempfile

from . import settings as settings_module
from .directories import copy_attributes, make_below, make_private, merge, open_directory
from .info import Backups, chain_for
from .names import USER_RULE, is_date, is_path_below, is_user
from .processes import Children, Interrupted
from .restore import Restore, fetch_slice
from .server import Server
from .site import CONFIGURATION, Problem, Site, complain, escaped, read_token, say

PROGRAM = "quarn2-restore"
DONE, FAILED, USAGE = 0, 1, 2
# No size limit, and a count limit that no user reaches. The server that runs for the rescan deletes nothing.
_NO_LIMITS = ["--size-limit", "0", "--count-limit", "0:1000000"]


def options():
    parser = argparse.ArgumentParser(
        prog=PROGRAM, usage="%(prog)s [options] USER DATE DIRECTORY [PATH ...]\n       %(prog)s [options] --list [USER]",
        description="Restores the files of a user from the backup of DATE, or from the last backup before DATE.",
        epilog="DATE is YYYY-MM-DD, or custom. Each PATH is relative to the directory that was backed up. "
               "Exit status: 0 restored, 1 failed, 2 the command line or the configuration is invalid.")
    parser.add_argument("words", metavar="USER DATE DIRECTORY [PATH ...]", nargs="*")
    parser.add_argument("--config", metavar="FILE", default=CONFIGURATION, help="configuration (default: %(default)s)")
    parser.add_argument("--token-file", metavar="FILE", help="file with the storage token, instead of the configuration")
    parser.add_argument("--list", action="store_true", help="list the backups of a user, or of all users")
    parser.add_argument("--force", action="store_true",
                        help="restore into a directory that has files, and overwrite files of the same names")
    parser.add_argument("--rescan", action="store_true",
                        help="read the list of backups from the storage, for a machine without the list")
    parser.add_argument("--dailies", choices=("last", "all"), default="last",
                        help="restore only the last daily, or all dailies in order. Use all for backups of other "
                             "programs in which each daily depends on the previous one (default: last)")
    return parser


def parse(arguments):
    parser = options()
    given = parser.parse_intermixed_args(arguments)
    if given.list:
        if len(given.words) > 1:
            parser.error("--list takes at most one user")
    elif len(given.words) < 3:
        parser.error("give USER, DATE and DIRECTORY, or --list")
    if given.words and not is_user(given.words[0]):
        parser.error(f"user {given.words[0]!r} cannot be used: {USER_RULE}")
    if not given.list:
        check_words(parser, given.words[1], given.words[3:])
    return given


def check_words(parser, date, paths):
    if date != "custom" and not is_date(date):
        parser.error(f"date {date!r} cannot be used: expected YYYY-MM-DD or custom")
    for path in paths:
        if not is_path_below(path.removeprefix("./").strip("/")) or path.startswith("/"):
            parser.error(f"path {path!r} cannot be used: expected a path below the user's directory, without '..'")


def list_backups(backups, user):
    users = [user] if user else backups.users()
    for name in users:
        if not is_user(name):
            complain(PROGRAM, f"backups of {name!r} are not listed: {USER_RULE}")
            continue
        custom = backups.find(name, "custom")
        for backup in backups.of_user(name) + ([custom] if custom else []):
            kind = "full" if backup.is_full else "daily"
            print(name, backup.date, kind, escaped(backup.fields.get("size", "?")), sep="\t")


def token_file_of(given):
    return os.path.abspath(given.token_file) if given.token_file else settings_module.load(given.config).token_file


class Task:
    """One run of the program."""

    def __init__(self, site, given, token_file, work):
        self.site, self.given, self.token_file, self.work = site, given, token_file, work
        self.backups = Backups(site.info_root, site.ledger)

    def rescan(self):
        """Reads the info files from the storage into a temporary directory. Does not change the local info root."""
        info_root = os.path.join(self.work, "info")
        os.mkdir(info_root, 0o700)
        children = Children()
        server = Server(self.site, children, read_token(self.token_file), ["--rescan", *_NO_LIMITS], info_root)
        server.start().end()
        self.backups = Backups(info_root)

    def chain(self):
        user, date = self.given.words[:2]
        if date == "custom":
            backup = self.backups.find(user, date)
            if not backup:
                raise Problem(f"there is no backup 'custom' of {user} in {self.backups.info_root}")
            return [backup]
        try:
            return chain_for(self.backups.of_user(user), date, self.given.dailies == "all")
        except Problem as error:
            raise Problem(f"{user}: {error}; in {self.backups.info_root}. quarn2-restore --list shows what is "
                          "there, --rescan reads the list from the storage") from None

    def restore(self):
        chain = self.chain()
        path = os.path.abspath(self.given.words[2])
        target = open_target(path)
        try:
            has_files = bool(os.listdir(target))
            if has_files and not self.given.force:
                raise Problem(f"the directory '{path}' has files; name an empty one, or give --force to overwrite files "
                              "of the same names")
            if has_files or os.geteuid() == 0:
                missing = self.restore_beside(chain, target, path, has_files)
            else:
                missing = self.unpack(chain, target, path)
        finally:
            os.close(target)
        if missing:
            raise Problem("not in the backup: " + ", ".join(f"'{path}'" for path in missing))

    def restore_beside(self, chain, target, path, has_files):
        """Unpacks into a private directory in `target`, and moves the files when they are complete.

        Unpacking an archive removes files that were deleted before the backup, so an archive is never unpacked over
        other files. The target may also belong to the user, who could replace directories with links meanwhile.
        """
        name, private = make_private(target, ".quarn2-restore.")
        place = os.path.join(path, name, "files")
        files = make_below(private, "files")
        try:
            copy_attributes(target, files)
            missing = self.unpack(chain, files, place)
            merge_all(files, target, place)
            if not has_files:
                copy_attributes(files, target)
            shutil.rmtree(name, dir_fd=target)
            return missing
        finally:
            if os.path.isdir(place) and not os.listdir(files):
                shutil.rmtree(name, dir_fd=target)
            os.close(files)
            os.close(private)

    def unpack(self, chain, target, place):
        """Unpacks the backups. Returns the requested paths that no backup contains."""
        paths = [path.removeprefix("./").strip("/") for path in self.given.words[3:]]
        work = os.path.join(self.work, "unpack")
        os.mkdir(work, 0o700)
        restore = Restore(self.site, os.path.realpath(sys.argv[0]), self.token_file, work, target, place, paths)
        for backup in chain:
            say(f"restoring {backup.last_slice}")
            restore.run(backup)
        return restore.missing_paths()


def open_target(path):
    """Opens the target directory, and creates it when it is missing."""
    parent = path
    while not os.path.lexists(parent):
        parent = os.path.dirname(parent)
    os.close(open_directory(parent))
    os.makedirs(path, exist_ok=True)
    return open_directory(path)


def merge_all(files, target, place):
    try:
        merge(files, target)
    except (Problem, OSError) as error:
        raise Problem(f"{error}. The files that are not restored yet are in {place}") from None


def run(given, site, token_file):
    work = tempfile.mkdtemp(prefix="quarn2-restore.", dir=os.environ.get("TMPDIR") or "/var/tmp")
    try:
        task = Task(site, given, token_file, work)
        if given.rescan:
            task.rescan()
        if given.list:
            list_backups(task.backups, given.words[0] if given.words else None)
        else:
            task.restore()
    finally:
        shutil.rmtree(work)


def main(arguments):
    site = Site()
    os.umask(0o077)
    if arguments[:1] == ["--slice"] and len(arguments) == 3:
        return fetch_slice(site, *arguments[1:])
    given = parse(arguments)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(FAILED))
    try:
        site.check()
        # Listing the local backups needs no token.
        token_file = None if given.list and not given.rescan else token_file_of(given)
        if token_file:
            read_token(token_file)
    except Problem as error:
        for line in str(error).split("\n"):
            complain(PROGRAM, line)
        return USAGE
    try:
        run(given, site, token_file)
    except (Problem, OSError, Interrupted) as error:
        complain(PROGRAM, str(error))
        return FAILED
    except KeyboardInterrupt:
        complain(PROGRAM, "interrupted")
        return FAILED
    return DONE
