"""Malformed tokens of every scheme are refused. The error names the fault and shows no secret."""

import os
import unittest

from local_files import read, tree, write
from system_test import SystemTest


# Two secrets, each in two halves. They are random, so that no four of their characters occur in another text by
# chance. In the table, SEC and RET stand for the halves of the first one, AR and CH for those of the second.
SECRET = ("Zq9XwK", "v7TmPd")
ARCH = ("vR8hJy", "N3cLq2")

# (malformed token, pattern of the error). "{s}" is the scheme, "{at}" is "SCHEME://user:SECRET@".
EVERYWHERE = (
    # No scheme, or an unknown scheme
    ("{s}", "scheme"),
    ("x{s}://user:SECRET@host/dir", "scheme 'x{s}'"),
    ("{s}x://user:SECRET@host/dir", "scheme '{s}x'"),
    ("{s}//user:SECRET@host/dir", "scheme"),
    ("user:SECRET@host/dir", "scheme"),
    ("://user:SECRET@host/dir", "scheme"),
    ("user:SECRET@{s}://host/dir", "scheme"),
    ("SECRET", "scheme"),
    ("SECRET@host/dir", "scheme"),
    # No host, or an invalid host
    ("{s}:", "host"),
    ("{s}://", "host"),
    ("{s}:///dir", "host"),
    ("{s}:/dir", "host"),
    ("{s}:dir", "host"),
    ("{s}:user:SECRET@host/dir", "host"),
    ("{s}:/user:SECRET@host/dir", "host"),
    ("{s}:///user:SECRET@host/dir", "host"),
    ("{at}/dir", "host"),
    ("{at}:8080/dir", "host"),
    ("{at}ho!st/dir", "host"),
    ("{at}h%6Fst/dir", "host"),
    ("{at}h%C3%B6st/dir", "host"),
    ("{at}[::1/dir", "host"),
    ("{at}[]/dir", "host"),
    ("{at}[::1]x/dir", "host"),
    ("{at}[host]/dir", "host"),
    ("{at}ho\\st/dir", "host"),
    ("{at}host,other/dir", "host"),
    # Ports
    ("{at}host:/dir", "port"),
    ("{at}host:0/dir", "port"),
    ("{at}host:65536/dir", "port"),
    ("{at}host:99999999999999999999/dir", "port"),
    ("{at}host:-1/dir", "port"),
    ("{at}host:+1/dir", "port"),
    ("{at}host:80x/dir", "port"),
    ("{at}host:http/dir", "port"),
    ("{at}host:80:81/dir", "port"),
    ("{at}::1/dir", "h?.?"),
    ("{s}://user:SEC:RET/dir", "h?.?"),
    # Users and passwords
    ("{s}://@host/dir", "user"),
    ("{s}://:SECRET@host/dir", "user"),
    ("{s}://user:SEC/RET@host/dir", "'/'"),
    ("{s}://user:SEC?RET@host/dir", "'[?]'"),
    ("{s}://user:SEC#RET@host/dir", "%23"),
    ("{s}://user:SEC@RET@host/dir", "%40"),
    ("{s}://user:SEC%RET@host/dir", "percent-encoding in the password"),
    ("{s}://user:SEC%G0RET@host/dir", "percent-encoding in the password"),
    ("{s}://user:SECRET%@host/dir", "percent-encoding in the password"),
    ("{s}://user:SECRET%4@host/dir", "percent-encoding in the password"),
    ("{s}://user:SEC%0ARET@host/dir", "control character in the password"),
    ("{s}://user:SEC%00RET@host/dir", "control character in the password"),
    ("{s}://user:SEC RET@host/dir", "contains a space"),
    ("{s}://user:SEC\tRET@host/dir", "contains a space"),
    ("{s}://user:SEC\nRET@host/dir", "control character"),
    ("{s}://us%er:SECRET@host/dir", "percent-encoding in the user"),
    ("{s}://us%0Aer:SECRET@host/dir", "control character in the user"),
    ("{s}://us%00er:SECRET@host/dir", "control character in the user"),
    # Paths
    ("{at}host", "(directory|bucket)"),
    ("{at}host/di%zzr", "percent-encoding in the path"),
    ("{at}host/dir%", "percent-encoding in the path"),
    ("{at}host/di%0Ar", "control character in the path"),
    ("{at}host/di%00r", "control character in the path"),
    ("{at}host/di r", "contains a space"),
    ("{at}host/dir\n", "control character"),
    ("{at}host/dir#top", "%23"),
    ("{at}host/dir@home", "%40"),
    # Parameters
    ("{at}host/dir?bogus=1", "unknown parameter 'bogus'"),
    ("{at}host/dir?bogus=SECRET", "unknown parameter 'bogus'"),
    ("{at}host/dir?Timeout=3", "unknown parameter 'Timeout'"),
    ("{at}host/dir?insecure=1", "unknown parameter 'insecure'"),
    ("{at}host/dir?verify=no", "unknown parameter 'verify'"),
    ("{at}host/dir?SECRET", "unknown parameter"),
    ("{at}host/dir?=SECRET", "unknown parameter"),
    ("{at}host/dir?SEC!RET=1", "unknown parameter"),
    ("{at}host/dir?timeout=3?ca=/x", "'timeout'"),
    ("{at}host/dir?timeout=3;ca=/x", "'timeout'"),
    ("{at}host/dir?timeout=3&timeout=3", "repeated parameter 'timeout'"),
    ("{at}host/dir?timeout=", "'timeout'"),
    ("{at}host/dir?timeout", "'timeout'"),
    ("{at}host/dir?timeout=soon", "'timeout'"),
    ("{at}host/dir?timeout=-3", "'timeout'"),
    ("{at}host/dir?timeout=3.5", "'timeout'"),
    ("{at}host/dir?timeout=3s", "'timeout'"),
    ("{at}host/dir?timeout=SECRET", "'timeout'"),
    ("{at}host/dir?timeout=9999999999999999999999", "'timeout'"),
    ("{at}host/dir?limit_rate=fast", "'limit_rate'"),
    ("{at}host/dir?limit_rate=-1", "'limit_rate'"),
    ("{at}host/dir?limit_rate=1M", "'limit_rate'"),
    ("{at}host/dir?limit_rate=1e6", "'limit_rate'"),
    ("{at}host/dir?limit_rate=", "'limit_rate'"),
    ("{at}host/dir?limit_rate=9999999999999999999999", "'limit_rate'"),
    ("{at}host/dir?ca=", "'ca'"),
    ("{at}host/dir?ca=/a%", "percent-encoding in parameter 'ca'"),
    ("{at}host/dir?ca=/a%00b", "control character in parameter 'ca'"),
    ("{at}host/dir?arch_password", "'arch_password'"),
    ("{at}host/dir?arch_password=", "'arch_password'"),
    ("{at}host/dir?arch_password=ARCH&arch_password=ARCH", "repeated parameter 'arch_password'"),
    ("{at}host/dir?arch_password=ARCH%", "percent-encoding in parameter 'arch_password'"),
    ("{at}host/dir?arch_password=AR%CH", "percent-encoding in parameter 'arch_password'"),
    ("{at}host/dir?arch_password=AR%0aCH", "control character in parameter 'arch_password'"),
    ("{at}host/dir?arch_password=AR&CH", "'&'"),
    ("{at}host/dir?arch_password=AR&CH=1", "'&'"),
    ("{at}host/dir?arch_password=AR#CH", "%23"),
    ("{at}host/dir?arch_password=AR CH", "contains a space"),
    ("{at}host/dir?arch_password=AR@CH", "%40"),
    ("{at}host/dir?arch-password=ARCH", "unknown parameter 'arch-password'"),
    ("{at}host/dir?ARCH_PASSWORD=ARCH", "unknown parameter 'ARCH_PASSWORD'"),
    ("{at}host/dir?arch_password%3DARCH", "unknown parameter"),
)

