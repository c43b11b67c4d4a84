"""Servers that refuse a request, use another protocol or do not answer. The program reports a clear error in time
and changes no file.
"""

import concurrent.futures
import os
import sys
import time
import unittest

import storages
from local_files import read, tree, write
from peers import Peer, deserted_port
from system_test import SystemTest

TIMEOUT = 3
GRACE = 7  # seconds that a command may take in addition to the timeouts of its operations
NAME = "F2026-11-20.web1.tgz"
NAME_SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "name_server.py")
WRONG_SERVERS = {  # the first bytes of servers of other protocols
    "http": b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
    "ssh": b"SSH-2.0-OpenSSH_9.2\r\n",
    "mail": b"220 mail.example ESMTP\r\n",
    "noise": bytes(range(255, -1, -1)) * 300,
}


class RefusedToken:
    """A token whose use must fail. `words` is a pattern that the error must match, in upper or lower
    case."""

    def __init__(self, words, token, patience=TIMEOUT):
        self.words = words
        self.token = token
        self.patience = patience


def credentials(test, storage):
    """Returns tokens with wrong credentials. Their timeout is longer than a server's delay after a wrong password."""
    refused = "(refuse|denied|not accept|password|log ?in|the access key|the secret key)"
    patience = 20

    def changed(**changes):
        return RefusedToken(refused, storage.token(timeout=patience, **changes), patience)

    troubles = {"an unknown user": changed(user="stranger")}
    if storage.parts["password"]:
        troubles["a wrong password"] = changed(password="not/the+secret")
    if "key" in storage.params:
        troubles["an unknown key"] = changed(key=storage.info["unknown_key"])
        troubles["a key file that is missing"] = RefusedToken("/nowhere/key",
                                                              storage.token(key="/nowhere/key"))
        broken = write(os.path.join(test.folder, "broken key"), "no key")
        os.chmod(broken, 0o600)
        troubles["a key file that is none"] = RefusedToken("broken key", storage.token(key=broken))
    return troubles


def certificates(test, storage):
    way = Peer(test, to=("127.0.0.1", int(storage.parts["port"])), address="127.0.0.9")
    ports = {"expired": storage.info["expired_port"],
             "self-signed": storage.info["self_signed_port"]}
    troubles = {f"a certificate that is {what}": RefusedToken(f"certificate.*{what[:4]}",
                                                              storage.token(port=port))
                for what, port in ports.items()}
    troubles["a certificate for another host"] = RefusedToken(
        "certificate", storage.token(host=way.host, port=way.port))
    troubles["an unknown authority"] = RefusedToken("certificate", storage.token(ca=None))
    troubles["a file of authorities that is missing"] = RefusedToken("/nowhere/ca",
                                                                     storage.token(ca="/nowhere/ca"))
    return troubles


def host_keys(_test, storage):
    files = {"an unknown host key": storage.info["known_hosts_empty"],
             "a changed host key": storage.info["known_hosts_changed"],
             "a file of host keys that is missing": "/nowhere/known_hosts"}
    return {what: RefusedToken("(host key|known_hosts)", storage.token(known_hosts=path))
            for what, path in files.items()}


def missing_directories(_test, storage):
    missing = storage.parts["path"].rstrip("/") + "-missing"
    if "bucket" in vars(storage):
        missing = storage.parts["path"].replace(storage.bucket, "missing-bucket")
    return {"a missing directory": RefusedToken("((directory|bucket).* does not exist|no (such )?directory)",
                                                storage.token(path=missing))}


def wrong_servers(test, storage):
    address = "127[.]0[.]0[.]1('?, port |:){}"
    port = deserted_port(test)
    troubles = {"no server": RefusedToken(address.format(port), storage.token(port=port))}
    silent = Peer(test)
    troubles["a silent server"] = RefusedToken(address.format(silent.port),
                                               storage.token(port=silent.port))
    for what, greeting in WRONG_SERVERS.items():
        peer = Peer(test, greeting)
        troubles["a wrong server: " + what] = RefusedToken(address.format(peer.port),
                                                           storage.token(port=peer.port))
    return troubles


