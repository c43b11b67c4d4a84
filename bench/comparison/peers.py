"""The tools that the benchmark compares with the program. Each method returns the command for one kind of work, or None if the tool has none.

Each tool runs with sensible defaults and, if it supports that, with eight parallel transfers.
"""

import os
import shlex

from .cost import Command, run, shell
from .site import FOLDER

PARALLEL = "8"


class Peer:
    name = ""

    def __init__(self, site):
        self.site = site

    def up(self, local, name):
        """Uploads one file."""

    def down(self, name, local):
        """Downloads one file."""

    def sealed_up(self, local, name):
        """Encrypts one file on the client and uploads it."""

    def sealed_down(self, name, local):
        """Downloads one file and decrypts it on the client."""

    def up_many(self, folder):
        """Uploads all files of a directory."""

    def down_many(self, names, folder):
        """Downloads all files of the storage."""

    def rescan(self, names, folder):
        """Downloads the info files and the indexes of many backups. The storage contains no other files."""
        return self.down_many(names, folder)

    def list(self):
        """Lists the names on the storage."""

    def remove_each(self, names):
        """Removes these files one by one."""

    def remove_all(self):
        """Removes all files in the tool's fastest way."""


class Rclone(Peer):
    name = "rclone"

    def __init__(self, site):
        super().__init__(site)
        remote, path = site.rclone()
        self.root = "r:" + path
        self.environment = {"RCLONE_CONFIG_R_" + name: value for name, value in remote.items()}
        if site.tls:
            # rclone's FTP backend ignores --ca-cert and reads SSL_CERT_FILE instead.
            self.environment.update(RCLONE_CA_CERT=site.info["ca"], SSL_CERT_FILE=site.info["ca"])

    def command(self, *arguments, environment=None):
        options = ["--config", "/dev/null", "--transfers", PARALLEL, "--checkers", PARALLEL]
        if self.site.server == "ftp":
            # Uses one stream for each file, because downloads of large files over FTP are interrupted with several.
            options += ["--multi-thread-streams", "0"]
        return Command(["rclone", *options, *arguments], {**self.environment, **(environment or {})})

    def below(self, name):
        return self.root + ("" if self.root.endswith(":") else "/") + name

    def up(self, local, name):
        return self.command("copyto", local, self.below(name))

    def down(self, name, local):
        return self.command("copyto", self.below(name), local)

    def crypt(self):
        return {"RCLONE_CONFIG_C_TYPE": "crypt", "RCLONE_CONFIG_C_REMOTE": self.root,
                "RCLONE_CONFIG_C_FILENAME_ENCRYPTION": "off",
                "RCLONE_CONFIG_C_PASSWORD": run(["rclone", "obscure", "correct horse"]).strip()}

    def sealed_up(self, local, name):
        return self.command("copyto", local, "c:" + name, environment=self.crypt())

    def sealed_down(self, name, local):
        return self.command("copyto", "c:" + name, local, environment=self.crypt())

    def up_many(self, folder):
        return self.command("copy", folder, self.root)

    def down_many(self, names, folder):
        return self.command("copy", self.root, folder)

    def list(self):
        return self.command("lsf", self.root)

    def remove_each(self, names):
        return self.command("delete", self.root)

    def remove_all(self):
        if self.site.server == "s3":
            return None  # rclone has no faster way for S3
        return self.command("purge", self.root)


class AgeRclone(Rclone):
    """Encrypts with age and transfers through a pipe with rclone."""

    name = "age+rclone"
    up = down = up_many = down_many = list = remove_each = remove_all = (
        lambda self, *arguments: None)

    def __init__(self, site):
        super().__init__(site)
        self.key = site.file("tmp/age.key")
        if not os.path.exists(self.key):
            run(["age-keygen", "-o", self.key])
        self.recipient = run(["age-keygen", "-y", self.key]).strip()

    def sealed_up(self, local, name):
        put = self.command("rcat", self.below(name))
        return self.pipe(f"age -r {self.recipient} {shlex.quote(local)} | {shlex.join(put.arguments)}")

    def sealed_down(self, name, local):
        get = self.command("cat", self.below(name))
        return self.pipe(f"{shlex.join(get.arguments)} | age -d -i {shlex.quote(self.key)}"
                         f" -o {shlex.quote(local)}")

    def pipe(self, text):
        return shell(text, self.environment)


class OpenSsh(Peer):
    def options(self, port):
        info = self.site.info
        return ["-q", port, info["port"], "-i", info["key"], "-o", "IdentitiesOnly=yes",
                "-o", "UserKnownHostsFile=" + info["known_hosts"], "-F", "none"]

    @property
    def host(self):
        return self.site.info["user"] + "@127.0.0.1"


