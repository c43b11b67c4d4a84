"""Replaces a file in one step."""

import contextlib
import fcntl
import os
import stat


def _check_target(path):
    """Raises OSError for a target whose replacement would destroy something else, such as a device."""
    with contextlib.suppress(FileNotFoundError):
        if not stat.S_ISREG(os.stat(path).st_mode):
            raise OSError(0, "it is not a plain file", path)


def _keep_group(descriptor, path):
    """Gives the new file the group of the previous one, as far as this process can do it."""
    with contextlib.suppress(OSError):
        os.fchown(descriptor, -1, os.stat(path).st_gid)


def replace_file(path, content, mode):
    """Writes the bytes to a temporary file in the same directory and renames it to `path`. Raises OSError.

    A reader sees the complete old or the complete new content. The group of an existing file stays. The directory is
    locked meanwhile, so two programs never use the temporary file at the same time, and the next one removes the file
    that a killed program left.
    """
    # The rename replaces the file that a link points to, and not the link.
    path = os.path.realpath(path)
    _check_target(path)
    directory, name = os.path.split(path)
    # The temporary name does not end with .prom, because collectors read every file *.prom in the directory.
    temporary = os.path.join(directory, f".{name}.new")
    folder = os.open(directory, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        fcntl.flock(folder, fcntl.LOCK_EX)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(temporary)
        try:
            _write(temporary, path, content, mode)
            os.rename(temporary, path)
        except BaseException:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(temporary)
            raise
        os.fsync(folder)
    finally:
        os.close(folder)


def _write(temporary, path, content, mode):
    descriptor = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
    with open(descriptor, "wb") as file:
        file.write(content)
        file.flush()
        _keep_group(descriptor, path)
        os.fchmod(descriptor, mode)
        os.fsync(descriptor)
