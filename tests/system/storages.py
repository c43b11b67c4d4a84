"""Creates empty storages on real servers, and reads and changes them without the program.

CTest starts the servers for the test (QUARN2_TEST_SERVERS), or a test starts its own.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import uuid
import xml.etree.ElementTree
from urllib.parse import quote, unquote

from local_files import read, tree, write

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import servers  # pylint: disable=wrong-import-position


def shared_info(name):
    """Returns the entries of server.info of a server that all tests share."""
    folder = os.environ.get("QUARN2_TEST_SERVERS")
    if not folder:
        raise AssertionError("QUARN2_TEST_SERVERS is not set: run this test through ctest")
    with open(os.path.join(folder, name, "server.info"), encoding="utf-8") as file:
        return dict(line.rstrip("\n").split("=", 1) for line in file)


def own_server(add_cleanup, kind, **options):
    """Starts a server for one test or class, which may halt or kill it. add_cleanup is the addCleanup of the
    test or the addClassCleanup of the class. The server's `info` has the same keys as that of a shared server."""
    # The folder is below /var/tmp, because the users that serve the files must have access to it.
    folder = tempfile.mkdtemp(prefix="quarn2-cp-", dir="/var/tmp")
    add_cleanup(shutil.rmtree, folder, ignore_errors=True)
    os.chmod(folder, 0o755)
    server = servers.KINDS[kind](os.path.join(folder, kind), **options)
    server.start()
    add_cleanup(server.stop)
    return server


class Storage:
    """A storage on a server. `parts` are the unencoded parts of the token: user, password, host, port, path."""

    def __init__(self, info, scheme, port="port", params=()):
        self.info = {key: str(value) for key, value in info.items()}
        self.scheme = scheme
        self.parts = {key: self.info[key] for key in ("user", "password", "host")}
        self.parts["port"] = self.info[port]
        self.params = dict(params)

    def token(self, **changes):
        """Returns the token. `changes` replaces parts or parameters; None removes one."""
        parts = {**self.parts, **{key: value for key, value in changes.items()
                                  if key in self.parts}}
        params = {**self.params, **{key: value for key, value in changes.items()
                                    if key not in self.parts}}
        text = quote(parts["user"], safe="")
        if parts["password"] is not None:
            text += ":" + quote(parts["password"], safe="")
        text = f"{self.scheme}://{text}@{parts['host']}:{parts['port']}{quote(parts['path'])}"
        given = [f"{key}={quote(str(value))}" for key, value in params.items() if value is not None]
        return text + ("?" + "&".join(given) if given else "")

    def secrets(self):
        """Returns the texts that no log and no error message may contain."""
        return [self.parts["password"]] if self.parts["password"] else []

    def names(self):
        """Returns the names of all files on the storage, sorted, hidden and temporary files included."""
        return sorted(self.files())

    def files(self):
        """Returns {name: bytes}."""
        raise NotImplementedError

    def put(self, name, data):
        """Writes a file to the storage without the program."""
        raise NotImplementedError


class Served(Storage):
    """A storage in a new directory that a server serves."""

    def __init__(self, test, info, scheme, port="port", params=(), path="path"):
        super().__init__(info, scheme, port, params)
        self.folder = tempfile.mkdtemp(prefix="storage_", dir=self.info["data"])
        test.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        os.chmod(self.folder, 0o755)
        self.give(self.folder)
        self.parts["path"] = os.path.join(self.info[path], os.path.basename(self.folder))

    def give(self, path):
        os.chown(path, int(self.info["uid"]), int(self.info["gid"]))

    def files(self):
        return {name: read(os.path.join(self.folder, name)) for name in self.names()}

    def names(self):
        return tree(self.folder)

    def put(self, name, data):
        path = write(os.path.join(self.folder, name), data)
        while path != self.folder:
            self.give(path)
            path = os.path.dirname(path)

    def limit(self, test, size):
        """Mounts an empty file system of this size on the directory."""
        options = f"size={size},mode=755,uid={self.info['uid']},gid={self.info['gid']}"
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", self.folder], check=True)
        test.addCleanup(subprocess.run, ["umount", "--lazy", self.folder], check=True)


