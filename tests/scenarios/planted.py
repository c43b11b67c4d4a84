"""Simulates faults of the program, and checks that checks.py detects each of them."""

import os
import subprocess

from local_files import write
from shrink import shrink
from world import World

SERVE = {"do": "serve", "date": "2026-11-16", "size": 0, "count": "1000:1000"}


def job(user, date, kind="full", slices=2, **more):
    return {"do": "job", "user": user, "date": date, "kind": kind, "sizes": [200] * slices, **more}


WEEK = [SERVE, job("u1", "2026-11-16"), job("u3", "2026-11-16"), job("u2", "2026-11-16", stop=1),
        {"do": "go", "user": "u2", "date": "2026-11-16"}, {**SERVE, "date": "2026-11-17"},
        job("u1", "2026-11-17", "incremental"), {"do": "release"}]


class Dropped(World):
    """Fault: a put reports success, but has stored nothing."""

    def run(self, *arguments, **options):
        result = super().run(*arguments, **options)
        if "--operation" in arguments and result[0] == 0:
            self.settle()
            os.unlink(os.path.join(self.storage, os.path.basename(arguments[-1])))
        return result


class Deleted(World):
    """Fault: a stored file disappears some time after its backup was complete."""

    victim = "F2026-11-16.u1.2.dar"

    def release_server(self):
        errors = super().release_server()
        path = os.path.join(self.storage, self.victim)
        if os.path.exists(path):
            os.unlink(path)
        return errors


class Altered(Deleted):
    """Fault: the content of a stored file differs from the content that was put."""

    def release_server(self):
        errors = World.release_server(self)
        path = os.path.join(self.storage, self.victim)
        if os.path.exists(path):
            write(path, "x" * os.path.getsize(path))
        return errors


class TooMuch(World):
    """Fault: a started server has deleted the newest backup of a user."""

    def start_server(self, step):
        ready = super().start_server(step)
        info = os.path.join(self.root.info_root, "2026-11-16.u2.info")
        if os.path.exists(info):
            self.root.run("--delete", info)
        return ready


class LostSource(World):
    """Fault: a put fails, but has removed its local file."""

    def run(self, *arguments, **options):
        if arguments[-1].endswith("F2026-11-16.u2.tgz.part2"):
            os.unlink(arguments[-1])
            return 1, "planted"
        return super().run(*arguments, **options)


class Orphans(World):
    """Fault: the program creates stored files that the server's account does not include."""

    def run(self, *arguments, **options):
        write(os.path.join(self.storage, "F2026-11-01.u9.1.dar"), "x" * 3000)
        return super().run(*arguments, **options)


class Refused(World):
    """Fault: the program refuses a job, also when it is repeated."""

    def run(self, *arguments, **options):
        if "2026-11-16.u2" in arguments[-1]:
            return 1, "planted"
        return super().run(*arguments, **options)


class Outside(World):
    """Fault: the program creates a file in a directory that it must not change."""

    def start_server(self, step):
        subprocess.run(["touch", os.path.join(self.other, "made")], check=True)
        return super().start_server(step)


# (world with the fault, promise that the fault breaks, changed server options)
PLANTED = [(Dropped, "bad-complete", {}), (Deleted, "lost", {}), (Altered, "lost", {}),
           (TooMuch, "lost", {}), (LostSource, "source", {}), (Orphans, "space", {"size": 3500}),
           (Refused, "blocked", {}), (Outside, "outside", {})]


def self_check(play):
    """Returns a text for each simulated fault that the checks did not detect. `play` is the function of run.py."""
    problems = []
    for world, kind, changes in PLANTED:
        steps = [{**step, **changes} if step["do"] == "serve" else step for step in WEEK]
        broken = play(steps, world)
        if broken is None or broken[0] != kind:
            problems.append(f"{world.__doc__} Expected: {kind}, found: {broken}")
    broken = play(WEEK, World)
    if broken is not None:
        problems.append(f"without a fault: {broken}")

    def fails(steps):
        found = play(steps, Deleted, finish=False)
        return found is not None and found[0] == "lost"

    shortest = shrink(WEEK, fails)
    if [step["do"] for step in shortest] != ["serve", "job", "release"] \
            and [step["do"] for step in shortest] != ["serve", "job", "serve"]:
        problems.append(f"a deleted file is lost in three steps, and the shortest list is {shortest}")
    return problems
