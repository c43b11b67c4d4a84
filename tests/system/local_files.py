"""Local files: reading and writing them, and listing trees."""

import os
import shutil

from processes import fork_lock


def tree(folder):
    """Returns all files below a folder, as sorted relative names."""
    found = []
    for directory, _, names in os.walk(folder):
        found += [os.path.relpath(os.path.join(directory, name), folder) for name in names]
    return sorted(found)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(data.encode() if isinstance(data, str) else data)
    return path


def write_executable(path, text):
    with fork_lock:
        write(path, text)
        os.chmod(path, 0o700)


def copy_executable(source, target):
    with fork_lock:
        shutil.copy2(source, target)
