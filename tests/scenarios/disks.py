"""Mounts small file systems that a test can fill. Only the test process and its children see them."""

import ctypes
import os

CLONE_NEWNS = 0x20000
MS_REC, MS_PRIVATE, MNT_DETACH = 0x4000, 1 << 18, 2

_libc = ctypes.CDLL(None, use_errno=True)
_may_mount = False


def prepare():
    """Moves this process to its own mount namespace. Without the right to mount, Disk.fill() does nothing."""
    global _may_mount
    _may_mount = _libc.unshare(CLONE_NEWNS) == 0 \
        and _libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None) == 0


class Disk:
    FILLER = "filler"

    def __init__(self, path, megabytes):
        self.path = path
        self.is_full = False
        os.makedirs(path, exist_ok=True)
        self.is_mounted = _may_mount and _libc.mount(
            b"none", os.fsencode(path), b"tmpfs", 0, f"size={megabytes}m".encode()) == 0

    def fill(self):
        """Uses all free space, so that every later write that needs another page fails."""
        if not self.is_mounted or self.is_full:
            return
        self.is_full = True
        state = os.statvfs(self.path)
        with open(os.path.join(self.path, self.FILLER), "wb") as file:
            os.posix_fallocate(file.fileno(), 0, max(1, state.f_bavail * state.f_frsize))

    def empty(self):
        if self.is_full:
            self.is_full = False
            os.unlink(os.path.join(self.path, self.FILLER))

    def close(self):
        if self.is_mounted:
            _libc.umount2(os.fsencode(self.path), MNT_DETACH)
