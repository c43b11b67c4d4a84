"""Directories that another user may change at the same time. They are opened once and accessed only through descriptors."""

import errno
import os
import stat
import tempfile

from .site import Problem

_PATH = os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC
_FLAGS = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
_MAX_LINKS = 40


def open_directory(path):
    """Opens a directory and returns its descriptor. Follows only symbolic links that root or the current user owns.

    A link of another user could lead to any directory of the system. Raises Problem.
    """
    todo = [part for part in reversed(os.path.abspath(path).split("/")) if part]
    parents = [os.open("/", _PATH)]
    links = 0
    try:
        while todo:
            part = todo.pop()
            if part == "..":
                if len(parents) > 1:
                    os.close(parents.pop())
                continue
            target = _link(path, part, parents[-1])
            if target is None:
                parents.append(os.open(part, _PATH | os.O_NOFOLLOW, dir_fd=parents[-1]))
                continue
            links += 1
            if links > _MAX_LINKS:
                raise Problem(f"'{path}' has too many levels of symbolic links")
            if target.startswith("/"):
                while len(parents) > 1:
                    os.close(parents.pop())
            todo += [word for word in reversed(target.split("/")) if word not in ("", ".")]
        return os.open(".", _FLAGS, dir_fd=parents[-1])
    except OSError as error:
        raise Problem(f"the directory '{path}' cannot be opened: {error.strerror}") from None
    finally:
        for descriptor in parents:
            os.close(descriptor)


def _link(path, part, parent):
    """Returns the target of a symbolic link, None for any other entry."""
    status = os.stat(part, dir_fd=parent, follow_symlinks=False)
    if not stat.S_ISLNK(status.st_mode):
        return None
    if status.st_uid not in (0, os.geteuid()):
        raise Problem(f"'{path}' leads through the symbolic link '{part}' of user {status.st_uid}, who could let it "
                      "point to any directory; name the directory itself")
    return os.readlink(part, dir_fd=parent)


def make_private(parent, prefix):
    """Creates a directory with mode 0700 in an open directory. Returns (name, descriptor)."""
    name = os.path.basename(tempfile.mkdtemp(prefix=prefix, dir=path_of(parent)))
    descriptor = os.open(name, _FLAGS, dir_fd=parent)
    status = os.fstat(descriptor)
    # The owner of the parent can replace its entries at any time, so check the directory that was opened.
    if status.st_uid != os.geteuid() or status.st_mode & 0o077:
        os.close(descriptor)
        raise Problem(f"another user has replaced the directory '{name}' while it was made; restore into a directory that "
                      "no other user can change")
    return name, descriptor


def make_below(parent, name):
    """Creates a directory in an open directory and returns its descriptor."""
    os.mkdir(name, 0o700, dir_fd=parent)
    return os.open(name, _FLAGS, dir_fd=parent)


def path_of(descriptor):
    """Returns a path to an open directory. It stays valid when the directory is renamed."""
    return f"/proc/self/fd/{descriptor}"


# --- Merging a restored tree into a directory with files ---

def merge(source, target):
    """Moves all entries of `source` into `target`. Both are open directories of one file system.

    Replaces existing files and keeps the files that `source` does not contain. Follows no link in `target`. Raises
    Problem when a directory would replace a file, or a file a directory.
    """
    for name in sorted(os.listdir(source)):
        place = _mode(name, target)
        if place is not None and stat.S_ISDIR(_mode(name, source)) != stat.S_ISDIR(place):
            raise Problem(f"'{name}' is a directory here or in the backup, and not in the other; move it away")
        if place is None or not stat.S_ISDIR(place):
            os.replace(name, name, src_dir_fd=source, dst_dir_fd=target)
            continue
        below = os.open(name, _FLAGS, dir_fd=source)
        try:
            _merge_below(name, below, target)
        finally:
            os.close(below)


def _merge_below(name, source, parent):
    target = os.open(name, _FLAGS, dir_fd=parent)
    try:
        merge(source, target)
        copy_attributes(source, target)
    finally:
        os.close(target)


def _mode(name, directory):
    """Returns the mode of an entry, None when the entry does not exist."""
    try:
        return os.stat(name, dir_fd=directory, follow_symlinks=False).st_mode
    except FileNotFoundError:
        return None


def copy_attributes(source, target):
    """Copies owner, mode, extended attributes and times of an open directory."""
    status = os.fstat(source)
    if os.geteuid() == 0:
        os.fchown(target, status.st_uid, status.st_gid)
    os.fchmod(target, stat.S_IMODE(status.st_mode))
    for name in os.listxattr(source):
        try:
            os.setxattr(target, name, os.getxattr(source, name))
        except OSError as error:
            if error.errno not in (errno.EPERM, errno.EACCES, errno.ENOTSUP):  # only root can set some of them
                raise
    os.utime(target, ns=(status.st_atime_ns, status.st_mtime_ns))
