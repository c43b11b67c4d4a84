"""A measured server: the settings that each tool needs, and access to its files without these tools."""

import os
import shutil
import sys
import urllib.parse

from . import cost

TESTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests")
FOLDER = "bench"  # the directory or bucket of the storage, on every server


def quoted(text):
    return urllib.parse.quote(text, safe="")


class Site:
    """A running server. `near` is the command prefix that runs a command in the server's network."""

    server = ""
    tls = False

    def __init__(self, directory, near=()):
        self.path = directory
        self.near = list(near)
        self.info = {}

    def __enter__(self):
        try:
            self.serve("start", self.server, self.path)
            with open(os.path.join(self.path, "server.info"), encoding="utf-8") as info:
                self.info = dict(line.rstrip("\n").split("=", 1) for line in info)
            self.prepare()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.serve("stop", self.path)

    def serve(self, *arguments):
        cost.run([*self.near, sys.executable, "-B", "-m", "servers", *arguments],
                 # Passes these variables on, because they contain the path of the unpacked servers.
                 {name: value for name, value in os.environ.items() if name.startswith("QUARN2_")},
                 cwd=TESTS)

    def file(self, name):
        return os.path.join(self.path, name)

    def write(self, name, text):
        """Writes a file with secrets for a tool, readable by this user only, and returns its path."""
        path = self.file("tmp/" + name)
        with open(path, "w", encoding="utf-8", opener=lambda p, f: os.open(p, f, 0o600)) as file:
            file.write(text)
        return path

    @property
    def port(self):
        return self.info["tls_port" if self.tls else "port"]

    def token(self, password=None):
        """The value of BACKUP_TOKEN for this storage."""
        parameters = self.parameters()
        if password:
            parameters["arch_password"] = password
        text = f"{self.scheme}://{self.account()}@127.0.0.1:{self.port}{self.storage_path()}"
        return text + "?" + "&".join(f"{name}={quoted(value)}" for name, value in parameters.items())

    def account(self):
        return quoted(self.info["user"]) + ":" + quoted(self.info["password"])

    def parameters(self):
        return {"ca": self.info["ca"]} if self.tls else {}

    # --- Implemented by each kind of server ---

    scheme = ""

    def prepare(self):
        """Creates the storage."""
        raise NotImplementedError

    def storage_path(self):
        """The path of the storage in the token."""
        raise NotImplementedError

    def rclone(self):
        """(environment, path of the storage on the remote "r:")."""
        raise NotImplementedError

    # --- Access to the storage without the measured tools ---

    def empty(self):
        raise NotImplementedError

    def fill(self, names, content="x"):
        """Creates a small file for each name on the empty storage."""
        raise NotImplementedError

    def count(self):
        raise NotImplementedError

    def check_file(self, name, local):
        """Checks that the storage has this file with the content of the local one."""
        raise NotImplementedError

    def check_folder(self, local):
        """Checks that the storage has exactly the files of the local directory."""
        raise NotImplementedError

    def drop(self, names):
        raise NotImplementedError


class Served(Site):
    """A server that stores its files in a local directory."""

    def prepare(self):
        self.data = os.path.join(self.info["data"], FOLDER)
        self.owner = int(self.info["uid"]), int(self.info["gid"])
        self.empty()

    def storage_path(self):
        return urllib.parse.quote(os.path.join(self.info["path"], FOLDER))

    def empty(self):
        shutil.rmtree(self.data, ignore_errors=True)
        os.mkdir(self.data)
        os.chown(self.data, *self.owner)

    def fill(self, names, content="x"):
        for name in names:
            path = os.path.join(self.data, name)
            with open(path, "w", encoding="ascii") as file:
                file.write(content)
                os.fchown(file.fileno(), *self.owner)

    def count(self):
        # A missing directory counts as empty, because some tools remove it with the last file.
        return len(os.listdir(self.data)) if os.path.isdir(self.data) else 0

    def check_file(self, name, local):
        cost.run(["cmp", os.path.join(self.data, name), local])

    def check_folder(self, local):
        cost.run(["diff", "-rq", self.data, local])

    def drop(self, names):
        for name in names:
            os.unlink(os.path.join(self.data, name))