class Site:
    """A root with files that must not change, and the commands that must fail."""

    def __init__(self, test, token, name):
        self.test = test
        self.root = test.root(name)
        self.root.token = token
        self.root.log_level = 9
        self.source = write(os.path.join(self.root.work, NAME), "data")
        write(os.path.join(self.root.work, "2026-11-20.web1.info"), f"last-slice={NAME}")
        write(os.path.join(self.root.info_root, "2026-11-20.web1.info"), f"last-slice={NAME}")
        self.before = self.state()

    def state(self):
        return tree(self.root.work), self.root.local()

    def commands(self):
        """Returns {command: number of operations on the storage that it may try}."""
        target = os.path.join(self.root.base, "restored")
        return {("--update", self.source): 1, ("--get", f"{target}//{NAME}"): 2,
                ("--server", "--rescan"): 1}

    def logged(self):
        return read(self.root.file("var/quarn2_cp.log")).decode(errors="replace")


class RefusalTest(SystemTest):
    kind = ""

    def check(self, make):
        storage = storages.shared(self, self.kind)
        secrets = [*storage.secrets(), "not/the+secret"]
        troubles = make(self, storage)
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            found = {what: pool.submit(self.check_refused, trouble, secrets)
                     for what, trouble in troubles.items()}
        for what, faults in found.items():
            with self.subTest(trouble=what):
                self.assertEqual([], faults.result())
        self.assertEqual([], storage.names())

    def check_refused(self, trouble, secrets):
        """Runs the commands with the token. Returns a text for each difference from the expected failure."""
        if "timeout=" not in trouble.token:
            trouble.token += ("&" if "?" in trouble.token else "?") + f"timeout={TIMEOUT}"
        site = Site(self, trouble.token, "refused")
        faults = []
        for command, tries in site.commands().items():
            start = time.monotonic()
            result = self.run_command(site.root, command)
            seconds = time.monotonic() - start
            if (result.returncode, result.stdout) != (1, ""):
                faults.append(f"{command[0]} ended with {result.returncode}: {result.stdout}")
            if seconds > tries * trouble.patience + GRACE:
                faults.append(f"{command[0]} took {seconds:.1f} s")
            if result.stderr.count("\n") != 1 or not result.stderr.startswith("quarn2_cp: "):
                faults.append(f"{command[0]} said {result.stderr!r}")
            faults += self.wrong_words(command[0], result.stderr, trouble.words)
            faults += [f"{command[0]} showed {secret}" for secret in secrets
                       if secret in result.stderr + site.logged()]
        if site.state() != site.before:
            faults.append(f"{site.before} became {site.state()}")
        if tree(os.path.join(site.root.base, "restored")):
            faults.append("a file appeared")
        return faults

    def wrong_words(self, command, text, words):
        try:
            self.assertRegex(text, "(?i)" + words)
        except AssertionError as error:
            return [f"{command}: {error}"]
        return []

    def run_command(self, root, command):
        return root.run(*command)


class NameServerTest(RefusalTest):
    manner = ""

    def check_name(self, manner):
        self.manner = manner
        server, make = storages.KINDS[self.kind]
        storage = make(self, storages.shared_info(server))
        trouble = RefusedToken("backup[.]example", storage.token(host="backup.example"))
        self.assertEqual([], self.check_refused(trouble, storage.secrets()))

    def run_command(self, root, command):
        alone = ("unshare", "--net", "--mount", sys.executable, "-B", NAME_SERVER, self.manner)
        return root.run(*command, wrapper=alone if self.manner else ())


def case(make):
    return lambda test: test.check(make)


def name_case(manner):
    return lambda test: test.check_name(manner)


ALWAYS = {"test_credentials": case(credentials), "test_missing_directories": case(missing_directories)}
ONCE_PER_PROTOCOL = {"test_wrong_and_silent_servers": case(wrong_servers),
                     "test_a_name_server_that_is_silent": name_case("silent"),
                     "test_an_unknown_host_name": name_case("denying")}
OF_TLS = {"test_certificates": case(certificates)}
OF_SSH = {"test_host_keys": case(host_keys)}

for kind_, cases_ in {
        "S3": {**ALWAYS, **ONCE_PER_PROTOCOL, **OF_TLS},
        "SftpKey": {**ALWAYS, **OF_SSH},
        "SftpPassword": {**ALWAYS, **ONCE_PER_PROTOCOL, **OF_SSH},
        "WebdavBasic": {**ALWAYS, **ONCE_PER_PROTOCOL, **OF_TLS},
        "WebdavDigest": ALWAYS,
        "WebdavSecond": {**ALWAYS, **OF_TLS},
        "Ftps": {**ALWAYS, **ONCE_PER_PROTOCOL, **OF_TLS},
        "FtpsSecond": {**ALWAYS, **OF_TLS}}.items():
    globals()[kind_] = type(kind_, (NameServerTest,), {"kind": kind_, **cases_})


if __name__ == "__main__":
    unittest.main()
