"""S3: Ceph's object gateway on a cluster of one monitor and one disk, without authentication in the cluster."""

import json
import os
import urllib.error
import urllib.request
import uuid

from .base import Server, ServerError

ADMIN_USER = "tester"


class Radosgw(Server):
    """`store` is "bluestore" (a sparse file) or "memstore"."""

    name = "s3"
    programs = ("radosgw", "radosgw-admin", "ceph", "ceph-mon", "ceph-osd", "monmaptool", "curl")

    def __init__(self, directory, store="bluestore"):
        super().__init__(directory)
        self.store = store

    def launch(self, base):
        self.info.update(port=base, tls_port=base + 1, expired_port=base + 3,
                         self_signed_port=base + 4, path="", store=self.store)
        for folder in ("mon", "osd", "rgw"):
            os.makedirs(self.file(folder))
        cluster, disk = str(uuid.uuid4()), str(uuid.uuid4())
        self.config_path = self.write("etc/ceph.conf", self.config(cluster, base))
        self.start_monitor(cluster, base + 2)
        # openssl serves the invalid certificates instead of the gateway, because only the TLS handshake matters
        # there.
        for certificate in ("expired", "self_signed"):
            self.spawn("tls-" + certificate, "openssl", "s_server", "-quiet", "-naccept", "10000",
                       "-accept", f"127.0.0.1:{self.info[certificate + '_port']}",
                       "-cert", self.certificate(certificate, "crt"),
                       "-key", self.certificate(certificate, "key"))
        self.ceph("osd", "new", disk)
        self.run("ceph-osd", "-c", self.config_path, "-i", "0", "--mkfs", "--osd-uuid", disk)
        self.spawn("osd", "ceph-osd", "-c", self.config_path, "-i", "0", "-f")
        self.wait_for_disk()
        self.spawn("radosgw", "radosgw", "-c", self.config_path, "-n", "client.rgw", "-f")

    def start_monitor(self, cluster, port):
        monmap = self.file("etc/monmap")
        self.run("monmaptool", "--create", "--fsid", cluster, "--addv", "a",
                 f"[v2:127.0.0.1:{port}/0]", monmap)
        self.run("ceph-mon", "-c", self.config_path, "--mkfs", "-i", "a", "--monmap", monmap)
        self.spawn("mon", "ceph-mon", "-c", self.config_path, "-i", "a", "-f")

    def wait_for_disk(self):
        for _ in range(300):
            self.check_alive()
            if json.loads(self.ceph("osd", "stat", "-f", "json"))["num_up_osds"] == 1:
                return
        raise ServerError(f"the cluster's disk does not come up:\n{self.last_words()}")

    def is_ready(self):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self.info['port']}/", timeout=5):
                return True
        except urllib.error.HTTPError:
            return True
        except OSError:
            return False

    def prepare(self):
        secret = "secret/with+" + uuid.uuid4().hex
        self.admin("user", "create", "--uid", ADMIN_USER, "--display-name", ADMIN_USER,
                   "--access-key", "testaccess", "--secret-key", secret, "--max-buckets", "100000")
        curl = self.write("etc/curl", f"""aws-sigv4 = "aws:amz:default:s3"
user = "testaccess:{secret}"
header = "x-amz-content-sha256: UNSIGNED-PAYLOAD"
""", 0o600)
        self.info.update(user="testaccess", password=secret, region="default", curl_config=curl,
                         admin=f"radosgw-admin -c {self.config_path} -n client.rgw")

    def ceph(self, *arguments):
        return self.run("/usr/bin/ceph", "-c", self.config_path, "--connect-timeout", "90",
                        *arguments)

    def admin(self, *arguments):
        return self.run("radosgw-admin", "-c", self.config_path, "-n", "client.rgw", *arguments)

    def set_quota(self, bucket, size):
        """Limits the size of the bucket in bytes. None removes the limit."""
        scope = ("--quota-scope=bucket", "--bucket", bucket)
        if size is None:
            self.admin("quota", "disable", *scope)
        else:
            self.admin("quota", "set", *scope, "--max-size", str(size))
            self.admin("quota", "enable", *scope)

    def config(self, cluster, base):
        # The connection mode crc (no encryption) is set, because the gateway cannot encrypt without
        # authentication. The short proposal interval saves ten seconds at the start.
        return f"""[global]
fsid = {cluster}
mon host = [v2:127.0.0.1:{base + 2}/0]
mon initial members = a
public network = 127.0.0.0/8
ms bind ipv6 = false
ms bind msgr1 = false
ms bind port min = {base + 10}
ms bind port max = {base + 60}
ms mon client mode = crc
auth cluster required = none
auth service required = none
auth client required = none
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
osd crush chooseleaf type = 0
mon allow pool size one = true
mon allow pool delete = true
mon warn on pool no redundancy = false
mon max pg per osd = 2000
mon pg warn min per osd = 0
run dir = {self.file('run')}
admin socket =
log file = {self.file('log')}/$cluster-$name.log
mon cluster log file = {self.file('log/cluster.log')}
debug ms = 0
paxos propose interval = 0.05
mon mgr tick period = 60
[mon.a]
host = localhost
mon data = {self.file('mon')}
public addr = v2:127.0.0.1:{base + 2}/0
mon data avail warn = 1
mon data avail crit = 1
[osd.0]
host = localhost
osd data = {self.file('osd')}
osd objectstore = {self.store}
public addr = 127.0.0.1
cluster addr = 127.0.0.1
bluestore block size = {32 << 30}
bluestore block create = true
osd memory target = {1 << 30}
memstore device bytes = {6 << 30}
osd heartbeat grace = 3600
[client.rgw]
rgw data = {self.file('rgw')}
rgw frontends = beast endpoint=127.0.0.1:{base} ssl_endpoint=127.0.0.1:{base + 1} ssl_certificate={self.certificate('server', 'crt')} ssl_private_key={self.certificate('server', 'key')}
rgw dns name = localhost
rgw enable usage log = false
rgw bucket quota ttl = 0
rgw user quota bucket sync interval = 1
rgw user quota sync interval = 1
rgw gc obj min wait = 5
rgw gc processor period = 10
"""
