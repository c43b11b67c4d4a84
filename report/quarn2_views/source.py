"""Runs quarn2_report and reads its JSON."""

import json
import os
import subprocess
import tempfile

_NO_FINDINGS, _FINDINGS = 0, 3
_CHECK_RESULTS = (0, 1, 2, 3)
_FINDING = "quarn2_report: finding: "


class ReportFailed(Exception):
    """quarn2_report printed no report. The text is the reason."""


def reason_of(error):
    """Returns the reason for a missing report as a text."""
    if isinstance(error, (KeyError, TypeError, AttributeError)):
        return f"quarn2_report printed another report than this program expects ({error!r}): are both of the same version?"
    return str(error)


class Report:
    """quarn2_report with the options of one storage. Only the modes --status and --check have `age_options`."""

    def __init__(self, program, options, age_options, timeout):
        self.program, self.options, self.age_options, self.timeout = program, options, age_options, timeout

    def objects(self, *mode):
        """Returns a generator of the JSON objects of a mode, and the texts of the findings. Raises ReportFailed.

        The objects are read from a file, because the list of a large storage needs much more memory as objects.
        """
        # The file is closed when the generator is destroyed, also if no object was read.
        out = tempfile.TemporaryFile()
        age = self.age_options if mode[0] in ("--status", "--check") else []
        statuses = _CHECK_RESULTS if mode[0] == "--check" else (_NO_FINDINGS, _FINDINGS)
        lines = self._run([self.program, *mode, *age, "--json", *self.options], out, statuses).splitlines()
        out.seek(0)
        return _parsed(out), [line.removeprefix(_FINDING) for line in lines if line.startswith(_FINDING)]

    def _run(self, command, out, statuses):
        """Returns the text of standard error."""
        # None of these modes accesses the storage, so the token is removed from the environment.
        environment = {name: value for name, value in os.environ.items() if name != "BACKUP_TOKEN"}
        try:
            result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.PIPE,
                                    timeout=self.timeout, env=environment, check=False)
        except OSError as error:
            raise ReportFailed(f"{self.program} cannot be started: {error.strerror}") from None
        except subprocess.TimeoutExpired:
            raise ReportFailed(f"{self.program} did not end within {self.timeout} seconds") from None
        text = result.stderr.decode(errors="replace")
        if result.returncode not in statuses:
            last = text.strip().split("\n")[-1].removeprefix("quarn2_report: ")
            raise ReportFailed(last or f"{self.program} ended with exit status {result.returncode}")
        return text


def _parsed(file):
    with file:
        for line in file:
            try:
                yield json.loads(line)
            except ValueError as error:
                raise ReportFailed(f"quarn2_report printed a line that is not JSON: {error}") from None
