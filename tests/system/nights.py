"""The programs of night/ in an install root: their configuration, and nightly runs."""

import os
import subprocess

from archives import call
from local_files import tree, write, write_executable
from processes import start
from system_test import SystemTest
from waiting import DEADLINE

PROGRAMS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../night")
SUNDAY = "2026-11-15"
MONDAY = "2026-11-16"
TUESDAY = "2026-11-17"
FORMATS = ("dar", "tar.zst")


class NightRoot:
    """An install root with a configuration of the nightly backups. `users` is the directory of the users."""

    def __init__(self, root, **lines):
        """The name of each keyword argument is a section of the configuration, its value the lines of that section."""
        self.root = root
        self.users = os.path.join(root.base, "users")
        self.tmp = os.path.join(root.base, "tmp")
        for folder in (self.users, self.tmp):
            os.makedirs(folder, exist_ok=True)
        self.token_file = write(os.path.join(root.base, "token"), root.token + "\n")
        os.chmod(self.token_file, 0o600)
        self.config = os.path.join(root.base, "night.conf")
        self.configure(**lines)

    def configure(self, **lines):
        sections = {"storage": f"token-file = {self.token_file}", "users": f"directory = {self.users}",
                    "backup": "slice-size = 64K", "night": "retries = 0"}
        sections.update(lines)
        write(self.config, "".join(f"[{name}]\n{text}\n" for name, text in sections.items()))

    def environment(self, **changes):
        return self.root.environment(KRO_ROOT=self.root.path, TMPDIR=self.tmp, BACKUP_TOKEN=None, **changes)

    def run(self, program, *arguments, **changes):
        """Runs a program, and checks that it leaves no temporary file."""
        result = call(os.path.join(PROGRAMS, program), "--config", self.config, *arguments,
                      env=self.environment(**changes))
        self.root.test.assertEqual([], os.listdir(self.tmp))
        return result

    def night(self, date, *arguments, **changes):
        return self.run("quarn2-night", "--date", date, *arguments, **changes)

    def start_night(self, date, **changes):
        """Starts a nightly run in the background."""
        process = start([os.path.join(PROGRAMS, "quarn2-night"), "--config", self.config, "--date", date],
                        env=self.environment(**changes), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                        stderr=subprocess.PIPE)
        self.root.test.addCleanup(lambda: (process.stdout.close(), process.stderr.close()))
        return process

    def good_night(self, date, *arguments):
        result = self.night(date, *arguments)
        self.root.test.assertEqual((0, ""), (result.returncode, result.stderr), result.stdout)
        return result

    def restore(self, user, date, target, *paths):
        return self.run("quarn2-restore", user, date, target, *paths)

    def good_restore(self, *arguments):
        result = self.restore(*arguments)
        self.root.test.assertEqual((0, ""), (result.returncode, result.stderr))
        return result

    def user(self, name):
        return os.path.join(self.users, name)

    def hook(self, name, text):
        path = os.path.join(self.root.base, "hook-" + name)
        write_executable(path, "#!/bin/sh\n" + text + "\n")
        return path

    def tool(self, name, text):
        """Returns a PATH on which `name` is this script instead of the real tool."""
        folder = os.path.join(self.root.base, "tools")
        os.makedirs(folder, exist_ok=True)
        write_executable(os.path.join(folder, name), "#!/bin/sh\n" + text + "\n")
        return folder + ":" + os.environ["PATH"]

    def stems(self):
        """Returns the names of the complete backups on the storage."""
        return [name.removesuffix(".info") for name in self.root.stored() if name.endswith(".info")]


def end_of(process):
    """Returns (exit status, standard output, standard error) of a night in the background."""
    out, err = process.communicate(timeout=DEADLINE)
    return process.returncode, out.decode(), err.decode()


class NightTest(SystemTest):
    def site(self, name="root", **lines):
        return NightRoot(self.root(name), **lines)

    def assert_nothing_left(self, site, *stems):
        """The storage has these complete backups, no other file, and nothing counts as unfinished."""
        self.assertEqual(sorted(stems), site.stems())
        others = [name for name in site.root.stored()
                  if not any(name.lstrip("FI").startswith(stem + ".") for stem in stems)]
        self.assertEqual([], others)
        self.assertEqual([], site.root.unfinished())
        self.assertNotIn(".cleanup", site.root.local())
        self.assertEqual(["lock"], tree(site.root.file("var/night")))
