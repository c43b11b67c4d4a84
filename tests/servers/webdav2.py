"""A second WebDAV server: nginx with its dav and dav-ext modules, below /basic."""

import os

from .base import INSTALL, Server, ServerError

MODULE = "/usr/lib/nginx/modules/ngx_http_dav_ext_module.so"


class Nginx(Server):
    name = "webdav2"
    programs = ("nginx",)
    owner = "www-data"

    def check_means(self):
        super().check_means()
        if not os.path.exists(MODULE):
            raise ServerError(f"nginx lacks {MODULE} (libnginx-mod-http-dav-ext): {INSTALL}")

    def launch(self, base):
        self.serve_directory()
        # nginx creates the folders for request bodies here, as its own user.
        self.run("chown", self.owner, self.file("tmp"))
        self.info.update(port=base, tls_port=base + 1, expired_port=base + 2,
                         self_signed_port=base + 3, path="/basic")
        self.write("etc/basic", self.web_password())
        config = self.write("etc/nginx.conf", self.config())
        arguments = ("nginx", "-c", config, "-p", self.path, "-e", self.file("log/error.log"))
        self.run(*arguments, "-q", "-t")
        self.spawn("nginx", *arguments)

    def is_ready(self):
        return self.answers_http(self.info["port"])

    def config(self):
        servers = self.server(f"listen 127.0.0.1:{self.info['port']};", "tls_port", "server")
        servers += self.server("", "expired_port", "expired")
        servers += self.server("", "self_signed_port", "self_signed")
        temporary = "".join(f"  {kind}_temp_path {self.file('tmp', kind)};\n"
                            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        return f"""load_module {MODULE};
user {self.owner} {self.group};
daemon off;
worker_processes 2;
pid {self.file('run/nginx.pid')};
error_log {self.file('log/error.log')} warn;
events {{ worker_connections 512; }}
http {{
  access_log {self.file('log/access.log')};
{temporary}  client_max_body_size 0;
  sendfile on;
  keepalive_requests 100000;
  dav_ext_lock_zone zone=dav:1m;
{servers}}}
"""

    def server(self, listen, tls_port, certificate):
        return f"""  server {{
    {listen}
    listen 127.0.0.1:{self.info[tls_port]} ssl;
    server_name localhost;
    ssl_certificate {self.certificate(certificate, 'crt')};
    ssl_certificate_key {self.certificate(certificate, 'key')};
    location /basic/ {{
      alias {self.data}/;
      auth_basic dav;
      auth_basic_user_file {self.file('etc/basic')};
      dav_methods PUT DELETE MKCOL COPY MOVE;
      dav_ext_methods PROPFIND OPTIONS LOCK UNLOCK;
      dav_ext_lock zone=dav;
      dav_access user:rw group:r all:r;
    }}
  }}
"""
