"""Restores one backup: fetches its archive slice by slice and unpacks it."""

import os
import shutil
import subprocess

from .directories import path_of
from .names import is_archive_of
from .processes import describe
from .site import Problem, clean_environment, read_token

# dar passes this text to a shell, after it has replaced only %c and %n. All names and paths are in the environment,
# so the shell never parses them.
_GET_SLICE = '"$RESTORE_SELF" --slice %c %n'


def fetch_slice(site, context, number):
    """Fetches the slice that dar needs next; dar starts this program for each slice.

    The context is "init" and the number 0 when dar needs the last slice and does not know its number.
    """
    values = os.environ
    flags = ["--init"] if context == "init" else []
    path = f"{values['RESTORE_WORK']}//{values['RESTORE_BASE']}.{int(number)}.dar"
    return subprocess.run([site.program, "--get", *flags, "--tmp-file", values["RESTORE_FETCHED"], path], check=False,
                          env=dict(clean_environment(), BACKUP_TOKEN=read_token(values["RESTORE_TOKEN_FILE"]))
                          ).returncode


class Restore:
    """Unpacks backups into an open directory, all of them or only `paths`.

    `work` is an empty directory, `place` is the path of `target` for messages.
    """

    def __init__(self, site, program, token_file, work, target, place, paths):
        self.site, self.program, self.token_file = site, program, token_file
        self.work, self.target, self.place, self.paths = work, target, place, paths
        self.fetched = os.path.join(work, "fetched")

    def run(self, backup):
        name = backup.last_slice
        # The name comes from the storage, so refuse a name that does not belong to this backup.
        if not is_archive_of(name, backup.user, backup.date):
            raise Problem(f"{backup.info_path} contains the archive name {name!r}, which does not belong to the "
                          f"backup of {backup.user} for {backup.date}; if the storage can be trusted, correct the line "
                          "last-slice")
        if name.endswith(".dar"):
            self._dar(backup, name)
        else:
            self._tar(name)
        for entry in os.listdir(self.work):
            path = os.path.join(self.work, entry)
            shutil.rmtree(path) if os.path.isdir(path) else os.remove(path)

    def missing_paths(self):
        return [path for path in self.paths if not os.path.lexists(os.path.join(path_of(self.target), path))]

    # -- dar --

    def _dar(self, backup, name):
        base = name.rpartition(".dar")[0].rpartition(".")[0]
        os.makedirs(os.path.join(self.work, os.path.dirname(base)), exist_ok=True)
        command = ["dar", "-N", "-Q", "-q", "-w", "-x", os.path.join(self.work, base), "-R", path_of(self.target), "-E",
                   _GET_SLICE]
        # The catalogue contains the position of each file. Without it dar reads the last slice first.
        if os.path.exists(backup.stem + ".1.dar"):
            command += ["-A", backup.stem]
        if os.geteuid() != 0:
            command.append("-O")  # only root can change the owner of a file
        for path in self.paths:
            command += ["-g", path]
        environment = dict(clean_environment(), RESTORE_SELF=self.program, RESTORE_FETCHED=self.fetched,
                           RESTORE_WORK=self.work, RESTORE_BASE=base, RESTORE_TOKEN_FILE=self.token_file,
                           KRO_ROOT=self.site.root)
        # dar writes messages to its standard output too.
        status = subprocess.run(command, env=environment, stdin=subprocess.DEVNULL, stdout=2, check=False,
                                pass_fds=[self.target]).returncode
        if status != 0:
            raise Problem(f"dar {describe(status)} while it restored {base}; the files restored so far are in "
                          f"{self.place}")

    # -- tar --

    def _tar(self, name):
        """Fetches the parts of the archive one by one, and feeds them to tar."""
        is_zstd = ".tar.zst" in name
        unpack = ["zstd", "-q", "-d", "-c"] if is_zstd else ["gzip", "-d", "-c"]
        errors_path = os.path.join(self.work, "errors")
        with open(errors_path, "wb") as errors:
            unpacker = subprocess.Popen(unpack, stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=clean_environment())
            tar = subprocess.Popen(self._tar_command(), stdin=unpacker.stdout, stderr=errors,
                                   pass_fds=[self.target], env=dict(clean_environment(), LC_ALL="C"))
            unpacker.stdout.close()
            try:
                self._feed(name, unpacker)
            finally:
                unpacker.stdin.close()
                statuses = {unpack[0]: unpacker.wait(), "tar": tar.wait()}
        with open(errors_path, encoding="utf-8", errors="replace") as file:
            self._check_tar(name, statuses, file.read().splitlines())

    def _tar_command(self):
        command = ["tar", "--extract", "--file=-", "--preserve-permissions", "--sparse", "--xattrs",
                   "--xattrs-include=*", "--acls", "--listed-incremental=/dev/null", f"--directory={path_of(self.target)}"]
        if not self.paths:
            return command
        # tar removes deleted files when it extracts their directory, so its command line also contains each directory
        # above the paths.
        parents = {"./"}
        for path in self.paths:
            parts = path.split("/")
            parents.update("./" + "/".join(parts[:count]) + "/" for count in range(1, len(parts)))
        return command + ["--no-recursion", *sorted(parents), "--recursion", *(f"./{path}" for path in self.paths)]

    def _feed(self, name, unpacker):
        stem, part, last = name.rpartition(".part")
        names = [f"{stem}.part{number}" for number in range(1, int(last) + 1)] if part else [name]
        environment = dict(clean_environment(), BACKUP_TOKEN=read_token(self.token_file))
        for each in names:
            status = subprocess.run([self.site.program, "--get", "--tmp-file", self.fetched, f"{self.work}//{each}"],
                                    env=environment, stdin=subprocess.DEVNULL, check=False).returncode
            if status != 0:
                raise Problem(f"{each} cannot be fetched: --get {describe(status)}")
            try:
                with open(os.path.join(self.work, each), "rb") as file:
                    shutil.copyfileobj(file, unpacker.stdin, 2**20)
            except BrokenPipeError:
                return  # the archiver has ended early; its exit status shows the reason

    def _check_tar(self, name, statuses, lines):
        ignored = ["Exiting with failure status due to previous errors"]
        if self.paths:
            # The archive of a daily contains only changed files. missing_paths() finds the paths that no archive of the
            # restore contains.
            ignored.append("Not found in archive")
        errors = [line for line in lines if not line.endswith(tuple(ignored))]
        failed = [program for program, status in statuses.items() if status not in ((0, 2) if program == "tar" else (0,))]
        if failed or errors or (statuses["tar"] == 2 and not self.paths):
            text = "; ".join(errors[-3:]) or ", ".join(f"{name} {describe(statuses[name])}" for name in failed)
            raise Problem(f"{name} cannot be unpacked: {text}; the files restored so far are in {self.place}")