class Bucket(Storage):
    """A storage in a new bucket, at its root or below a prefix."""

    def __init__(self, test, info, scheme, port="port", params=(), prefix="backups of/node 1"):
        super().__init__(info, scheme, port, {"region": info["region"], **dict(params)})
        self.bucket = "tests-" + uuid.uuid4().hex
        self.prefix = prefix + "/" if prefix else ""
        self.parts["path"] = "/" + self.bucket + ("/" + prefix if prefix else "")
        self.curl("", "-X", "PUT")
        test.addCleanup(self.remove)

    def url(self, what):
        return f"http://{self.info['host']}:{self.info['port']}/{self.bucket}{what}"

    def curl(self, what, *options):
        return subprocess.run(["curl", "-sS", "--fail-with-body", "-K", self.info["curl_config"],
                               *options, self.url(what)], check=True, stdout=subprocess.PIPE).stdout

    def list(self, query, tag):
        """Returns the texts of the elements `tag` in all pages of the answer."""
        found, page = [], ""
        while page is not None:
            answer = xml.etree.ElementTree.fromstring(self.curl(f"?{page}encoding-type=url&{query}"))
            name = answer.tag.removesuffix(answer.tag.split("}")[-1])
            found += [unquote(each.text) for each in answer.iter(name + tag)]
            following = answer.findtext(name + "NextContinuationToken")
            page = f"continuation-token={quote(following, safe='')}&" if following else None
        return found

    def keys(self):
        return self.list("list-type=2", "Key")

    def shown(self, key):
        """Returns a key's name on the storage. A key outside the prefix is marked "outside: "."""
        return key.removeprefix(self.prefix) if key.startswith(self.prefix) else "outside: " + key

    def uploads(self):
        return [self.shown(key) + " (an unfinished upload)"
                for key in self.list("uploads=", "Key")]

    def names(self):
        return sorted([self.shown(key) for key in self.keys()] + self.uploads())

    def files(self):
        if self.uploads():
            raise AssertionError(f"unfinished uploads: {self.uploads()}")
        return {self.shown(key): self.curl("/" + quote(key)) for key in self.keys()}

    def put(self, name, data):
        with tempfile.NamedTemporaryFile() as source:
            source.write(data.encode() if isinstance(data, str) else data)
            source.flush()
            self.curl("/" + quote(self.prefix + name), "-T", source.name)

    def put_many(self, files):
        """Uploads many small files over one connection: {name: text}."""
        with tempfile.TemporaryDirectory() as folder:
            lines = []
            for number, (name, text) in enumerate(files.items()):
                path = write(os.path.join(folder, str(number)), text)
                url = self.url("/" + quote(self.prefix + name))
                lines += [f'upload-file = "{path}"', f'url = "{url}"']
            config = write(os.path.join(folder, "config"), "\n".join(lines))
            subprocess.run(["curl", "-sS", "--fail-early", "--fail", "-K", self.info["curl_config"],
                            "-K", config], check=True, stdout=subprocess.PIPE)

    def limit(self, _test, size):
        scope = ("--quota-scope=bucket", "--bucket", self.bucket)
        admin = self.info["admin"].split()
        for command in (("set", "--max-size", str(size)), ("enable",)):
            subprocess.run([*admin, "quota", command[0], *scope, *command[1:]], check=True,
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def remove(self):
        keys = [quote(key) for key in self.keys()]
        for start in range(0, len(keys), 500):
            urls = [self.url("/" + key) for key in keys[start:start + 500]]
            subprocess.run(["curl", "-sS", "-K", self.info["curl_config"], "-X", "DELETE", *urls],
                           check=True, stdout=subprocess.PIPE)


def s3(test, info):
    return Bucket(test, info, "s3", "tls_port", {"ca": info["ca"], "style": "path"})


def s3_http(test, info):
    storage = Bucket(test, info, "s3+http", params={"style": "virtual"}, prefix="")
    storage.parts["host"] = "localhost"
    return storage


def sftp_key(test, info):
    storage = Served(test, info, "sftp",
                     params={"known_hosts": info["known_hosts"], "key": info["key"]})
    storage.parts["password"] = None
    return storage


def sftp_password(test, info):
    return Served(test, info, "sftp", params={"known_hosts": info["known_hosts"]})


def webdav_basic(test, info):
    return Served(test, info, "webdav", "tls_port", {"ca": info["ca"]})


def webdav_digest(test, info):
    return Served(test, info, "webdav+http", params={"auth": "digest"}, path="digest_path")


def ftps(test, info):
    return Served(test, info, "ftps", "tls_port", {"ca": info["ca"]})


def ftps_lenient(test, info):
    return Served(test, info, "ftps", "lenient_port", {"ca": info["ca"]})


def ftp(test, info):
    return Served(test, info, "ftp")


# The kinds of storages: {name: (server, function that creates the storage)}.
KINDS = {
    "S3": ("s3", s3),
    "S3Http": ("s3", s3_http),
    "SftpKey": ("sftp", sftp_key),
    "SftpPassword": ("sftp", sftp_password),
    "WebdavBasic": ("webdav", webdav_basic),
    "WebdavDigest": ("webdav", webdav_digest),
    "WebdavSecond": ("webdav2", webdav_basic),
    "Ftps": ("ftp", ftps),
    "Ftp": ("ftp", ftp),
    "FtpsSecond": ("ftp2", ftps),
    "FtpsThird": ("ftp3", ftps_lenient),
    "FtpsFourth": ("ftp4", ftps),
}


def shared(test, kind):
    """Creates a storage of this kind on a server that all tests share."""
    server, make = KINDS[kind]
    return make(test, shared_info(server))
