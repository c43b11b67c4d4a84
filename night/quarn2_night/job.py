"""The backup of one user in one night."""

import contextlib
import datetime
import os
import subprocess
import tempfile
import time

from .archive import MAKERS, Job
from .directories import open_directory
from .info import base_for
from .processes import Messages, describe
from .settings import DAYS
from .site import Problem, clean_environment
from .unfinished import remove_tree, work_of

DONE, SKIPPED, FAILED = "done", "skipped", "FAILED"


class Outcome:
    """The result of one user's backup. `text` is for the summary."""

    def __init__(self, user, state, text, messages=()):
        self.user, self.state, self.text, self.messages = user, state, text, messages

    def __str__(self):
        return f"{self.user}: {self.text}" if self.state == DONE else f"{self.user}: {self.state}: {self.text}"


class UserJob:
    """Makes the backup of one user. run() never raises for an error of this user's backup."""

    def __init__(self, night, user, source):
        self.night, self.user, self.source = night, user, source
        self.site, self.settings = night.site, night.settings
        self.top = work_of(night.work, user, night.date)
        self.work = self.info = None
        self.kind = ""

    def base(self):
        """Returns the full backup that this night's backup is based on, None when it is a full backup itself."""
        if self.night.is_full:
            return None
        archive_format = "dar" if self.settings.format == "dar" else "tar"
        return base_for(self.night.backups.of_user(self.user), self.night.date,
                        DAYS.index(self.settings.full_day), archive_format)

    def run(self):
        if self.night.backups.find(self.user, self.night.date):
            return Outcome(self.user, SKIPPED, f"there is a backup of {self.night.date} already")
        begin = time.monotonic()
        messages = None
        try:
            self.make_work()
            messages = Messages(os.path.join(self.work, "messages"))
            self.back_up(messages)
            outcome = Outcome(self.user, DONE, self.summary(time.monotonic() - begin), messages.lines())
            messages.close()
            self.remove_work()
            return outcome
        except (Problem, OSError) as error:
            outcome = Outcome(self.user, FAILED, str(error), messages.lines() if messages else ())
            self.free_space()
            return outcome
        finally:
            if messages:
                messages.close()

    def make_work(self):
        """Creates a directory with a new name, because an archiver of a killed nightly run may still write to the
        old directory."""
        self.remove_work()
        os.mkdir(self.top, 0o700)
        self.work = tempfile.mkdtemp(dir=self.top)
        self.info = os.path.join(self.work, f"{self.night.date}.{self.user}.info")

    def remove_work(self):
        if os.path.lexists(self.top):
            remove_tree(self.top)

    def free_space(self):
        """Frees the disk space of a failed job for the other jobs. Keeps the info file, which names the uploaded
        slices."""
        for name in os.listdir(self.work) if self.work else ():
            path = os.path.join(self.work, name)
            if path != self.info:
                # The node client may remove a slice whose upload has just ended.
                with contextlib.suppress(FileNotFoundError):
                    os.remove(path)

    def back_up(self, messages):
        if not os.path.isdir(self.source):
            raise Problem(f"there is no directory '{self.source}'")
        # A link of the user could point to another user's files, and a restore would disclose them.
        directory = open_directory(self.source)
        try:
            self.back_up_directory(directory, messages)
        finally:
            os.close(directory)

    def back_up_directory(self, directory, messages):
        base = self.base()
        self.kind = "daily" if base else "full"
        try:
            self.hook(self.settings.hooks_before_user, messages)
            self.make(directory, base, messages)
        except BaseException:
            self.hook_after("failed", messages)
            raise
        self.hook_after("done", messages)

    def make(self, directory, base, messages):
        job = Job(self.site, self.night.children, self.settings, self.user, self.night.date, directory, base,
                  self.work, messages)
        with open(self.info, "x", encoding="ascii") as file:
            file.write(info_text(base, self.user))
        index = MAKERS[self.settings.format](job)
        # The index is in the info root, so the last put writes the final info file beside it and uploads both.
        # The index stays there, because the dailies of the week are based on it.
        job.put("--isolated", "--no-delete", "--info-file", self.info, index)

    # -- Hooks --

    def hook(self, command, messages, result=""):
        if command is None:
            return
        environment = dict(clean_environment(), QUARN2_USER=self.user, QUARN2_DATE=self.night.date,
                           QUARN2_DIRECTORY=self.source, QUARN2_TYPE=self.kind, QUARN2_RESULT=result)
        process = self.night.children.start(command, env=environment, stdout=messages.file, stderr=messages.file)
        try:
            status = self.night.children.wait(process, self.settings.hooks_timeout)
        except subprocess.TimeoutExpired:
            self.night.children.end([process])
            raise Problem(f"the hook {command[0]} ran longer than {self.settings.hooks_timeout} s") from None
        if status != 0:
            raise Problem(f"the hook {command[0]} {describe(status)}{messages.last()}")

    def hook_after(self, result, messages):
        """A failure of this hook is reported, but does not change the result of the backup."""
        if self.night.children.stopped.is_set():
            return
        try:
            self.hook(self.settings.hooks_after_user, messages, result)
        except Problem as error:
            messages.file.write(f"{error}\n".encode())

    def summary(self, seconds):
        backup = self.night.backups.find(self.user, self.night.date)
        size = backup.fields.get("size", "?") if backup else "?"
        return f"{self.kind}, {size} bytes, {seconds:.0f} s"


def info_text(base, user):
    """Returns the text of the info file of a backup that begins now."""
    now = datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S")
    fields = [f"created={now}", f"node={os.uname().nodename}", "type=" + ("incremental" if base else "full")]
    if base:
        ending = ".tgz" if base.format == "dar" else ".tar.zst"
        fields.insert(0, f"base=F{base.date}.{user}{ending}")
    return "\n".join(fields)
