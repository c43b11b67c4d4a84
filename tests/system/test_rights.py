"""Access rights: the mode and owner of every file that the program creates, and what another user of the
machine can access. The tests run commands as `nobody`, so they must run as root."""

import os
import re
import resource
import shutil
import signal
import socket
import stat
import subprocess
import unittest

from archives import Maker, first_day, hold, rescan
from local_files import read, tree, write, write_executable
from processes import children, command_line, start, wait_gone
from samples import Backup
from server_command import Server
from system_test import SystemTest
from waiting import DEADLINE, Watch, wait_for

SUNDAY = "2026-11-15"
NOBODY = 65534
SECRET = "hidden+word"
ARCH = f"?arch_password={SECRET}"

# The files that the program creates below the folder of a root, with their modes before the umask. Every other
# file fails the test.
MADE = [(re.compile(pattern), kind, mode) for pattern, kind, mode in (
    (r"root/(var|etc)", "directory", 0o750),
    (r"root/tmp", "directory", 0o700),
    (r"root/var/quarn2_cp\.(log|pid|lock|events)", "file", 0o600),
    (r"root/tmp/quarn2_cp\.sock", "socket", 0o600),
    (r"root/tmp/(quarn2_cp\.state|\.quarn2_cp\.state\.part~)", "file", 0o600),
    (r"root/var/quarn2_cp\.removed", "directory", 0o700),
    # A rescan moved these files to the directory for removed files and kept their modes.
    (r"root/var/quarn2_cp\.removed/\.encrypted_indexes", "file", 0o600),
    (r"root/var/quarn2_cp\.removed/2026-11-15\.web1\.tgz\.aes", "file", 0o640),
    (r"root/var/quarn2_cp\.ledger", "directory", 0o700),
    (r"root/var/quarn2_cp\.ledger/.+", "file", 0o600),
    (r"root/var/backup(/tovarn(/web1(/2026-11-15)?)?)?", "directory", 0o750),
    (r"root/var/backup/tovarn/(web1/2026-11-15/)?\.(rescan|clear)", "file", 0o640),
    (r"root/var/backup/tovarn/\.encrypted_indexes", "file", 0o600),
    (r"root/var/backup/tovarn/(web1/2026-11-15/)?2026-11-15\.web1\.(info|tgz|tgz\.aes)", "file", 0o640),
    # Until the replacement of a file has the old file's owner, no other user may read it.
    (r"root/var/backup/tovarn/(.+/)?\..+\.part~", "file", (0o640, 0o600)),
    (r"storage/web1(/2026-11-15)?", "directory", 0o750),
    (r"storage/(web1/2026-11-15/)?[^.].+", "file", 0o640),
    (r"storage/(web1/2026-11-15/)?\..+\.part~", "file", 0o640),
    (r"restored(/deep(/no(/2026-11-15)?)?)?", "directory", 0o750),
    (r"restored/[^/]+\.tgz", "file", 0o640),
    (r"restored/deep/no/2026-11-15/file\.attempts", "file", 0o640),
    (r"restored/(deep/no/2026-11-15/)?\..+\.part~", "file", 0o640),
    (r"tmp-file", "file", 0o640),
    (r"\.tmp-file\.part~", "file", 0o640))]

KINDS = {stat.S_IFREG: "file", stat.S_IFDIR: "directory", stat.S_IFSOCK: "socket"}


class WatchOfFiles(Watch):
    """Repeatedly records the status of all files that appear below a folder."""

    pause = 0.002

    def __init__(self, folder):
        super().__init__()
        self.folder = folder
        self.seen = set()  # (relative name, kind, mode, owner, group)
        self.before = {name for name, *_ in self.files()}

    def look(self):
        self.seen.update(found for found in self.files() if found[0] not in self.before)

    def files(self, below=""):
        try:
            entries = list(os.scandir(os.path.join(self.folder, below)))
        except FileNotFoundError:
            return
        for entry in entries:
            name = os.path.join(below, entry.name)
            try:
                status = entry.stat(follow_symlinks=False)
            except FileNotFoundError:
                continue
            kind = KINDS.get(stat.S_IFMT(status.st_mode), "other")
            yield name, kind, stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid
            if kind == "directory":
                yield from self.files(name)

    def names(self):
        return {name for name, *_ in self.seen}


