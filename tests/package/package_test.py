"""The Debian package: two builds are identical, lintian reports nothing, and a new Debian 12 can install it.

The tests run in the order of their names, because each continues with the system that the previous one left.
"""

import glob
import os
import re
import shutil
import signal
import stat
import subprocess
import tempfile
import time
import unittest

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
BUILD = os.environ["QUARN2_CP_BUILD"]
PROGRAMS = ("quarn2_cp", "quarn2_report", "quarn2-night", "quarn2-node", "quarn2-restore", "quarn2-setup")
# The packages that apt would install together with both packages.
SYSTEM = "python3,libexpat1,libssl3,dar,zstd,python3-jinja2,python3-prometheus-client,python3-pygal"
PREFIX = "quarn2-cp-package-"
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"


def run(*command, **options):
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}: {result.stdout}{result.stderr}")
    return result.stdout


def fast_directory():
    """Returns a directory in memory when it has room for the new system, None for the usual one."""
    space = os.statvfs("/dev/shm") if os.path.isdir("/dev/shm") else None
    flags = os.ST_NODEV | os.ST_NOEXEC
    return "/dev/shm" if space and space.f_bavail * space.f_frsize > 3 * 2**30 and not space.f_flag & flags else None


def remove_left_over():
    """Removes the systems of earlier runs that were killed, for example by the time limit of CTest."""
    for place in (tempfile.gettempdir(), "/dev/shm"):
        for path in glob.glob(os.path.join(place, PREFIX + "*")):
            process = os.path.basename(path).removeprefix(PREFIX).partition("-")[0]
            if not os.path.exists(f"/proc/{process}"):
                for name in ("proc", "sys", "dev/pts", "dev"):
                    subprocess.run(["umount", "--quiet", os.path.join(path, "system", name)], check=False,
                                   stderr=subprocess.DEVNULL)
                shutil.rmtree(path)


def end(process):
    """Ends a process with SIGINT, so that it unmounts the file systems that it has mounted."""
    if process.poll() is None:
        process.send_signal(signal.SIGINT)
        process.communicate()
    process.stdout.close()


def mirror():
    """Returns the address of the Debian mirror that this machine's apt uses."""
    sites = run("apt-get", "indextargets", "--format", "$(SITE)", "Created-By: Packages", "Codename: bookworm",
                "Component: main").split()
    if not sites:
        raise AssertionError("apt knows no packages of Debian 12: run apt-get update")
    return sites[0]


def proxies():
    """Returns options of mmdebstrap for the proxies that this machine's apt uses."""
    lines = run("apt-config", "dump", "--no-empty", "Acquire").splitlines()
    return ["--aptopt=" + line.rstrip(";") for line in lines if "::Proxy" in line]


