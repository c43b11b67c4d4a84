"""Makes the archive of one backup and puts its slices. At most two slices of a user exist locally at a time."""

import os
import shutil
import subprocess
import tarfile

from .directories import path_of
from .processes import describe
from .site import Problem, clean_environment

_BLOCK = 2**20
_MAX_STATE = 2**32
# The name of tar's snapshot file in the index of a backup.
_STATE = "state.snar"

# dar_xform passes this text to a shell, after it has replaced only %c and %n. All names and paths are in the
# environment, so the shell never parses them.
_PUT_SLICE = '"$JOB_PROGRAM" --put --%c --info-file "$JOB_INFO" "$JOB_ARCHIVE.%n.dar" && echo %c >>"$JOB_DONE"'


class Job:
    """The inputs of an archiver: names of one backup, open directory of the user, work directory, child processes."""

    def __init__(self, site, children, settings, user, date, directory, base, work, messages):
        self.site, self.children, self.settings = site, children, settings
        self.user, self.date, self.base = user, date, base
        self.directory, self.source = directory, path_of(directory)
        self.work, self.messages = work, messages
        self.info = os.path.join(work, f"{date}.{user}.info")
        self.archive = os.path.join(work, f"{'I' if base else 'F'}{date}.{user}")
        self.index = os.path.join(site.info_root, f"{date}.{user}")

    def start(self, command, **options):
        options.setdefault("env", clean_environment())
        return self.children.start(command, stderr=self.messages.file, pass_fds=[self.directory], **options)

    def put(self, *arguments):
        status = self.children.run([self.site.program, "--put", *arguments], env=clean_environment(),
                                   stderr=self.messages.file)
        if status != 0:
            raise Problem(f"the put of {os.path.basename(arguments[-1])} {describe(status)}{self.messages.last()}")

    def expect(self, process, name, accepted):
        status = self.children.wait(process)
        if status not in accepted:
            raise Problem(f"{name} {describe(status)}{self.messages.last()}")


def make_dar(job):
    """Makes the archive with dar and puts its slices. Returns the path of the catalogue, which is put last.

    dar sometimes seeks back and overwrites its output. So it writes to a pipe, where it cannot seek, and dar_xform
    cuts the slices: each slice is final when it is closed.
    """
    settings = job.settings
    done = os.path.join(job.work, "done")
    catalogue = os.path.join(job.work, f"{job.date}.{job.user}")
    command = ["dar", "-N", "-Q", "-q", "-w", "-c", "-", "-R", job.source, "-@", catalogue]
    if settings.compression:
        command += ["-z{}:{}".format(*settings.compression)]
    if job.base:
        command += ["-A", job.base.stem]
    for pattern in settings.exclude:
        command += ["-P", pattern]
    dar = job.start(command, stdout=subprocess.PIPE)
    environment = dict(clean_environment(), JOB_PROGRAM=job.site.program, JOB_INFO=job.info, JOB_ARCHIVE=job.archive,
                       JOB_DONE=done)
    try:
        xform = job.start(["dar_xform", "-Q", "-s", str(settings.slice_size), "-E", _PUT_SLICE, "-", job.archive],
                          stdin=dar.stdout, stdout=job.messages.file, env=environment)
    finally:
        # Only dar_xform keeps the read end open, so dar ends when dar_xform ends.
        dar.stdout.close()
    job.children.wait(xform)
    # Status 11 only means that a file changed while dar read it.
    job.expect(dar, "dar", (0, 11))
    job.expect(xform, "dar_xform", (0,))
    # dar_xform does not report when the put of the last slice fails.
    if _last_line(done) != "last_slice":
        raise Problem(f"the last slice could not be put{job.messages.last()}")
    return _keep_index(catalogue + ".1.dar", job.index + ".1.dar")


def _keep_index(made, target):
    """Moves the complete index from the work directory to the info root, and returns its path there."""
    shutil.move(made, target)
    descriptor = os.open(target, os.O_RDONLY | os.O_CLOEXEC)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
    return target


def _last_line(path):
    try:
        with open(path, encoding="ascii") as file:
            return (file.read().splitlines() or [""])[-1]
    except FileNotFoundError:
        return ""


def make_tar(job):
    """Makes the archive with tar and zstd and puts its slices. Returns the path of the index."""
    state = os.path.join(job.work, _STATE)
    if job.base:
        _read_state(job.base.index, state)
    command = ["tar", "--create", "--file=-", "--sparse", "--xattrs", "--acls", f"--listed-incremental={state}",
               f"--directory={job.source}"]
    # Every name in the archive begins with "./", so a pattern with this prefix matches only from the user's directory
    # on. Does not use --anchored, because with it tar omits the directories.
    command += [f"--exclude=./{pattern}" for pattern in job.settings.exclude]
    tar = job.start(command + ["."], stdout=subprocess.PIPE)
    running = [tar]
    try:
        zstd = job.start(["zstd", "-q", "-c", f"-{job.settings.compression[1]}"], stdin=tar.stdout,
                         stdout=subprocess.PIPE)
        running.append(zstd)
        tar.stdout.close()
        _put_parts(job, tar, zstd)
    finally:
        for process in running:
            process.stdout.close()
        job.children.end([process for process in running if process.returncode is None])
    index = os.path.join(job.work, f"{job.date}.{job.user}.tgz")
    with tarfile.open(index, mode="x:gz", compresslevel=6) as file:
        file.add(state, arcname=_STATE)
    return _keep_index(index, job.index + ".tgz")


def _put_parts(job, tar, zstd):
    number, block = 1, zstd.stdout.read1(_BLOCK)
    while True:
        path = f"{job.archive}.tar.zst.part{number}"
        with open(path, "xb") as file:
            left = job.settings.slice_size
            while block and left:
                file.write(block[:left])
                left, block = left - len(block[:left]), block[left:] or zstd.stdout.read1(_BLOCK)
        if not block:
            break
        job.put("--operation", "--info-file", job.info, path)
        number += 1
    # The last slice makes the archive look complete, so it is put only when both programs have succeeded. Status 1
    # of tar means that a file changed while tar read it.
    job.expect(tar, "tar", (0, 1))
    job.expect(zstd, "zstd", (0,))
    job.put("--last_slice", "--info-file", job.info, path)


def _read_state(index, state):
    """Extracts tar's snapshot file from the index of the full backup."""
    try:
        with tarfile.open(index, "r:gz") as file:
            member = file.getmember(_STATE)
            if not member.isreg() or member.size > _MAX_STATE:
                raise Problem(f"the index '{index}' has no snapshot file of tar")
            with open(state, "xb") as target:
                shutil.copyfileobj(file.extractfile(member), target)
    except (OSError, KeyError, EOFError, tarfile.TarError) as error:
        raise Problem(f"the index '{index}' cannot be read: {error}; make a full backup with --full") from None


MAKERS = {"dar": make_dar, "tar.zst": make_tar}
_TOOLS = {"dar": ("dar", "dar_xform"), "tar.zst": ("tar", "zstd")}


def missing_tools(archive_format):
    """Returns an error text for each missing program that this format needs."""
    return [f"there is no program {tool}; install the Debian package {tool.removesuffix('_xform')}"
            for tool in _TOOLS[archive_format] if not shutil.which(tool)]
