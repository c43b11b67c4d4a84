"""Creates a certificate authority for one server, a valid certificate and invalid ones.

    ca.crt           signs server.* and expired.*
    server.{crt,key,pem}       for localhost, *.localhost, 127.0.0.1 and 127.0.0.2
    expired.{crt,key,pem}      the same, but expired
    self_signed.{crt,key,pem}  the same, but self-signed

A .pem file contains the key and the certificate.
"""

import os
import subprocess

NAMES = "DNS:localhost,DNS:*.localhost,IP:127.0.0.1,IP:127.0.0.2"
NEW_KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]


def _openssl(folder, *arguments):
    subprocess.run(["openssl", *arguments], cwd=folder, check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def _join(folder, name):
    with open(os.path.join(folder, name + ".pem"), "wb") as pem:
        for part in (".key", ".crt"):
            with open(os.path.join(folder, name + part), "rb") as file:
                pem.write(file.read())
    for part in (".key", ".pem"):
        os.chmod(os.path.join(folder, name + part), 0o600)


def _signed(folder, name, days):
    _openssl(folder, "req", *NEW_KEY, "-subj", "/CN=localhost", "-keyout", name + ".key",
             "-out", name + ".csr")
    _openssl(folder, "x509", "-req", "-in", name + ".csr", "-CA", "ca.crt", "-CAkey", "ca.key",
             "-CAcreateserial", "-days", str(days), "-extfile", "extensions", "-out", name + ".crt")
    _join(folder, name)


def make(folder):
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "extensions"), "w", encoding="ascii") as file:
        file.write(f"subjectAltName={NAMES}\nextendedKeyUsage=serverAuth\n")
    _openssl(folder, "req", "-x509", *NEW_KEY, "-days", "30", "-subj", "/CN=test authority",
             "-addext", "basicConstraints=critical,CA:TRUE", "-keyout", "ca.key", "-out", "ca.crt")
    _signed(folder, "server", 30)
    _signed(folder, "expired", -1)
    _openssl(folder, "req", "-x509", *NEW_KEY, "-days", "30", "-subj", "/CN=localhost",
             "-addext", "subjectAltName=" + NAMES, "-keyout", "self_signed.key",
             "-out", "self_signed.crt")
    _join(folder, "self_signed")
