"""WebDAV: Apache with mod_dav, the same files below /basic and /digest, over http and https."""

import hashlib

from .base import Server

MODULES = ("mpm_event authn_core authn_file authz_core authz_user auth_basic auth_digest alias dav dav_fs"
           " mime socache_shmcb ssl reqtimeout setenvif").split()


class Apache(Server):
    name = "webdav"
    programs = ("apache2",)
    owner = "www-data"

    def launch(self, base):
        self.serve_directory()
        user, password = self.info["user"], self.info["password"]
        self.write("etc/basic", self.web_password())
        digest = hashlib.md5(f"{user}:dav:{password}".encode()).hexdigest()
        self.write("etc/digest", f"{user}:dav:{digest}\n")
        self.info.update(port=base, tls_port=base + 1, expired_port=base + 2,
                         self_signed_port=base + 3, path="/basic", digest_path="/digest")
        config = self.write("etc/httpd.conf", self.config())
        self.run("apache2", "-t", "-f", config)
        self.spawn("apache", "apache2", "-f", config, "-DFOREGROUND")

    def is_ready(self):
        return self.answers_http(self.info["port"])

    def config(self):
        listeners = [self.info[key] for key in ("port", "tls_port", "expired_port",
                                                "self_signed_port")]
        return "".join(
            [f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so\n"
             for name in MODULES]
            + [f"Listen 127.0.0.1:{port}\n" for port in listeners]
            + [self.main_part(), self.location("basic", "AuthType Basic"),
               self.location("digest", "AuthType Digest\nAuthDigestDomain /digest\n"
                                       "AuthDigestProvider file"),
               self.tls("tls_port", "server"), self.tls("expired_port", "expired"),
               self.tls("self_signed_port", "self_signed")])

    def main_part(self):
        return f"""ServerRoot {self.path}
ServerName localhost
DefaultRuntimeDir {self.file('run')}
Mutex file:{self.file('run')} default
PidFile {self.file('run/apache.pid')}
ErrorLog {self.file('log/error.log')}
LogLevel warn
CustomLog {self.file('log/access.log')} "%t %h %u \\"%r\\" %>s %b %D"
User {self.owner}
Group {self.group}
TypesConfig /etc/mime.types
DocumentRoot {self.data}
DavLockDB {self.make_lock_directory()}/db
KeepAlive On
MaxKeepAliveRequests 0
SSLSessionCache shmcb:{self.file('run/ssl')}(512000)
LimitXMLRequestBody 0
<Directory {self.data}>
  Require all granted
</Directory>
"""

    def make_lock_directory(self):
        folder = self.file("tmp")
        self.run("chown", self.owner, folder)
        return folder

    def location(self, name, authentication):
        return f"""Alias /{name} {self.data}
<Location /{name}>
  Dav On
  DavDepthInfinity Off
  {authentication}
  AuthName dav
  AuthUserFile {self.file('etc', name)}
  Require valid-user
</Location>
"""

    def tls(self, port, certificate):
        return f"""<VirtualHost 127.0.0.1:{self.info[port]}>
  SSLEngine on
  SSLCertificateFile {self.certificate(certificate, 'crt')}
  SSLCertificateKeyFile {self.certificate(certificate, 'key')}
</VirtualHost>
"""
