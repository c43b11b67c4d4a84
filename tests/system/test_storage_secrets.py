"""Successful commands reveal no secret, neither in the log at its highest level nor in a command line."""

import base64
import os
import unittest
from urllib.parse import quote

import storages
from archives import Maker, first_day, hold, rescan
from local_files import read
from processes import command_line, stat_of
from system_test import SystemTest
from waiting import Watch, wait_for

SUNDAY = "2026-11-15"
ARCH = "correct+horse&battery staple/%"


class WatchOfProcesses(Watch):
    """Repeatedly records the command lines of all descendants of this process."""

    def __init__(self):
        super().__init__()
        self.seen = {}  # command line -> number of times it was seen

    def look(self):
        for pid in self.family():
            line = command_line(pid)
            self.seen[line] = self.seen.get(line, 0) + 1

    @staticmethod
    def family():
        parents = {}
        for name in os.listdir("/proc"):
            if name.isdigit():
                stat = stat_of(name)
                if stat:
                    parents.setdefault(stat[1], []).append(int(name))
        found, ends = [], [os.getpid()]
        while ends:
            below = parents.get(ends.pop(), [])
            found += below
            ends += below
        return found


def forms(text):
    """Returns a secret as plain text, percent-encoded as in a token, and as base64 and hex as in a header."""
    return {text, quote(text), quote(text, safe=""), base64.b64encode(text.encode()).decode(),
            text.encode().hex()}


class SecretsTest(SystemTest):
    kind = ""

    def check(self):
        storage = storages.shared(self, self.kind)
        secrets = forms(ARCH)
        for password in storage.secrets():
            user = storage.parts["user"]
            secrets |= forms(password) | forms(f"{user}:{password}")
        root = self.root()
        root.log_level = 9
        root.token = storage.token(arch_password=ARCH)
        with WatchOfProcesses() as watch:
            self.use_everything(root, watch)
        log = read(root.file("var/quarn2_cp.log")).decode()
        self.assertIn("***", log)
        self.assertGreater(len(root.log(level=9)), 0)
        for secret in secrets:
            self.assertNotIn(secret, log)
            self.assertEqual([], [line for line in watch.seen if secret in line])

    def use_everything(self, root, watch):
        files = os.path.join(root.base, "files")
        first_day(files)
        server = hold(root, SUNDAY)
        client = server.node_client()
        made = Maker(root, "tgz", "flat").put("web1", SUNDAY, "F", files)
        # Waits until the watch has read the command lines of the daemon and of the node client.
        wait_for(lambda: {command_line(client), command_line(server.daemon)}
                 <= set(watch.seen), "a look at daemon and node client")
        self.assertIn("--client", command_line(client))
        info = os.path.join(root.info_root, made["info"])
        index = os.path.join(root.info_root, made["index"])
        self.assert_success(root.run("--update", index))
        target = os.path.join(root.base, "restored")
        self.assert_success(root.run("--get", f"{target}//{made['index']}"))
        self.assertEqual(read(index), read(os.path.join(target, made["index"])))
        self.assertEqual(0, server.end())
        rescan(root)
        # The index has another password than this rescan. So the rescan opens the storage again, without a password,
        # and downloads the encrypted index.
        rescan(root, env={"BACKUP_TOKEN": root.token.replace("correct", "another")})
        self.assert_success(root.run("--delete", info))
        self.assert_success(root.run("--clear"))


for kind_ in ("S3", "S3Http", "SftpKey", "SftpPassword", "WebdavBasic", "WebdavDigest", "Ftps", "Ftp"):
    globals()[kind_] = type(kind_, (SecretsTest,), {"kind": kind_,
                                                    "test_no_secret_is_told": SecretsTest.check})


if __name__ == "__main__":
    unittest.main()