OF_S3 = (
    ("{s}://host/bucket", "key"),
    ("{s}://user@host/bucket", "key"),
    ("{s}://user:@host/bucket", "key"),
    ("{at}host/", "bucket"),
    ("{at}host/bucket?style=odd", "style"),
    ("{at}host/bucket?style=SECRET", "style"),
    ("{at}host/bucket?part_size=big", "part_size"),
    ("{at}host/bucket?part_size=-1", "part_size"),
    ("{at}host/bucket?part_size=1", "part_size"),
    ("{at}host/bucket?part_size=99999999999999999999999", "part_size"),
    ("{at}host/bucket?part_size=SECRET", "part_size"),
    ("{at}host/bucket?known_hosts=/x", "unknown parameter 'known_hosts'"),
    ("{at}host/bucket?auth=basic", "unknown parameter 'auth'"),
    ("{at}host/bucket/../other", "[.][.]"),
)

OF_SFTP = (
    ("{s}://host/dir", "user"),
    ("{s}://user@host/dir", "password"),
    ("{s}://user:@host/dir", "password"),
    ("{at}host/dir?key=", "'key'"),
    ("{at}host/dir?known_hosts=", "'known_hosts'"),
    ("{at}host/dir?style=path", "unknown parameter 'style'"),
    ("{at}host/dir?auth=digest", "unknown parameter 'auth'"),
)

