"""A second FTP server: ProFTPD, plain and with explicit TLS on one port."""

import os
import pwd

from .base import Server
from .ftp import DAEMONS, check_unpacked
from .ports import BLOCK


class Proftpd(Server):
    name = "ftp2"
    owner = "www-data"
    program = os.path.join(DAEMONS, "proftpd/usr/sbin/proftpd")
    modules = os.path.join(DAEMONS, "proftpd/usr/lib/proftpd")

    def check_means(self):
        super().check_means()
        check_unpacked(self.program)

    def launch(self, base):
        self.serve_directory()
        self.make_users()
        last = base + BLOCK - 1
        self.info.update(port=base, tls_port=base, expired_port=last - 1, self_signed_port=last,
                         first_passive_port=base + 1, last_passive_port=last - 4, path="/")
        config = self.write("etc/proftpd.conf", self.config())
        self.run(self.program, "-t", "-c", config)
        self.spawn("proftpd", self.program, "-n", "-c", config)

    def is_ready(self):
        return self.answers(self.info["port"], b"220")

    def make_users(self):
        user = pwd.getpwnam(self.owner)
        hashed = self.run("openssl", "passwd", "-6", "-stdin", input=self.info["password"]).strip()
        self.write("etc/passwd", f"{self.info['user']}:{hashed}:{user.pw_uid}:{user.pw_gid}::"
                                 f"{self.data}:/bin/false\n", 0o600)
        self.write("etc/group", f"{self.group}:x:{user.pw_gid}:\n", 0o600)

    def config(self):
        return f"""ModulePath {self.modules}
LoadModule mod_tls.c
ServerName test
ServerType standalone
DefaultServer on
UseIPv6 off
DefaultAddress 127.0.0.1
SocketBindTight on
Port {self.info['port']}
PassivePorts {self.info['first_passive_port']} {self.info['last_passive_port']}
MaxInstances 100
User root
Group root
PidFile {self.file('run/proftpd.pid')}
ScoreboardFile {self.file('run/scoreboard')}
DelayTable none
DelayEngine off
SystemLog {self.file('log/system.log')}
TransferLog none
ExtendedLog {self.file('log/commands.log')} ALL
WtmpLog off
UseReverseDNS off
TimeoutIdle 600
<Global>
  AuthOrder mod_auth_file.c
  AuthUserFile {self.file('etc/passwd')}
  AuthGroupFile {self.file('etc/group')}
  RequireValidShell off
  DefaultRoot ~
  Umask 022
  AllowOverwrite on
  AllowStoreRestart on
  AllowRetrieveRestart on
</Global>
{self.tls('server')}
<VirtualHost 127.0.0.1>
  Port {self.info['expired_port']}
  {self.tls('expired')}
</VirtualHost>
<VirtualHost 127.0.0.1>
  Port {self.info['self_signed_port']}
  {self.tls('self_signed')}
</VirtualHost>
"""

    def tls(self, certificate):
        return f"""TLSEngine on
  TLSLog {self.file('log/tls.log')}
  TLSProtocol TLSv1.2 TLSv1.3
  TLSECCertificateFile {self.certificate(certificate, 'crt')}
  TLSECCertificateKeyFile {self.certificate(certificate, 'key')}
  TLSVerifyClient off
  TLSRequired off
  TLSRenegotiate none
  TLSOptions NoSessionReuseRequired"""
