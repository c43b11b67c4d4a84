"""Tests of the servers themselves, with curl as the client:  python3 -m unittest servers.selftest

QUARN2_TEST_SERVERS names a directory in which all servers run.
"""

import os
import shutil
import signal
import subprocess
import tempfile
import unittest

from . import Nginx, ServerError, Sshd, processes
from .base import mounts_below

OK, REFUSED, NO_TRUST = 0, 22, 60  # exit statuses of curl
PROPFIND = ("--fail", "-X", "PROPFIND", "-H", "Depth: 0")


def curl(url, info, *options):
    """curl's exit status; the password is not on its command line."""
    user = info["user"] + ":" + info["password"].replace("\\", "\\\\").replace('"', '\\"')
    return subprocess.run(["curl", "-sS", "-o", "/dev/null", "-K", "-", *options, url], check=False,
                          input=f'user = "{user}"\n', text=True, stderr=subprocess.PIPE).returncode


def running(name):
    """The contents of server.info of a server that CTest has started."""
    path = os.path.join(os.environ["QUARN2_TEST_SERVERS"], name, "server.info")
    with open(path, encoding="utf-8") as info:
        return dict(line.rstrip("\n").split("=", 1) for line in info)


class Running(unittest.TestCase):
    def check_certificates(self, name, scheme, path, *options):
        info = running(name)
        trust = ("--cacert", info["ca"], *options)
        self.assertEqual(OK, curl(f"{scheme}://127.0.0.1:{info['tls_port']}{path}", info, *trust))
        self.assertEqual(OK, curl(f"{scheme}://localhost:{info['tls_port']}{path}", info, *trust))
        self.assertEqual(NO_TRUST, curl(f"{scheme}://127.0.0.1:{info['tls_port']}{path}", info,
                                        *options))
        for bad in ("expired_port", "self_signed_port"):
            self.assertEqual(NO_TRUST, curl(f"{scheme}://127.0.0.1:{info[bad]}{path}", info,
                                            *trust), bad)

    def test_s3_has_good_and_bad_certificates(self):
        self.check_certificates("s3", "https", "/")

    def test_webdav_has_good_and_bad_certificates(self):
        for name in ("webdav", "webdav2"):
            with self.subTest(name):
                self.check_certificates(name, "https", "/basic/", *PROPFIND)

    def test_ftp_has_good_and_bad_certificates(self):
        for name in ("ftp", "ftp2"):
            with self.subTest(name):
                self.check_certificates(name, "ftp", "/", "--ssl-reqd")

    def test_webdav_takes_a_digest(self):
        info = running("webdav")
        url = f"http://127.0.0.1:{info['port']}{info['digest_path']}/"
        self.assertEqual(OK, curl(url, info, "--digest", *PROPFIND))
        self.assertEqual(REFUSED, curl(url, info, "--basic", *PROPFIND))

    def test_sftp_takes_the_key_with_its_known_host_only(self):
        info = running("sftp")
        for key, hosts, works in (("key", "known_hosts", True), ("unknown_key", "known_hosts", False),
                                  ("key", "known_hosts_changed", False),
                                  ("key", "known_hosts_empty", False)):
            result = subprocess.run(
                ["sftp", "-b", "-", "-P", info["port"], "-i", info[key], "-F", "none",
                 "-o", "IdentitiesOnly=yes", "-o", "StrictHostKeyChecking=yes",
                 "-o", "GlobalKnownHostsFile=none", "-o", "UserKnownHostsFile=" + info[hosts],
                 info["user"] + "@127.0.0.1"],
                check=False, input=f"ls {info['path']}\n", text=True, capture_output=True)
            self.assertEqual(works, result.returncode == 0, (key, hosts, result.stderr))


class Life(unittest.TestCase):
    def setUp(self):
        base = tempfile.mkdtemp(prefix="quarn2-servers-")
        os.chmod(base, 0o755)
        self.addCleanup(shutil.rmtree, base)
        self.folder = os.path.join(base, "server")

    def test_a_start_ends_what_an_earlier_run_left(self):
        left = Nginx(self.folder)
        left.start()
        self.addCleanup(left.stop)
        family = processes.tree(left.processes()[0])
        self.assertGreater(len(family), 1)
        subprocess.run(["mount", "-t", "tmpfs", "none", left.data], check=True)
        with Nginx(self.folder) as server:
            self.assertFalse([each for each in family if processes.runs(each)])
            self.assertEqual([], mounts_below(self.folder))
            self.assertTrue(server.is_ready())
        self.assertEqual(["log"], os.listdir(self.folder))

    def test_a_process_of_another_time_is_not_touched(self):
        with Nginx(self.folder) as server:
            with subprocess.Popen(["sleep", "60"]) as stranger:
                server.write("run/stranger.id", f"{stranger.pid} 1")
                server.stop()
                self.assertIsNone(stranger.poll())
                stranger.kill()

    def test_a_killed_server_answers_no_more_and_can_be_started_again(self):
        with Nginx(self.folder) as server:
            server.kill()
            self.assertEqual([], server.processes())
            self.assertFalse(server.is_ready())
            server.start()
            self.assertTrue(server.is_ready())

    def test_a_halted_server_stops(self):
        with Sshd(self.folder) as server:
            server.kill(signal.SIGSTOP)
            self.assertFalse(server.is_ready())
            halted = server.processes()
            server.stop()
            self.assertFalse([each for each in halted if processes.runs(each)])

    def test_says_what_is_missing(self):
        server = Nginx(self.folder)
        server.programs = ("no-such-server",)
        with self.assertRaisesRegex(ServerError, "no-such-server: run 'scripts/install-deps"):
            server.start()

    def test_says_which_folder_is_closed(self):
        os.chmod(os.path.dirname(self.folder), 0o700)
        with self.assertRaisesRegex(ServerError, "chmod o\\+x " + os.path.dirname(self.folder)):
            Nginx(self.folder).start()
