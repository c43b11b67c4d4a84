"""The man pages and the completions have every option that the programs show with --help."""

import os
import re
import subprocess
import unittest

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
DOCS = os.path.join(os.environ["QUARN2_CP_BUILD"], "share/docs")
PROGRAMS = {"quarn2_cp": os.environ["QUARN2_CP_BINARY"], "quarn2_report": os.environ["QUARN2_REPORT"]}
PROGRAMS.update({name: os.path.join(TOP, "night", name)
                 for name in ("quarn2-night", "quarn2-node", "quarn2-restore", "quarn2-setup")})
PROGRAMS.update({name: os.path.join(TOP, "report", name) for name in ("quarn2_metrics", "quarn2_page")})
SECTIONS = ("NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "ENVIRONMENT", "FILES", "EXAMPLES", "SEE ALSO")


def options_of(program):
    text = subprocess.run([program, "--help"], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True).stdout
    return set(re.findall(r"(?m)^ +(?:-\w(?: \w+)?, )?(--[a-z][\w-]*)", text))


def page_of(name):
    with open(os.path.join(DOCS, f"man/man8/{name}.8"), encoding="utf-8") as file:
        return file.read()


class ProgramDocs(unittest.TestCase):
    def test_each_option_is_in_the_man_page_and_in_the_completion(self):
        for name, program in PROGRAMS.items():
            with self.subTest(name=name):
                options = options_of(program)
                self.assertIn("--help", options)
                self.assertGreater(len(options), 5)
                page = page_of(name).replace("\\-", "-")
                described = set(re.findall(r"\\fB(--[a-z][\w-]*)\\fR", page))
                self.assertLessEqual(options, described)
                for path in ("bash-completion/completions/" + name, "zsh/vendor-completions/_" + name):
                    with open(os.path.join(DOCS, path), encoding="utf-8") as file:
                        completed = set(re.findall(r"--[a-z][\w-]*", file.read()))
                    self.assertLessEqual(options, completed)

    def test_each_page_has_every_section_and_no_placeholder(self):
        for name in PROGRAMS:
            with self.subTest(name=name):
                page = page_of(name)
                self.assertEqual(list(SECTIONS), re.findall(r"(?m)^\.SH (.*)$", page))
                self.assertNotRegex(page, "@[A-Z]+@")

    def test_a_suboption_is_completed_after_its_command_only(self):
        script = ('source "$1"; shift; COMP_WORDS=(quarn2_cp "$@"); COMP_CWORD=$#; _quarn2_cp; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        file = os.path.join(DOCS, "bash-completion/completions/quarn2_cp")
        for words, wanted in ((("--put", "--no"), ["--no-delete"]), (("--get", "--no"), []),
                              (("--server", "--resc"), ["--rescan"]), (("--serv",), ["--server"])):
            found = subprocess.run(["bash", "-c", script, "bash", file, *words], capture_output=True, text=True, check=True)
            self.assertEqual((wanted, ""), (found.stdout.split(), found.stderr))

    def test_zsh_completes_options_and_suboptions(self):
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "complete.zsh")
        for line, wanted in (("quarn2_cp --put --no", "quarn2_cp --put --no-delete "), ("quarn2_cp --serv", "quarn2_cp --server "),
                             ("quarn2_report --anon", "quarn2_report --anonymous "), ("quarn2-night --dr", "quarn2-night --dry-run "),
                             ("quarn2_report --none", "quarn2_report --none")):
            with self.subTest(line=line):
                found = subprocess.run(["zsh", "-f", script, os.path.join(DOCS, "zsh/vendor-completions"), line],
                                       stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True, timeout=60)
                self.assertIn(f"<{wanted}>", found.stdout, found.stderr)


if __name__ == "__main__":
    unittest.main()