OF_WEBDAV = (
    ("{s}://user@host/dir", "password"),
    ("{at}host/dir?auth=ntlm", "auth"),
    ("{at}host/dir?auth=SECRET", "auth"),
    ("{at}host/dir?auth=", "'auth'"),
    ("{at}host/dir?region=x", "unknown parameter 'region'"),
    ("{at}host/dir?key=/x", "unknown parameter 'key'"),
)

OF_FTP = (
    ("{s}://host/dir", "user"),
    ("{s}://user@host/dir", "password"),
    ("{s}://user:@host/dir", "password"),
    ("{at}host/dir?auth=basic", "unknown parameter 'auth'"),
    ("{at}host/dir?key=/x", "unknown parameter 'key'"),
    ("{at}host/../dir", "[.][.]"),
)

SCHEMES = {"s3": OF_S3, "s3+http": OF_S3, "sftp": OF_SFTP, "webdav": OF_WEBDAV,
           "webdav+http": OF_WEBDAV, "ftps": OF_FTP, "ftp": OF_FTP}


def pieces(text):
    return {text[start:start + 4] for start in range(len(text) - 3)}


PIECES = set().union(*(pieces(text) for text in (*SECRET, "".join(SECRET), *ARCH, "".join(ARCH))))


def filled(pattern, scheme):
    text = pattern.replace("{at}", "{s}://user:SECRET@").replace("{s}", scheme)
    for name, value in (("SECRET", "".join(SECRET)), ("SEC", SECRET[0]), ("RET", SECRET[1]),
                        ("=ARCH", "=" + "".join(ARCH)), ("DARCH", "D" + "".join(ARCH)),
                        ("=AR", "=" + ARCH[0]), ("CH", ARCH[1])):
        if not (name == "CH" and "ARCH_PASSWORD" in text):
            text = text.replace(name, value)
    return text


class TokenTest(SystemTest):
    scheme = ""

    def check(self):
        root = self.root()
        root.log_level = 9
        source = write(os.path.join(root.work, "F2026-11-20.web1.tgz"), "data")
        write(os.path.join(root.work, "2026-11-20.web1.info"), "last-slice=F2026-11-20.web1.tgz")
        commands = (("--server",), ("--update", source),
                    ("--get", os.path.join(root.base, "restored") + "//F2026-11-20.web1.tgz"))
        for pattern, word in (*EVERYWHERE, *SCHEMES[self.scheme]):
            token = filled(pattern, self.scheme)
            for command in commands:
                with self.subTest(token=token, command=command[0]):
                    self.check_refused(root, command, token, filled(word, self.scheme))
        self.assertEqual(["2026-11-20.web1.info", "F2026-11-20.web1.tgz"], tree(root.work))
        self.assertEqual([], root.local())
        self.assertFalse(os.path.exists(os.path.join(root.base, "restored")))

    def check_refused(self, root, command, token, word):
        log = root.file("var/quarn2_cp.log")
        write(log, "")
        result = root.run(*command, env={"BACKUP_TOKEN": token})
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertRegex(result.stderr, r"\Aquarn2_cp: \S.*\n\Z")
        self.assertRegex(result.stderr, word.replace("{s}", self.scheme).replace("+", "[+]"))
        logged = read(log).decode()
        for where, text in (("the error", result.stderr), ("the log", logged)):
            self.assertEqual([], sorted(piece for piece in PIECES if piece in text),
                             f"in {where}: {text}")


for scheme_ in SCHEMES:
    name_ = "".join(part.capitalize() for part in scheme_.split("+"))
    globals()[name_] = type(name_, (TokenTest,), {"scheme": scheme_,
                                                  "test_refusals": TokenTest.check})


if __name__ == "__main__":
    unittest.main()