def with_version(package, version, folder):
    """Returns a copy of the package with another version."""
    tree = os.path.join(folder, "tree")
    run("dpkg-deb", "-R", package, tree)
    control = os.path.join(tree, "DEBIAN/control")
    with open(control, encoding="utf-8") as file:
        lines = [f"Version: {version}\n" if line.startswith("Version: ") else line for line in file]
    with open(control, "w", encoding="utf-8") as file:
        file.writelines(lines)
    target = os.path.join(folder, f"quarn2-cp_{version}_all.deb")
    run("dpkg-deb", "-b", "-Znone", tree, target)
    shutil.rmtree(tree)
    return target


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        remove_left_over()
        cls.folder = tempfile.mkdtemp(prefix=f"{PREFIX}{os.getpid()}-", dir=fast_directory())
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        os.chmod(cls.folder, 0o755)
        cls.root = os.path.join(cls.folder, "system")
        # Most of the time is waiting for downloads, so the packages are built meanwhile.
        cls.system = subprocess.Popen(
            ["mmdebstrap", "--mode=root", "--variant=essential", "--dpkgopt=force-unsafe-io", "--quiet",
             '--aptopt=Acquire::Languages "none"', *proxies(), "--include=" + SYSTEM, "bookworm", cls.root, mirror()],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        cls.addClassCleanup(end, cls.system)
        cls.built = run(os.path.join(TOP, "scripts/package"), "--from", BUILD, "--compare", cls.folder + "/out")
        cls.package, = glob.glob(cls.folder + "/out/quarn2-cp_*.deb")
        cls.report_package, = glob.glob(cls.folder + "/out/quarn2-cp-report_*.deb")

    def path(self, name):
        return self.root + name

    def inside(self, *command):
        return run("chroot", self.root, *command, env={"PATH": PATH})

    def install(self, package):
        shutil.copy(package, self.path("/package.deb"))
        self.inside("dpkg", "-i", "/package.deb")

    def mode(self, name):
        status = os.lstat(self.path(name))
        return oct(stat.S_IMODE(status.st_mode)), status.st_uid, status.st_gid

    def check_layout(self):
        for name, target in (("var", "/var/lib/kro5/var"), ("tmp", "/var/lib/kro5/tmp"), ("etc", "/etc/kro5")):
            self.assertEqual(target, os.readlink(self.path("/usr/lib/kro5/" + name)))
        self.assertEqual("/usr/lib/kro5", os.readlink(self.path("/usr/local/kro5")))
        for name, mode in (("/var/lib/kro5/tmp", "0o700"), ("/var/lib/kro5/var", "0o750"), ("/etc/kro5", "0o750")):
            self.assertEqual((mode, 0, 0), self.mode(name))

    def test_1_two_builds_are_identical_and_lintian_reports_nothing(self):
        self.assertIn("two builds are identical", self.built)
        changes, = glob.glob(self.folder + "/out/*.changes")
        self.assertEqual("", run("lintian", "--allow-root", "--fail-on", "error,warning", changes))

    def test_1_the_units_are_valid_and_the_documented_exposure_is_true(self):
        units = []
        for kind in ("service", "timer"):
            with open(os.path.join(TOP, f"debian/quarn2-cp.quarn2-night.{kind}"), encoding="utf-8") as file:
                text = file.read()
            units.append(os.path.join(self.folder, f"quarn2-night.{kind}"))
            with open(units[-1], "w", encoding="utf-8") as file:
                # Replaces the program of the unit, because systemd-analyze checks that the program exists.
                file.write(text.replace("ExecStart=/usr/lib/kro5/sbin/quarn2-night", "ExecStart=/bin/true"))
        self.assertEqual("", run("systemd-analyze", "verify", "--man=no", *units))
        table = run("systemd-analyze", "security", "--offline=true", "--no-pager", units[0])
        exposure, = re.findall(r"Overall exposure level for quarn2-night.service: ([0-9.]+)", table)
        with open(os.path.join(TOP, "docs/install.md"), encoding="utf-8") as file:
            self.assertIn(f"exposure level of {exposure} ", file.read())

    def test_2_the_installed_programs_back_up_and_restore(self):
        output = self.system.communicate()[0]
        self.assertEqual(0, self.system.returncode, output)
        self.install(self.package)
        self.check_layout()
        version = run("dpkg-deb", "-f", self.package, "Version").strip()
        for program in ("/usr/local/kro5/sbin/quarn2_cp", "/usr/sbin/quarn2_cp"):
            self.assertEqual(f"quarn2_cp {version}\n", self.inside(program, "--version"))
        for program in PROGRAMS:
            self.assertIn("usage" if "-" in program else "Tovarn", self.inside("/usr/sbin/" + program, "--help"))
        shutil.copy(os.path.join(TOP, "debian/tests/night"), self.path("/night"))
        run("mount", "-t", "proc", "proc", self.path("/proc"))
        try:
            self.assertIn("1 backed up", self.inside("/night"))
        finally:
            run("umount", self.path("/proc"))

    def test_3_the_report_package_writes_metrics_and_a_page(self):
        self.install(self.report_package)
        self.assertIn('\nquarn2_users{storage=""} 1.0\n', self.inside("quarn2_metrics"))
        self.inside("quarn2_page", "/page.html")
        self.assertIn(b"web1", self.content(self.path("/page.html")))
        self.inside("dpkg", "-P", "quarn2-cp-report")
        self.assertFalse(os.path.lexists(self.path("/usr/sbin/quarn2_page")))

    def test_4_a_missing_library_is_named(self):
        for scheme, package in (("s3", "libcurl4"), ("sftp", "libssh-4")):
            result = subprocess.run(["chroot", self.root, "/usr/sbin/quarn2_cp", "--get", "/tmp//file"],
                                    env={"PATH": PATH,
                                         "BACKUP_TOKEN": f"{scheme}://user:secret@127.0.0.1:9/bucket"},
                                    stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
            self.assertEqual(1, result.returncode)
            self.assertIn(package, result.stderr)
            self.assertNotIn("secret", result.stderr)

    @staticmethod
    def content(path):
        if not os.path.isfile(path):
            return None
        with open(path, "rb") as file:
            return file.read()

    def state(self):
        """Returns the mode and content of every file of the program's state and configuration."""
        found = {}
        for top in ("/var/lib/kro5", "/etc/kro5"):
            for directory, folders, names in os.walk(self.path(top)):
                for name in folders + names:
                    path = os.path.join(directory, name)
                    data = self.content(path)
                    found[path.removeprefix(self.root)] = (os.lstat(path).st_mode, data)
        return found

    def test_5_an_upgrade_changes_no_state_and_no_rights(self):
        os.chmod(self.path("/var/lib/kro5/var"), 0o700)
        before = self.state()
        self.install(with_version(self.package, "99.0", self.folder))
        self.assertEqual(before, self.state())
        os.chmod(self.path("/var/lib/kro5/var"), 0o750)
        self.check_layout()

    def write(self, name, text, mode=0o644):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path(name), mode)

    def wait_for_file(self, name, process):
        end = time.monotonic() + 60
        while not os.path.exists(self.path(name)):
            if process.poll() is not None or time.monotonic() > end:
                self.fail(f"there is no {name}: {process.communicate()[0]}")
            time.sleep(0.05)

    def test_6_an_upgrade_in_the_middle_of_a_night_does_not_disturb_it(self):
        self.write("/users/web2/file", "content")
        self.write("/hook", "#!/bin/sh\ntouch /begun\nwhile [ ! -e /upgraded ]; do sleep 0.1; done\n", 0o755)
        self.write("/night.conf", "[storage]\ntoken-file = /etc/kro5/token\n[users]\ndirectory = /users\n"
                                  "[hooks]\nbefore-user = /hook\n")
        run("mount", "-t", "proc", "proc", self.path("/proc"))
        try:
            night = subprocess.Popen(["chroot", self.root, "quarn2-night", "--config", "/night.conf"],
                                     stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, env={"PATH": PATH})
            self.addCleanup(end, night)
            self.wait_for_file("/begun", night)
            self.install(with_version(self.package, "99.1", self.folder))
            self.write("/upgraded", "")
            output = night.communicate()[0]
            self.assertEqual(0, night.returncode, output)
            self.assertIn("1 backed up", output)
            date = self.inside("quarn2-restore", "--config", "/night.conf", "--list").split("\t")[1]
            self.inside("quarn2-restore", "--config", "/night.conf", "web2", date, "/restored")
        finally:
            run("umount", self.path("/proc"))
        self.assertEqual(b"content", self.content(self.path("/restored/file")))

    def test_7_a_removal_keeps_the_state(self):
        before = self.state()
        self.inside("dpkg", "-r", "quarn2-cp")
        self.assertEqual(before, self.state())
        self.assertFalse(os.path.lexists(self.path("/usr/local/kro5")))
        self.assertFalse(os.path.lexists(self.path("/usr/lib/kro5")))
        self.install(self.package)
        self.check_layout()
        self.assertEqual(before, self.state())

    def test_8_a_purge_keeps_backups_and_the_token(self):
        before = self.state()
        self.assertIn("/var/lib/kro5 is kept", self.inside("dpkg", "-P", "quarn2-cp"))
        gone = {name for name in before if name not in self.state()}
        # The purge may also remove the directory of the control socket, which is empty after the end of the server.
        self.assertLessEqual({"/etc/kro5/night.conf", "/var/lib/kro5/var/quarn2_cp.log"}, gone)
        self.assertLessEqual(gone, {"/etc/kro5/night.conf", "/var/lib/kro5/var/quarn2_cp.log", "/var/lib/kro5/tmp"})
        self.assertFalse(os.path.exists(self.path("/etc/logrotate.d/quarn2-cp")))

    def test_9_a_foreign_link_of_the_administrator_stays(self):
        os.symlink("/opt/other", self.path("/usr/local/kro5"))
        self.install(self.package)
        self.assertEqual("/opt/other", os.readlink(self.path("/usr/local/kro5")))
        self.inside("dpkg", "-r", "quarn2-cp")
        self.assertEqual("/opt/other", os.readlink(self.path("/usr/local/kro5")))


if __name__ == "__main__":
    unittest.main()