class OpenSftp(OpenSsh):
    name = "sftp"

    def batch(self, *lines):
        path = self.site.write("sftp-batch", "".join(line + "\n" for line in lines))
        return Command(["sftp", *self.options("-P"), "-b", path, f"{self.host}:{self.site.data}"])

    # put -f makes the server sync the file, as it does for our uploads.
    def up(self, local, name):
        return self.batch(f"put -f {local} {name}")

    def down(self, name, local):
        return self.batch(f"get {name} {local}")

    def up_many(self, folder):
        return self.batch(f"put -f {folder}/*")

    def down_many(self, names, folder):
        return self.batch(f"get * {folder}/")

    def list(self):
        return self.batch("ls -1")

    def remove_each(self, names):
        return self.batch("rm *")

    def remove_all(self):
        return self.batch("rm *")


class Scp(OpenSsh):
    name = "scp"

    def up(self, local, name):
        return Command(["scp", *self.options("-P"), local, f"{self.host}:{self.site.data}/{name}"])

    def down(self, name, local):
        return Command(["scp", *self.options("-P"), f"{self.host}:{self.site.data}/{name}", local])


class Curl(Peer):
    """curl for HTTP and FTP. Its options are in a file, because they contain secrets."""

    name = "curl"

    def account(self):
        user = f"{self.site.info['user']}:{self.site.info['password']}"
        lines = ['silent', 'show-error', 'fail', f'user = "{escaped(user)}"']
        if self.site.tls:
            lines.append(f'cacert = "{self.site.info["ca"]}"')
            if self.site.server == "ftp":
                lines.append("ssl-reqd")
        return lines

    def command(self, *lines):
        text = "".join(line + "\n" for line in [*self.account(), *lines])
        return Command(["curl", "-q", "-K", self.site.write("curl-options", text)])

    @property
    def root(self):
        return self.site.url

    def url(self, name):
        return f'url = "{self.root}/{name}"'

    def up(self, local, name):
        return self.command(f'upload-file = "{local}"', self.url(name))

    def down(self, name, local):
        return self.command(f'output = "{local}"', self.url(name))

    def up_many(self, folder):
        return self.parallel(line for name in sorted(os.listdir(folder)) for line in
                             (f'upload-file = "{folder}/{name}"', self.url(name)))

    def down_many(self, names, folder):
        return self.parallel(line for name in names for line in
                             (f'output = "{folder}/{name}"', self.url(name)))

    def parallel(self, lines):
        return self.command("parallel", f"parallel-max = {PARALLEL}", *lines)

    def sealed_up(self, local, name):
        put = self.command('upload-file = "-"', self.url(name))
        return shell(f"age -r {AgeRclone(self.site).recipient} {shlex.quote(local)}"
                     f" | {shlex.join(put.arguments)}")

    def sealed_down(self, name, local):
        get = self.command(self.url(name))
        return shell(f"{shlex.join(get.arguments)} | age -d -i {self.site.file('tmp/age.key')}"
                     f" -o {shlex.quote(local)}")


def escaped(text):
    return text.replace("\\", "\\\\").replace('"', '\\"')


class CurlWebdav(Curl):
    def list(self):
        return self.command("request = PROPFIND", 'header = "Depth: 1"', self.url(""))

    def remove_each(self, names):
        return self.parallel(["request = DELETE", *map(self.url, names)])

    def remove_all(self):
        return self.command("request = DELETE", self.url(""))


class CurlFtp(Curl):
    def list(self):
        return self.command("list-only", self.url(""))

    def remove_each(self, names):
        return self.command("head", self.url(""),
                            *(f'quote = "DELE /{FOLDER}/{name}"' for name in names))


class CurlS3(Curl):
    # curl can sign neither a stream of unknown length nor several requests of one command.
    up_many = down_many = sealed_up = sealed_down = lambda self, *arguments: None

    def account(self):
        return [*super().account(), 'aws-sigv4 = "aws:amz:default:s3"',
                'header = "x-amz-content-sha256: UNSIGNED-PAYLOAD"']

    @property
    def root(self):
        return f"{self.site.url}/{FOLDER}"


