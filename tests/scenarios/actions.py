"""Executes the steps of a scenario and records the results of their commands.

A step is a dict. Its key "do" selects a method of Player: the step {"do": "kill"} calls do_kill(). A step that is
impossible in the current state does nothing. So steps can be removed from a list, and the rest can still be played.
"""

import functools
import os
import threading
import time

from backups import Run, fields_of, week_of
from checks import Judge
from local_files import read
from world import Violation, World


class Outcome:
    """The results of one step."""

    def __init__(self, world):
        self.limits = [world.limits] if world.limits else []  # the limits of each server that ran during the step
        self.has_fault = False
        self.results = []  # (arguments, exit status, standard error) of each command
        self.asked_bytes = 0
        self.put = False  # True after a --put command has succeeded
        self.completed = []  # the Runs whose last --put has succeeded
        self.lock = threading.Lock()  # protects asked_bytes
        self.started = False  # True after the step has started a server

    @property
    def failed(self):
        return bool(self.results) and all(status != 0 for _, status, _ in self.results)


class Player:
    def __init__(self, world=World):
        self.world = world()
        self.judge = Judge(self.world)
        self.runs = 0
        self.noted = set()  # (user, date) of complete backups that .cleanup lists
        self.out = None

    def close(self):
        self.world.close()

    def play(self, steps, finish):
        """Plays the steps, then finish() if `finish` is true. Raises Violation at the first broken promise.
        `self.number` is then the number of the failed step, counted from 1."""
        self.number = 0
        for self.number, step in enumerate(steps, 1):
            self.step(step)
        if finish:
            self.number = len(steps) + 1
            self.finish()

    def step(self, step):
        self.out = Outcome(self.world)
        if step["do"] in ("job", "go", "together"):
            self.world.wait_client()
        self.world.arm(step.get("fault"))
        try:
            getattr(self, "do_" + step["do"])(step)
        finally:
            self.out.has_fault = self.world.disarm()
        self.world.settle()
        self.judge.check(step, self.out)

    def command(self, *arguments, **options):
        status, errors = self.world.run(*arguments, **options)
        self.out.results.append((arguments, status, errors))
        return status == 0

    # --- The server ---

    def do_serve(self, step):
        self.do_release(step)
        token = step.get("token")
        if token == "other" and self.known() < 3:
            return
        if os.path.isdir(self.world.away) and os.path.isdir(self.world.storage) and (
                self.known() < 3 or step.get("rescan")):
            return
        full, _, daily = step["count"].partition(":")
        self.out.limits.append((step["size"], int(full), int(daily or 0), step["date"]))
        self.out.started = self.world.start_server(step)
        if token and self.out.started:
            raise Violation("wrong-token", f"a server started with a wrong token: {step}")

    def do_together(self, step):
        """Plays parts at the same time, each after its pause. A part is a job, the continuation of one, a deletion, or
        a kill. Jobs and deletions of one step concern different users."""
        errors = []
        threads = [threading.Thread(target=self.play_part, args=(part, self.prepare(part), errors))
                   for part in step["parts"]]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if errors:
            raise errors[0]

    def prepare(self, part):
        """Returns the function that plays the part. The records in self.judge are changed here, by the main thread."""
        if part["do"] == "job":
            return self.prepare_job(part)
        if part["do"] == "kill":
            return functools.partial(self.world.kill_only, part["who"])
        return functools.partial(getattr(self, "do_" + part["do"]), part)

    @staticmethod
    def play_part(part, play, errors):
        time.sleep(part.get("pause", 0))
        try:
            play()
        except Exception as error:  # raised again by the main thread
            errors.append(error)

    def do_release(self, _):
        self.world.release_server()

    def do_kill(self, step):
        self.world.kill(step["who"])

    def known(self):
        """Returns the number of finished backups in the info root."""
        return sum("finished" in (fields_of(os.path.join(folder, name)) or ())
                   for folder, _, names in os.walk(self.world.root.info_root)
                   for name in names if name.endswith(".info"))

    # --- Jobs ---

    def new_run(self, step):
        self.runs += 1
        base = self.judge.base_for(step["user"], step["date"])
        run = Run(self.world.root, self.runs, step, base)
        if (run.user, run.date) in self.noted:
            for key, other in list(self.judge.acked.items()):
                if (other.user, other.date) == (run.user, run.date):
                    self.judge.release(key)
        if not self.may_be_careless(run):
            run.careless = None
        self.judge.add(run)
        return run

    def may_be_careless(self, run):
        """Returns whether the job may leave out slices. It may not after an interrupted run with slices of the same
        names: the program cannot distinguish a new run from the continuation, and counts the stored slices."""
        names = set(map(run.stored_name, run.slices))
        earlier = next((each for each in reversed(self.judge.runs)
                        if names & set(map(each.stored_name, each.slices))), None)
        return earlier is None or self.judge.acked.get(earlier.key) is earlier

    def do_past(self, step):
        """Creates a complete backup of an earlier day without the program."""
        if self.world.server is None and not os.path.isdir(self.world.away) \
                and (step["user"], step["date"]) not in self.judge.latest:
            run = self.new_run(step)
            run.lay(self.world.storage)
            self.judge.acked[run.key] = run

    def do_job(self, step):
        self.prepare_job(step)()

    def prepare_job(self, step):
        """Makes the files of the job. Returns the function that runs its commands."""
        if self.is_late(step):
            return lambda: None
        return functools.partial(self.go, self.new_run(step), step.get("stop"))

    def is_late(self, step):
        """Returns True when the user has a later complete backup, unless the job repeats a backup of the same kind. A
        full backup made by such a job could be dated between an earlier full backup and its dailies."""
        user, date = step["user"], step["date"]
        if step["kind"] == "custom" or not any(
                key[0] == user and date < key[1] != "custom" for key in self.judge.complete):
            return False
        latest = self.judge.latest.get((user, date))
        kind = step["kind"] if self.judge.base_for(user, date) else "full"
        return latest is None or latest.kind != kind

    def do_go(self, step):
        """Continues an interrupted job. Repeats the command that failed. With `slices`, stops after the last slice."""
        run = self.judge.latest.get((step["user"], step["date"]))
        if run and run.done < len(run.commands()):
            slices_left = len(run.slices) - run.done
            if not step.get("slices"):
                self.go(run, step.get("stop"))
            elif slices_left > 0:
                self.go(run, slices_left)

    def do_lose(self, step):
        """Removes the last slice from the storage, as another program could. Does nothing unless all slices of the
        job are stored and its last file is not."""
        run = self.judge.latest.get((step["user"], step["date"]))
        if run and run.done == len(run.slices):
            try:
                os.unlink(os.path.join(self.world.main_storage, run.stored_name(run.slices[-1])))
            except FileNotFoundError:
                pass

    def go(self, run, stop):
        commands = run.commands()
        for arguments in commands[run.done:run.done + (stop or len(commands))]:
            is_last = arguments is commands[-1]
            if run.is_skipped(arguments[-1], failed=False):
                run.done += 1
                continue
            if not is_last and not os.path.exists(arguments[-1]):
                return  # the program has stored or abandoned the slice without the knowledge of the job
            if is_last:
                if not self.make_index(run):
                    return
            with self.out.lock:
                self.out.asked_bytes += (len(read(arguments[-1])) if not is_last else run.bytes) + 1000
            run.note_password(arguments[-1], self.world.uploads_with)
            done = self.command(*arguments)
            run.begun = run.begun or done or self.world.fault_control.injected > 0
            if not done and not run.is_skipped(arguments[-1], failed=True):
                return
            run.done += 1
            self.out.put = self.out.put or done
            if is_last:
                self.out.completed.append(run)

    @staticmethod
    def make_index(run):
        """Writes the index. Returns False when the info root has no space for it."""
        try:
            os.makedirs(run.info_folder, exist_ok=True)
            run.write_index()
            return True
        except OSError:
            return False

    def do_note(self, step):
        """Adds the files of an interrupted backup to the removal list .cleanup, as a job script does. With `late`,
        adds the files of a complete backup, which is a mistake."""
        run = self.judge.latest.get((step["user"], step["date"]))
        if self.world.disks["var"].is_full or run is None:
            return
        is_acked = self.judge.acked.get(run.key) is run
        if step.get("late", False) != is_acked or run.done == len(run.commands()) and not is_acked:
            return
        if is_acked:
            self.noted.add((run.user, run.date))
        self.release_day(run)
        stem = f"{run.date}.{run.user}"
        prefixes = [stem]
        if run.form != "part":
            prefixes += [f"{stem}.{number}.dar" for number in range(1, len(run.slices) + 2)]
        token = self.world.root.token.replace("\\", "\\\\")
        path = os.path.join(self.world.root.info_root, ".cleanup")
        os.makedirs(self.world.root.info_root, exist_ok=True)
        with open(path, "a", encoding="utf-8") as lines:
            lines.write("".join(f"{token}\t{prefix}\n" for prefix in prefixes))
        os.chmod(path, 0o600)

    def release_day(self, run):
        """Cancels the promises for all unfinished backups of the run's user and day. .cleanup lists files by prefix,
        and the archives of a full and a custom backup of one day have the same prefix."""
        for other in list(self.judge.latest.values()):
            if (other.user, other.date) == (run.user, run.date) and other.done < len(other.commands()):
                self.judge.release(other.key)

    # --- Removals ---

    def do_delete(self, step):
        run = self.judge.acked.get((step["user"], step["date"])) \
            or self.judge.latest.get((step["user"], step["date"]))
        if run is None:
            return
        path = run.local_path
        force = ["--force"] if step.get("force") else []
        was_there = os.path.exists(path)
        done = self.command("--delete", *force, path, token=step.get("token"))
        if done or self.world.fault_control.injected:
            self.judge.release(run.key)
            for other in list(self.judge.acked.values()):
                if force and other.base and other.base.key == run.key \
                        and week_of(other.date) == week_of(run.date):
                    self.judge.release(other.key)
        if done and was_there and step.get("token"):
            raise Violation("wrong-token", "a deletion with a malformed token succeeded")

    def do_clear(self, step):
        token = step.get("token")
        if (token == "other" or os.path.isdir(self.world.away)) and self.known() < 3:
            return
        done = self.command("--clear", token=token)
        if done or self.world.fault_control.injected:
            for key in list(self.judge.acked):
                self.judge.release(key)
        if done and (token or os.path.isdir(self.world.away)):
            raise Violation("wrong-token", "a clear with a wrong token succeeded")

    # --- The storage ---

    def do_unmount(self, step):
        """Renames the storage directory, as if its disk were unmounted. If `how` is "empty" and no server runs, creates
        an empty directory in its place."""
        how = step["how"] if self.world.server is None else "missing"
        self.world.unmount(how)

    def do_mount(self, _):
        if os.path.isdir(self.world.storage) and os.path.isdir(self.world.away):
            self.world.release_server()
        self.world.mount()

    def do_fill(self, step):
        """Fills a disk. `what` is "storage", or the install root's "var" or "tmp"."""
        self.world.disks[step["what"]].fill()

    def do_room(self, _):
        for disk in self.world.disks.values():
            disk.empty()

    # --- The machine ---

    def do_password(self, step):
        """Changes `arch_password` in the token of all commands and servers that start later."""
        self.world.password = step["to"]

    def do_clock(self, step):
        self.world.is_ahead = step["ahead"]

    # --- The end of a week ---

    def finish(self):
        """Ends all failures, starts a server and repeats every job that failed. Raises Violation when the server does
        not start or a repeated job fails."""
        self.step({"do": "room"})
        self.step({"do": "mount"})
        self.step({"do": "release"})
        serve = {"do": "serve", "date": "2026-12-31", "size": 0, "count": "1000:1000"}
        self.step(serve)
        if not self.out.started:
            self.repair()
            self.step(serve)
        if not self.out.started:
            raise Violation("blocked", "no server starts at the end of the week: "
                            + self.judge.last_errors())
        for key, run in list(self.judge.latest.items()):
            if self.judge.acked.get(key) is not run:
                self.repeat(run)
        self.step(serve)
        self.step({"do": "release"})
        self.judge.check_outside()

    def repair(self):
        """Runs the command that the program requests after an interrupted clear or rescan."""
        info_root = self.world.root.info_root
        if os.path.exists(os.path.join(info_root, ".clear")):
            self.step({"do": "clear"})
        elif os.path.exists(os.path.join(info_root, ".rescan")):
            self.step({"do": "serve", "date": "2026-12-31", "size": 0, "count": "1000:1000",
                       "rescan": True})

    def repeat(self, run):
        self.step({"do": "job", "user": run.user, "date": run.date, "kind": run.kind,
                   "sizes": [100] * len(run.slices)})
        if not self.out.completed:
            raise Violation("blocked", f"{run}, repeated, fails: {self.out.results[-1:]}")