class RightsTest(SystemTest):
    def setUp(self):
        super().setUp()
        if os.geteuid() != 0:
            self.fail("this test plays another user of the machine and so must run as root")
        # Other users need access to the folder, so that only the rights below it are tested.
        os.chmod(self.folder, 0o755)

    def as_nobody(self, *command):
        """Runs a command as a user without rights. Returns (status, output and errors)."""
        # root's own PATH may begin with directories that only root can enter.
        process = start(["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}",
                         "--clear-groups", "env", "PATH=/usr/bin:/bin", *command],
                        stdin=subprocess.DEVNULL,
                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        output, _ = process.communicate(timeout=DEADLINE)
        return process.returncode, output


class FileModes(RightsTest):
    def under(self, mask):
        before = os.umask(0o022)
        self.addCleanup(os.umask, before)
        root = self.root()
        os.chmod(root.base, 0o755)
        files = os.path.join(root.base, "work/files")
        first_day(files)
        shutil.rmtree(root.file("var"))
        root.token += ARCH
        os.umask(mask)
        with WatchOfFiles(root.base) as watch:
            self.use_everything(root, files)
        self.check(watch, mask)

    def use_everything(self, root, files):
        storage = root.token
        rescan(root)
        # The uploads are slow, so that the watch sees files that exist only during an upload.
        root.token = storage + "&limit_rate=400000"
        server = hold(root, SUNDAY, "--size-limit", "100000000")
        maker = Maker(root, "tgz", "dir")
        made = maker.put("web1", SUNDAY, "F", files)
        flat = Maker(root, "tgz", "flat").put("web1", SUNDAY, "F", files)
        index = os.path.join(root.info_root, flat["index"])
        self.assert_success(root.run("--update", index))
        target = os.path.join(root.base, "restored")
        self.assert_success(root.run("--get", f"{target}//{flat['index']}", "--tmp-file",
                                     os.path.join(root.base, "tmp-file")))
        self.assertNotEqual(0, root.run("--get", f"{target}/deep//no/2026-11-15/file").returncode)
        self.assertEqual(0, server.end())
        root.token = storage
        # The first rescan fetches all files again. The others use another password, so that the indexes stay encrypted.
        shutil.rmtree(root.info_root)
        rescan(root)
        rescan(root, env={"BACKUP_TOKEN": root.token.replace(SECRET, "another")})
        os.remove(os.path.join(root.info_root, flat["info"]))
        rescan(root, env={"BACKUP_TOKEN": root.token.replace(SECRET, "another")})
        # A rescan rewrites `.cleanup`, and the file must keep its mode.
        write(os.path.join(root.info_root, ".cleanup"), "local:///no/such/storage\t2026-11-14.web1\n")
        os.chmod(os.path.join(root.info_root, ".cleanup"), 0o600)
        rescan(root)
        self.assertEqual(0o600, stat.S_IMODE(os.stat(os.path.join(root.info_root, ".cleanup")).st_mode))
        os.remove(os.path.join(root.info_root, ".cleanup"))
        self.assert_success(root.run("--delete", os.path.join(root.info_root, made["info"])))
        self.assert_success(root.run("--clear"))

    def check(self, watch, mask):
        wrong = []
        for name, kind, mode, owner, group in sorted(watch.seen):
            if name.startswith("work/") or os.path.basename(name) == ".cleanup":
                continue  # a file that the job made
            if name.startswith("state-") or self.is_jobs_index(name, mode, mask):
                continue
            rule = next((rule for rule in MADE if rule[0].fullmatch(name)), None)
            modes = rule[2] if rule and isinstance(rule[2], tuple) else (rule[2],) if rule else ()
            if (rule is None or kind != rule[1] or mode not in [each & ~mask for each in modes]
                    or (owner, group) != (0, 0)):
                wrong.append((name, kind, oct(mode), owner, group))
        self.assertEqual([], wrong)
        # Each rule must match a file. The exceptions are files that may exist for less than a millisecond.
        missed = [rule[0].pattern for rule in MADE
                  if not any(rule[0].fullmatch(name) for name in watch.names())
                  and not re.match(r"(root|restored|.?\.tmp-file).*(part~|rescan)", rule[0].pattern)]
        self.assertEqual([], missed)

    @staticmethod
    def is_jobs_index(name, mode, mask):
        """Returns True for an index or its directory, which a job creates with other modes."""
        ways = r"root/var/backup/tovarn(/web1(/2026-11-15(/.+\.tgz)?)?|/.+\.tgz)"
        return re.fullmatch(ways, name) and mode in (0o777 & ~mask, 0o666 & ~mask)

    def test_modes_of_all_files_under_umask_000(self):
        self.under(0o000)

    def test_modes_of_all_files_under_umask_077(self):
        self.under(0o077)


class OtherUsers(RightsTest):
    """The user `nobody` tries to access a server whose token contains a secret."""

    def setUp(self):
        super().setUp()
        self.site = self.root()
        os.chmod(self.site.base, 0o755)
        self.site.token += ARCH
        self.site.log_level = 9
        self.server = hold(self.site, SUNDAY)
        self.client = self.server.node_client()
        self.all = [self.server.pid, self.server.daemon, self.client]

    def tearDown(self):
        self.assertEqual(0, self.server.end())

    def test_cannot_connect_to_the_control_socket(self):
        # The socket is protected even if the administrator opens the directory to all users.
        os.chmod(self.site.file("tmp"), 0o755)
        path = self.site.file("tmp/quarn2_cp.sock")
        script = "import socket, sys; socket.socket(socket.AF_UNIX).connect(sys.argv[1])"
        status, output = self.as_nobody("python3", "-c", script, path)
        self.assertIn(b"PermissionError", output)
        self.assertEqual(1, status)
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(path)  # proves that the socket exists

    def test_cannot_read_the_log_the_pid_file_or_the_lock(self):
        os.chmod(self.site.file("var"), 0o755)
        for name in ("var/quarn2_cp.log", "var/quarn2_cp.pid", "var/quarn2_cp.lock"):
            status, output = self.as_nobody("cat", self.site.file(name))
            self.assertEqual(1, status)
            self.assertIn(b"Permission denied", output)

    def test_cannot_run_a_command_in_the_install_root(self):
        os.chmod(self.site.base, 0o755)
        status, output = self.as_nobody(self.site.binary, "--put", "/etc/hostname")
        self.assertEqual(1, status, output)
        status, output = self.as_nobody(self.site.binary, "--help")
        self.assertEqual(0, status, output)

    def test_cannot_inspect_the_processes(self):
        for pid in self.all:
            for name in ("environ", "mem", "maps"):
                status, output = self.as_nobody("head", "-c1", f"/proc/{pid}/{name}")
                self.assertEqual(1, status, (pid, name))
                self.assertIn(b"Permission denied", output)

    def test_sees_no_secret_in_command_lines_and_no_socket_without_a_file(self):
        for pid in self.all:
            self.assertNotIn(SECRET, command_line(pid))
        with open("/proc/net/unix", encoding="utf-8") as listing:
            self.assertEqual([], [line for line in listing if "@quarn2" in line])

    def test_the_log_contains_no_secret(self):
        self.assertNotIn(SECRET.encode(), read(self.site.file("var/quarn2_cp.log")))
        self.assertIn(b"arch_password=***", read(self.site.file("var/quarn2_cp.log")))


class CoreDumps(RightsTest):
    def hold(self):
        root = self.root()
        root.token += ARCH
        # Sets a limit that allows core dumps, because the program must lower an inherited limit.
        self.addCleanup(resource.setrlimit, resource.RLIMIT_CORE,
                        resource.getrlimit(resource.RLIMIT_CORE))
        resource.setrlimit(resource.RLIMIT_CORE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        server = hold(root, SUNDAY)
        return server, [server.pid, server.daemon, server.node_client()]

    def test_no_process_that_has_the_token_can_be_dumped(self):
        server, pids = self.hold()
        for pid in pids:
            with open(f"/proc/{pid}/limits", encoding="ascii") as limits:
                core = next(line for line in limits if line.startswith("Max core file size"))
            self.assertEqual(["0", "0", "bytes"], core.split()[-3:])
        self.assertEqual(0, server.end())

    # The /proc files of a process that is not dumpable belong to root, even if another user runs the process.
    def test_only_root_inspects_processes_that_run_as_another_user(self):
        root = self.root()
        os.chmod(root.base, 0o755)
        for folder in (root.path, root.storage, root.info_root, root.file("var")):
            for directory, _, _ in os.walk(folder):
                os.chown(directory, NOBODY, NOBODY)
        process = root.spawn("--server", wrapper=("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}",
                                                  "--clear-groups"),
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.assertEqual(b"", process.stdout.read())  # waits until the server is ready
        self.assertIsNone(process.poll())
        daemon = int(read(root.file("var/quarn2_cp.pid")).split(b"\n")[0])
        client = wait_for(lambda: children(daemon), "a node client")[0]
        for pid in (process.pid, daemon, client):
            # `nobody` runs the process too, but must not read the files in its /proc directory.
            status, output = self.as_nobody("head", "-c1", f"/proc/{pid}/environ")
            self.assertEqual(1, status)
            self.assertIn(b"Permission denied", output)
            self.assertEqual(0, os.stat(f"/proc/{pid}/environ").st_uid)
        process.stdin.close()
        self.assertEqual(0, process.wait(DEADLINE))
        wait_gone(daemon)

    def test_a_crash_leaves_no_core_file(self):
        server, (_, daemon, client) = self.hold()
        root = server.root
        for pid in (client, daemon):
            os.kill(pid, signal.SIGSEGV)
            wait_gone(pid)
        server.release()
        cores = [name for name in tree(root.base) if "core" in os.path.basename(name)]
        self.assertEqual([], cores)


class Environment(RightsTest):
    def test_children_get_no_token(self):
        root = self.root()
        root.token += ARCH
        note = os.path.join(root.base, "ssh-environment")
        tools = os.path.join(root.base, "tools")
        write_executable(os.path.join(tools, "ssh"),
                         f"#!/bin/sh\nenv >{note}.new; mv {note}.new {note}; exec cat >/dev/null\n")
        server = hold_with_node(root, tools)
        wait_for(lambda: os.path.exists(note), "the environment of ssh")
        client = server.node_client()
        with open(f"/proc/{client}/environ", "rb") as environment:
            self.assertNotIn(SECRET.encode(), environment.read())
        self.assertNotIn(SECRET.encode(), read(note))
        self.assertNotIn(b"BACKUP_TOKEN", read(note))
        server.end()


def hold_with_node(root, tools):
    return Server(root, "--date", SUNDAY, "--count-limit", "9:99", "--node", "web9",
                  env={"PATH": f"{tools}:{os.environ['PATH']}"}).wait_ready()


class PlantedFiles(RightsTest):
    """Links and pipes at the paths of the server's own files."""

    def setUp(self):
        super().setUp()
        self.site = self.root()
        self.site.run("something")
        self.victim = write(os.path.join(self.site.base, "victim"), "kept")

    def tearDown(self):
        self.assertEqual(b"kept", read(self.victim))
        self.assertEqual(0o644, stat.S_IMODE(os.stat(self.victim).st_mode))

    def lay(self, name, what):
        path = self.site.file(name)
        if os.path.lexists(path):
            os.remove(path)
        if what == "link":
            os.symlink(self.victim, path)
            os.lchown(path, NOBODY, NOBODY)
        elif what == "dangling":
            os.symlink(self.victim + "-none", path)
            os.lchown(path, NOBODY, NOBODY)
        elif what == "name":
            os.link(self.victim, path)
        else:
            os.mkfifo(path, 0o666)
        return path

    def test_links_at_the_paths_of_pid_file_and_lock_file_stop_the_start(self):
        os.chmod(self.victim, 0o644)
        for name, what in (("var/quarn2_cp.pid", "link"), ("var/quarn2_cp.pid", "dangling"),
                           ("var/quarn2_cp.pid", "fifo"), ("var/quarn2_cp.lock", "link"),
                           ("var/quarn2_cp.lock", "dangling")):
            with self.subTest(name=name, what=what):
                path = self.lay(name, what)
                result = self.site.run("--server")
                self.assertEqual(1, result.returncode)
                self.assertRegex(result.stderr, "Failed to (lock|open)")
                self.assertFalse(os.path.exists(self.victim + "-none"))
                os.remove(path)

    def test_links_at_the_paths_of_log_and_socket_block_no_command(self):
        for what in ("link", "dangling", "name", "fifo"):
            for name in ("tmp/quarn2_cp.sock", "var/quarn2_cp.log"):
                with self.subTest(name=name, what=what):
                    path = self.lay(name, what)
                    if name.endswith("log"):
                        # Nothing is logged, so the test can only wait for the end of the command.
                        self.assert_success(self.site.run("--delete", "/nothing/here"))
                    else:
                        server = hold(self.site, SUNDAY)
                        server.node_client()
                        wait_for(lambda at=path: os.path.exists(at) and stat.S_ISSOCK(
                            os.lstat(at).st_mode), "the socket")
                        self.assertEqual(0, server.end())
                    self.assertFalse(os.path.exists(self.victim + "-none"))
                    if os.path.lexists(path):
                        os.remove(path)

    def test_links_in_the_info_root_are_not_followed(self):
        root = self.site
        backup = Backup(root, "web1", SUNDAY, form="dir")
        precious = os.path.join(root.base, "precious")
        write(os.path.join(precious, "file"), "kept")
        place = os.path.join(root.info_root, "web1")
        shutil.rmtree(place)
        os.symlink(precious, place)
        os.lchown(place, NOBODY, NOBODY)
        rescan(root)
        self.assertEqual(["file"], tree(precious))
        self.assertFalse(os.path.islink(place))
        self.assertTrue(os.path.exists(backup.info_path))


if __name__ == "__main__":
    unittest.main()