class Aws(Peer):
    name = "aws"

    def command(self, *arguments):
        return Command(self.words(*arguments), self.environment())

    def words(self, *arguments):
        trust = ["--ca-bundle", self.site.info["ca"]] if self.site.tls else []
        return ["/usr/bin/aws", "--endpoint-url", self.site.url, *trust, *arguments]

    def environment(self):
        info = self.site.info
        return {"AWS_ACCESS_KEY_ID": info["user"], "AWS_SECRET_ACCESS_KEY": info["password"],
                "AWS_DEFAULT_REGION": info["region"], "AWS_CONFIG_FILE": "/dev/null",
                "AWS_SHARED_CREDENTIALS_FILE": "/dev/null", "AWS_EC2_METADATA_DISABLED": "true"}

    def copy(self, *arguments):
        return self.command("s3", "cp", "--only-show-errors", *arguments)

    def up(self, local, name):
        return self.copy(local, f"s3://{FOLDER}/{name}")

    def down(self, name, local):
        return self.copy(f"s3://{FOLDER}/{name}", local)

    def sealed_up(self, local, name):
        size = str(os.path.getsize(local) + (1 << 20))
        put = self.words("s3", "cp", "--only-show-errors", "--expected-size", size, "-",
                         f"s3://{FOLDER}/{name}")
        return shell(f"age -r {AgeRclone(self.site).recipient} {shlex.quote(local)}"
                     f" | {shlex.join(put)}", self.environment())

    def sealed_down(self, name, local):
        get = self.words("s3", "cp", "--only-show-errors", f"s3://{FOLDER}/{name}", "-")
        return shell(f"{shlex.join(get)} | age -d -i {self.site.file('tmp/age.key')}"
                     f" -o {shlex.quote(local)}", self.environment())

    def up_many(self, folder):
        return self.copy("--recursive", folder, f"s3://{FOLDER}")

    def down_many(self, names, folder):
        return self.copy("--recursive", f"s3://{FOLDER}", folder)

    def list(self):
        return self.command("s3", "ls", f"s3://{FOLDER}/")

    def remove_each(self, names):
        return self.command("s3", "rm", "--only-show-errors", "--recursive", f"s3://{FOLDER}")


class S3cmd(Peer):
    name = "s3cmd"

    def command(self, *arguments):
        site = self.site
        config = site.write("s3cmd", f"""[default]
access_key = {site.info["user"]}
secret_key = {site.info["password"]}
host_base = 127.0.0.1:{site.port}
host_bucket = 127.0.0.1:{site.port}
bucket_location = {site.info["region"]}
use_https = {site.tls}
ca_certs_file = {site.info["ca"]}
""")
        return Command(["s3cmd", "-c", config, "--no-progress", *arguments])

    def up(self, local, name):
        return self.command("put", local, f"s3://{FOLDER}/{name}")

    def down(self, name, local):
        return self.command("get", "--force", f"s3://{FOLDER}/{name}", local)

    def up_many(self, folder):
        return self.command("put", "--recursive", folder + "/", f"s3://{FOLDER}/")

    def down_many(self, names, folder):
        return self.command("get", "--force", "--recursive", f"s3://{FOLDER}/", folder + "/")

    def list(self):
        return self.command("ls", f"s3://{FOLDER}/")

    def remove_all(self):
        return self.command("del", "--recursive", "--force", f"s3://{FOLDER}/")


class Lftp(Peer):
    name = "lftp"

    def script(self, *lines):
        info, site = self.site.info, self.site
        tls = "true" if site.tls else "false"
        head = ["set cmd:fail-exit true", "set net:max-retries 2", "set cmd:move-background false",
                f"set ftp:ssl-allow {tls}", f"set ftp:ssl-force {tls}",
                f"set ftp:ssl-protect-data {tls}", f'set ssl:ca-file "{info["ca"]}"',
                f'open -u "{info["user"]},{escaped(info["password"])}" -p {site.port} 127.0.0.1',
                f"cd /{FOLDER}"]
        path = site.write("lftp-script", "".join(line + "\n" for line in [*head, *lines, "bye"]))
        # Ignores the lftp settings of the user and of the system.
        return Command(["lftp", "--norc", "-f", path], {"LFTP_HOME": site.file("tmp")})

    def up(self, local, name):
        return self.script(f"put {local} -o {name}")

    def down(self, name, local):
        return self.script(f"get {name} -o {local}")

    def up_many(self, folder):
        return self.script(f"mirror -R -P {PARALLEL} {folder} .")

    def down_many(self, names, folder):
        return self.script(f"mirror -P {PARALLEL} . {folder}")

    def list(self):
        return self.script("nlist")

    def remove_each(self, names):
        return self.script("mrm *")


PEERS = {"sftp": (OpenSftp, Scp, Rclone, AgeRclone),
         "webdav": (CurlWebdav, Rclone, AgeRclone),
         "ftp": (CurlFtp, Lftp, Rclone, AgeRclone),
         "s3": (CurlS3, Aws, S3cmd, Rclone, AgeRclone)}


def peers_of(site):
    return [kind(site) for kind in PEERS[site.server]]
