"""Holds a network and a mount namespace until standard input closes:  namespace.py ROOT [HOME]

In the namespaces ROOT is mounted at /usr/local/kro5, and HOME, if given, at root's home directory. Prints
"ready", or the error.
"""

import ctypes
import os
import pwd
import subprocess
import sys
import tempfile

CLONE_NEWNS, CLONE_NEWNET = 0x00020000, 0x40000000
MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
LIBC = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result != 0:
        raise OSError(ctypes.get_errno(), f"{what}: {os.strerror(ctypes.get_errno())}")


def mount(source, target, kind=None, flags=0):
    names = [name.encode() if name else None for name in (source, target, kind)]
    check(LIBC.mount(*names, ctypes.c_ulong(flags), None), f"mount at {target}")


def bind(source, target):
    if os.path.isdir(source):
        os.makedirs(target, exist_ok=True)
    else:
        with open(target, "x", encoding="ascii"):
            pass
    mount(source, target, flags=MS_BIND | MS_REC)


def cover_usr_local(root):
    """Mounts an empty /usr/local, binds the previous entries into it, and binds the root to /usr/local/kro5. The
    function creates no files on the machine's own disk."""
    before = tempfile.mkdtemp(prefix="before-", dir=os.path.dirname(root))
    mount("/usr/local", before, flags=MS_BIND | MS_REC)
    mount("tmpfs", "/usr/local", "tmpfs")
    for name in os.listdir(before):
        path = os.path.join(before, name)
        if os.path.islink(path):
            os.symlink(os.readlink(path), os.path.join("/usr/local", name))
        elif name != "kro5":
            bind(path, os.path.join("/usr/local", name))
    bind(root, "/usr/local/kro5")


def main(root, home=None):
    check(LIBC.unshare(CLONE_NEWNS | CLONE_NEWNET), "unshare")
    mount(None, "/", flags=MS_REC | MS_PRIVATE)
    cover_usr_local(root)
    if home:
        mount(home, pwd.getpwuid(0).pw_dir, flags=MS_BIND)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    print("ready", flush=True)
    sys.stdin.read()


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except (OSError, subprocess.CalledProcessError) as error:
        print(f"error: {error}", flush=True)
        sys.exit(1)