class Sftp(Served):
    server = scheme = "sftp"

    def account(self):
        return quoted(self.info["user"])

    def parameters(self):
        return {"key": self.info["key"], "known_hosts": self.info["known_hosts"]}

    def rclone(self):
        return {"TYPE": "sftp", "HOST": "127.0.0.1", "PORT": self.port, "USER": self.info["user"],
                "KEY_FILE": self.info["key"], "KNOWN_HOSTS_FILE": self.info["known_hosts"],
                # The account has no shell, so no tool can compute checksums on the server.
                "SHELL_TYPE": "none", "DISABLE_HASHCHECK": "true"}, self.data


class Webdav(Served):
    server = "webdav"

    @property
    def scheme(self):
        return "webdav" if self.tls else "webdav+http"

    @property
    def url(self):
        head = "https" if self.tls else "http"
        return f"{head}://127.0.0.1:{self.port}{self.info['path']}/{FOLDER}"

    def rclone(self):
        return {"TYPE": "webdav", "VENDOR": "other", "URL": self.url, "USER": self.info["user"],
                "PASS": self.obscured()}, ""

    def obscured(self):
        return cost.run(["rclone", "obscure", self.info["password"]]).strip()


class Ftp(Served):
    server = "ftp"
    obscured = Webdav.obscured

    @property
    def scheme(self):
        return "ftps" if self.tls else "ftp"

    @property
    def url(self):
        return f"ftp://127.0.0.1:{self.port}/{FOLDER}"

    def rclone(self):
        return {"TYPE": "ftp", "HOST": "127.0.0.1", "PORT": self.port, "USER": self.info["user"],
                "PASS": self.obscured(), "EXPLICIT_TLS": str(self.tls).lower(), "CONCURRENCY": "0",
                }, FOLDER


class S3(Site):
    server = "s3"

    @property
    def scheme(self):
        return "s3" if self.tls else "s3+http"

    @property
    def url(self):
        return f"{'https' if self.tls else 'http'}://127.0.0.1:{self.port}"

    def parameters(self):
        return {**super().parameters(), "region": self.info["region"], "style": "path"}

    def prepare(self):
        self.curl("-X", "PUT", f"{self.plain_url}/{FOLDER}")

    def storage_path(self):
        return "/" + FOLDER

    def rclone(self):
        return {"TYPE": "s3", "PROVIDER": "Ceph", "ENDPOINT": self.url,
                "ACCESS_KEY_ID": self.info["user"], "SECRET_ACCESS_KEY": self.info["password"],
                "REGION": self.info["region"], "NO_CHECK_BUCKET": "true"}, FOLDER

    # --- Requests in the server's network, without TLS ---

    @property
    def plain_url(self):
        return f"http://127.0.0.1:{self.info['port']}"

    def curl_text(self, *arguments):
        return [*self.near, "curl", "-sS", "-f", "-K", self.info["curl_config"], *arguments]

    def curl(self, *arguments):
        return cost.run(self.curl_text(*arguments))

    def helper(self, *arguments):
        remote = {**self.rclone()[0], "ENDPOINT": self.plain_url}
        environment = {"RCLONE_CONFIG_R_" + name: value for name, value in remote.items()}
        return cost.run([*self.near, "rclone", "--config", "/dev/null", "--transfers", "16",
                         "--checkers", "16", *arguments], environment)

    def empty(self):
        self.helper("delete", "r:" + FOLDER)

    def fill(self, names, content="x"):
        folder = self.file("tmp/names")
        shutil.rmtree(folder, ignore_errors=True)
        os.mkdir(folder)
        for name in names:
            with open(os.path.join(folder, name), "w", encoding="ascii") as file:
                file.write(content)
        self.helper("copy", "--no-check-dest", folder, "r:" + FOLDER)

    def count(self):
        return len(self.helper("lsf", "r:" + FOLDER).splitlines())

    def check_file(self, name, local):
        text = cost.shlex.join(self.curl_text(f"{self.plain_url}/{FOLDER}/{name}"))
        cost.run(cost.shell(f"{text} | cmp - {cost.shlex.quote(local)}").arguments)

    def check_folder(self, local):
        self.helper("check", local, "r:" + FOLDER)

    def drop(self, names):
        for name in names:
            self.curl("-X", "DELETE", f"{self.plain_url}/{FOLDER}/{name}")


class SecureWebdav(Webdav):
    tls = True


class SecureFtp(Ftp):
    tls = True


class SecureS3(S3):
    tls = True


SITES = {"sftp": Sftp, "s3": SecureS3, "s3+http": S3, "webdav": SecureWebdav,
         "webdav+http": Webdav, "ftps": SecureFtp, "ftp": Ftp}
