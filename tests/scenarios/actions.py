"""Steps, as plain data, and what each does to a world and to the record of what was acknowledged.

A step is a dict whose "do" names a method of Player. Steps that make no sense in the state that they
meet do nothing, so that any part of a list of steps is a list of steps.
"""

import os

from backups import Run, fields_of, week_of
from checks import Judge
from harness import read
from world import Violation, World


class Outcome:
    """What a step did."""

    def __init__(self, world):
        self.limits = [world.limits] if world.limits else []  # of all servers that took part
        self.struck = False
        self.results = []  # (arguments, exit status, standard error)
        self.asked_bytes = 0
        self.put = False  # a reservation was granted to a command that was acknowledged
        self.completed = None  # the run whose last file was acknowledged
        self.started = False  # a server has started

    @property
    def failed(self):
        return bool(self.results) and all(status != 0 for _, status, _ in self.results)


class Player:
    def __init__(self, world=World):
        self.world = world()
        self.judge = Judge(self.world)
        self.runs = 0
        self.noted = set()  # (user, date) of complete backups that are listed for removal
        self.out = None

    def close(self):
        self.world.close()

    def play(self, steps, finish):
        """Raises Violation. `self.number` is the number of the step that failed, from 1."""
        self.number = 0
        for self.number, step in enumerate(steps, 1):
            self.step(step)
        if finish:
            self.number = len(steps) + 1
            self.finish()

    def step(self, step):
        self.out = Outcome(self.world)
        if step["do"] in ("job", "go"):
            self.world.wait_client()
        self.world.arm(step.get("strike"))
        try:
            getattr(self, "do_" + step["do"])(step)
        finally:
            self.out.struck = self.world.disarm()
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

    def do_release(self, _):
        self.world.release_server()

    def do_kill(self, step):
        self.world.kill(step["who"])

    def known(self):
        """The number of finished backups in the info root."""
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
        """Slices of an interrupted job count for the next one, which may be the same job going on."""
        names = set(map(run.stored_name, run.slices))
        earlier = next((each for each in reversed(self.judge.runs)
                        if names & set(map(each.stored_name, each.slices))), None)
        return earlier is None or self.judge.acked.get(earlier.key) is earlier

    def do_past(self, step):
        """A backup of an earlier day is there, complete."""
        if self.world.server is None and not os.path.isdir(self.world.away) \
                and (step["user"], step["date"]) not in self.judge.latest:
            run = self.new_run(step)
            run.lay(self.world.storage)
            self.judge.acked[run.key] = run

    def do_job(self, step):
        if not self.is_late(step):
            self.go(self.new_run(step), step.get("stop"))

    def is_late(self, step):
        """A full backup that would come between an earlier one and the dailies that rest on it."""
        user, date = step["user"], step["date"]
        if step["kind"] == "custom" or not any(
                key[0] == user and date < key[1] != "custom" for key in self.judge.complete):
            return False
        latest = self.judge.latest.get((user, date))
        kind = step["kind"] if self.judge.base_for(user, date) else "full"
        return latest is None or latest.kind != kind

    def do_go(self, step):
        """The job of a backup goes on where it stopped; a command that failed is repeated."""
        run = self.judge.latest.get((step["user"], step["date"]))
        if run and run.done < len(run.commands()):
            slices_left = len(run.slices) - run.done
            if not step.get("slices"):
                self.go(run, step.get("stop"))
            elif slices_left > 0:
                self.go(run, slices_left)

    def do_lose(self, step):
        """Another program removes the last slice of a job whose slices are all stored."""
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
                return  # its upload was abandoned or acknowledged, and the job knows of none
            if is_last:
                if not self.make_index(run):
                    return
            self.out.asked_bytes += (len(read(arguments[-1])) if not is_last else run.bytes) + 1000
            run.note_password(arguments[-1], self.world.uploads_with)
            done = self.command(*arguments)
            run.begun = run.begun or done or self.world.faults.struck > 0
            if not done and not run.is_skipped(arguments[-1], failed=True):
                return
            run.done += 1
            self.out.put = self.out.put or done
            if is_last:
                self.out.completed = run

    @staticmethod
    def make_index(run):
        """False when the info root has no space for it."""
        try:
            os.makedirs(run.info_folder, exist_ok=True)
            run.write_index()
            return True
        except OSError:
            return False

    def do_note(self, step):
        """The job is given up: its files are listed for removal, as a job would. `late`: by mistake
        one that is complete is listed."""
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
        """The archives of a full and a custom backup of one day have the same prefix."""
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
        if done or self.world.faults.struck:
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
        if done or self.world.faults.struck:
            for key in list(self.judge.acked):
                self.judge.release(key)
        if done and (token or os.path.isdir(self.world.away)):
            raise Violation("wrong-token", "a clear with a wrong token succeeded")

    # --- The storage ---

    def do_unmount(self, step):
        """`how`: "missing", or "empty", which is seen by servers that start afterwards only."""
        how = step["how"] if self.world.server is None else "missing"
        self.world.unmount(how)

    def do_mount(self, _):
        if os.path.isdir(self.world.storage) and os.path.isdir(self.world.away):
            self.world.release_server()
        self.world.mount()

    def do_fill(self, step):
        """`what`: "storage", or "var" or "tmp" of the install root."""
        self.world.disks[step["what"]].fill()

    def do_room(self, _):
        for disk in self.world.disks.values():
            disk.empty()

    # --- The machine ---

    def do_password(self, step):
        """Another `arch_password` in the token of what starts from now on."""
        self.world.password = step["to"]

    def do_clock(self, step):
        self.world.is_ahead = step["ahead"]

    # --- The end of a week ---

    def finish(self):
        """All trouble is over: every job that failed is repeated, and succeeds."""
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
        """What the program's messages ask for after an interrupted clear or rescan."""
        info_root = self.world.root.info_root
        if os.path.exists(os.path.join(info_root, ".clear")):
            self.step({"do": "clear"})
        elif os.path.exists(os.path.join(info_root, ".rescan")):
            self.step({"do": "serve", "date": "2026-12-31", "size": 0, "count": "1000:1000",
                       "rescan": True})

    def repeat(self, run):
        self.step({"do": "job", "user": run.user, "date": run.date, "kind": run.kind,
                   "sizes": [100] * len(run.slices)})
        if self.out.completed is None:
            raise Violation("blocked", f"{run}, repeated, fails: {self.out.results[-1:]}")
