"""Replaces a file atomically and durably."""

import contextlib
import os
import tempfile


def replace(path, text, mode=None, directory_mode=0o700):
    """Replaces a file. A link stays; its target is replaced. Without `mode`, the file keeps its mode or gets 0600.

    A missing directory is created with `directory_mode`.
    """
    path = os.path.realpath(path)
    directory = os.path.dirname(path)
    os.makedirs(directory, directory_mode, exist_ok=True)
    if mode is None and os.path.exists(path):
        mode = os.stat(path).st_mode & 0o777
    descriptor, temporary = tempfile.mkstemp(prefix=".quarn2-new.", dir=directory)
    try:
        with open(descriptor, "w", encoding="utf-8", errors="surrogateescape") as file:
            os.fchmod(file.fileno(), 0o600 if mode is None else mode)
            file.write(text)
            file.flush()
            os.fsync(file.fileno())
        os.replace(temporary, path)
    except BaseException:
        # After the rename, the temporary name does not exist.
        with contextlib.suppress(FileNotFoundError):
            os.remove(temporary)
        raise
    _sync_directory(directory)


def _sync_directory(path):
    descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
