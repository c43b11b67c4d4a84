"""Records which backups the commands have acknowledged, and checks after each step that the program kept its promises.

The keys of backups are (user, date). The date of a custom backup is "custom".
"""

import os
import re

from backups import content_of, week_of
from world import Violation

COUNTED = re.compile(r"Add \S+ backup (\S+)\.info\. new used|Custom backup (\S+)\.info size")
# Log lines of a step that removed stored slices.
REMOVED = re.compile(r"Remove the slices of|Delete file|Delete '|Clear all storage|Evict backup|"
                     r"Finish the deletion")
GRANTED = re.compile(r"SaveResult result = 'OK \d")
ENDED = re.compile(r"DropByCount count_to_leave_full")  # the log line of a server that starts or ends


class Judge:
    def __init__(self, world):
        self.world = world
        self.latest = {}  # (user, date) -> the latest run of the job
        self.acked = {}  # (user, date) -> the run whose last --put succeeded
        self.runs = []
        self.complete = {}  # (user, date) -> run, for the backups that were complete after the previous step
        self.session = set()  # (user, date) of the backups that were completed while the current server runs
        self.used = 0  # bytes on the storage after the previous step
        self.pending = 0  # bytes that --put commands requested since the last completed backup
        self.log = ""
        self.has_log = True
        self.has_ledger = True  # False after the program has failed to write a ledger entry

    def add(self, run):
        self.latest[run.key] = run
        self.runs.append(run)

    def release(self, key):
        """Stops expecting this backup on the storage, because the user or a rule has removed it."""
        self.acked.pop(key, None)

    def base_for(self, user, date):
        """Returns the base of a daily of this date: the user's newest full backup of the week, or None."""
        fulls = {key: run for key, run in self.find_complete().items()
                 if key[0] == user and week_of(date) <= key[1] <= date and run.kind == "full"}
        newest = max(fulls, default=None)
        # A repeated job of a full backup makes a full backup again. If it made a daily, that daily would need an
        # earlier full backup, which the server may evict.
        return fulls[newest] if newest in self.acked and newest[1] < date else None

    def whole_run(self, key):
        """Returns the latest run of the backup whose files are all on the storage, or None."""
        storage = self.world.main_storage
        return next((run for run in reversed(self.runs)
                     if run.key == key and run.is_whole(storage)), None)

    def find_complete(self):
        """Returns {(user, date): run} for the backups whose files are all on the storage."""
        found = {key: self.whole_run(key) for key in self.latest}
        return {key: run for key, run in found.items() if run}

    def last_errors(self):
        return " | ".join(line[24:] for line in self.log.splitlines()
                          if re.search(r" main [34]: ", line))[-1500:]

    # --- After each step ---

    def check(self, step, out):
        self.log = self.world.new_log()
        # Without a size limit, the server evicts a backup each time the storage refuses data, so evictions are allowed.
        # While the disk of "var" is full, the log is incomplete, so checks of the log are skipped.
        self.has_refused = self.world.disks["storage"].is_full or out.has_fault
        self.has_log = not self.world.disks["var"].is_full
        if not self.has_log or "Cant write 'var/quarn2_cp.ledger" in self.log:
            self.has_ledger = False
        self.find_encrypted()
        complete = self.find_complete()
        self.pending += out.asked_bytes
        for run in out.completed:
            self.take_completed(run, step, out, complete)
        self.session |= {key for key in complete if self.complete.get(key) is not complete[key]}
        self.check_acked(step, out, complete)
        self.check_sources()
        self.used_before, self.used = self.used, self.world.used()
        self.check_space(out)
        if out.started and self.has_log:
            self.check_counted(complete)
        # A completion ends all reservations, but a job that runs at the same time may have a new one.
        if out.completed and step["do"] != "together" or step["do"] == "serve":
            self.pending = 0
        if step["do"] in ("serve", "release"):
            self.session = set()
        self.complete = complete

    def find_encrypted(self):
        for run in self.latest.values():
            earlier = [other for other in self.runs if other.key == run.key and other is not run]
            run.find_encrypted(self.world.main_storage, earlier)

    def take_completed(self, run, step, out, complete):
        missing = run.missing(self.world.main_storage)
        # The other command of the same step may have evicted this backup in the meantime.
        is_evicted = step["do"] == "together" and self.is_justified(run.key, run, out, complete)
        if missing and not is_evicted:
            raise Violation("bad-complete", f"{run} was acknowledged without {missing}")
        abandoned = [path for path in run.sources if os.path.exists(path + ".attempts")]
        if abandoned:
            raise Violation("bad-complete", f"{run} was acknowledged, and {abandoned} is there")
        if len(set(run.passwords.values())) > 1:
            raise Violation("bad-complete", f"{run} was acknowledged with several passwords")
        self.acked[run.key] = run

    def check_acked(self, step, out, complete):
        removed = []
        for key, run in list(self.acked.items()):
            missing = run.missing(self.world.main_storage)
            if missing and self.is_replaced(run, missing):
                self.release(key)
                continue
            if missing or self.is_forgotten(run):
                removed.append((key, run, missing))
        for key, run, missing in removed:
            if not self.is_justified(key, run, out, complete):
                raise Violation("lost", f"{run} was acknowledged, and {missing or 'its info file'} "
                                f"is gone after {step}; {self.last_errors()}")
            self.release(key)
        self.check_refused(step, out, removed)

    def is_replaced(self, run, missing):
        """Returns whether a later run of the job has replaced the missing files by its own."""
        later = self.latest[run.key]
        if later is run or not later.begun:
            return False
        storage = self.world.main_storage
        there = {name for name in missing if os.path.exists(os.path.join(storage, name))}
        return bool(there) and all(name in there for name in missing)

    def is_forgotten(self, run):
        """Returns whether the info root lacks a finished info file for the run. Returns False while a rescan or clear
        is unfinished."""
        info_root = self.world.root.info_root
        if any(os.path.exists(os.path.join(info_root, name)) for name in (".rescan", ".clear")):
            return False
        return "finished" not in (run.local_info() or ())

    def is_justified(self, key, run, out, complete):
        """Returns whether the rules allow a server of this step to evict the backup: it exceeded a limit or needed
        space, the user has a later complete backup, and no complete daily needs the removed one."""
        user, date = key
        if date == "custom":
            return False
        mine = {other: whole for other, whole in {**self.complete, **complete}.items()
                if other[0] == user and other[1] != "custom"}
        for size, fulls, dailies, today in out.limits:
            known = {other for other in mine if other[1] <= today or other in self.session}
            if not any(date < other[1] for other in known if other in complete):
                continue
            if any(complete[other].base is run for other in mine if other in complete):
                continue
            same = sum(mine.get(other, run).kind == run.kind for other in {*known, key})
            limit = (fulls or 1 << 31) if run.kind == "full" else dailies
            wanted = self.used + self.pending
            if same > limit or (wanted > size if size else self.has_refused):
                return True
        return False

    def check_refused(self, step, out, removed):
        """Checks that a step removed no backup if all its commands failed and the server granted no space. A server
        that ends in the step may remove backups because of the count limits."""
        away = os.path.isdir(self.world.away)
        if not removed or not out.failed or out.has_fault or away or not self.has_log \
                or GRANTED.search(self.log) or ENDED.search(self.log):
            return
        raise Violation("refused-removes", f"{[str(run) for _, run, _ in removed]} went, and "
                        f"nothing was granted: {out.results}")

    def check_sources(self):
        """Checks that a local slice is removed only after it was stored or its upload was abandoned."""
        for run in self.latest.values():
            for path, name in list(run.sources.items()):
                if os.path.exists(path):
                    continue
                stored = {content_of(os.path.join(storage, name))
                          for storage in (self.world.storage, self.world.main_storage)}
                if run.contents[name] not in stored and not os.path.exists(path + ".attempts") \
                        and self.has_log and not REMOVED.search(self.log):
                    raise Violation("source", f"{path} is gone and not stored; {self.last_errors()}")
                del run.sources[path]

    def check_space(self, out):
        if not out.put or not self.has_ledger or not self.world.limits or not self.world.limits[0]:
            return
        if self.used > self.world.limits[0]:
            raise Violation("space", f"{self.used} bytes are used, the limit is "
                            f"{self.world.limits[0]}")

    def check_counted(self, complete):
        """Checks that a server that has just started counts every acknowledged backup and no incomplete one."""
        counted = {one or other for one, other in COUNTED.findall(self.log)}
        for key in self.latest:
            name = f"{key[1]}.{key[0]}"
            run = self.latest[key]
            if name in counted and key not in complete and "finished" in (run.local_info() or ()):
                raise Violation("bad-counted", f"{name} is counted and not complete: "
                                f"{run.missing(self.world.main_storage)}")
            is_contested = key in self.acked and self.acked[key] is not run
            if key in self.acked and name not in counted and not is_contested \
                    and (key[1] == "custom" or key[1] <= self.world.limits[3]):
                raise Violation("not-counted", f"{name} was acknowledged, and the server does not "
                                f"count it: {self.last_errors()}")

    def check_outside(self):
        base = self.world.root.base
        expected = {"root", "disk", "work", "other", "outside"}
        if set(os.listdir(base)) != expected or os.listdir(os.path.join(base, "disk")) != ["storage"] \
                or os.listdir(self.world.other) or os.listdir(os.path.join(base, "outside")) != ["file"]:
            raise Violation("outside", f"files were changed in {base}")
