"""Plays random weeks of backup jobs, crashes and mistakes, and checks that no backup is lost.

    run.py --seeds 200 --first 1 --jobs 2   plays the weeks 1 to 200, two at a time
    run.py --seeds 200 --stop               ends after the first broken promise
    run.py --replay FILE                    plays the steps in FILE, one a line
    run.py --show SEED                      prints the steps of a week
    run.py --self-check --seeds 0           checks that planted faults are found
    run.py --real-time --seeds 3            with the program's own pauses, and without faults

A promise is one of the guarantees that checks.py checks. If a week breaks one, the script searches for a shorter list
of steps that breaks it too, prints the steps, and saves them in a file for --replay.
"""

import argparse
import ast
import multiprocessing
import os
import re
import sys
import tempfile
import time
import traceback

from world import RealTime, Violation, World, prepare  # the first import, because the module adds ../system to sys.path
from actions import Player
from generate import generate
from local_files import write
from planted import self_check
from shrink import shrink


def play(steps, world=World, finish=True):
    """Plays the steps. Returns None, or (kind, text, number of the step) of the first broken promise."""
    player = Player(world)
    try:
        player.play(steps, finish=finish)
        return None
    except Violation as broken:
        return broken.kind, str(broken), player.number
    finally:
        player.close()


STOPPED = multiprocessing.Event()  # set when no further week may begin


def play_seed(arguments):
    """Plays the week of a seed. Returns (seed, seconds, report or None). Returns None if STOPPED was set before."""
    seed, world, shrinks = arguments
    if STOPPED.is_set():
        return None
    begin = time.monotonic()
    steps = generate(seed)
    try:
        broken = play(steps, world)
        report = broken and describe(seed, steps, broken, world, shrinks)
    except Exception:  # an error of the simulator itself must not end the other weeks
        report = f"seed {seed}: the simulator failed\n{traceback.format_exc()}"
    return seed, time.monotonic() - begin, report


def subject_of(text):
    """Returns the backup DATE.USER that a report names. Reports about different backups count as different faults."""
    found = re.search(r"\b(\d{4}-\d\d-\d\d|custom)\.u\d", text)
    return found and found[0]


def describe(seed, steps, broken, world, shrinks):
    kind, text, number = broken
    finish = number > len(steps)
    steps = steps[:number]

    def fails(candidate):
        result = play(candidate, world, finish)
        return result is not None and result[0] == kind and subject_of(result[1]) == subject_of(text)

    if shrinks and fails(steps):
        steps = shrink(steps, fails)
        text = (play(steps, world, finish) or broken)[1]
    path = os.path.join(tempfile.gettempdir(), f"scenario-{seed}.steps")
    write(path, "".join(f"{step}\n" for step in steps))
    listed = "".join(f"    {step}\n" for step in steps)
    return f"seed {seed} breaks a promise: {text}\n{listed}    replay: run.py --replay {path}\n"


def parse(text):
    return [ast.literal_eval(line) for line in text.splitlines() if line.strip()]


def check_self():
    with multiprocessing.Pool(1, prepare) as pool:
        return pool.apply(self_check, (play,))


def play_many(options):
    begin = time.monotonic()
    seeds = range(options.first, options.first + options.seeds)
    played = failed = 0
    with multiprocessing.Pool(options.jobs, prepare) as pool:
        world = RealTime if options.real_time else World
        work = [(seed, world, not options.no_shrink) for seed in seeds]
        for seed, seconds, report in filter(None, pool.imap_unordered(play_seed, work)):
            played += 1
            if report:
                failed += 1
                print(f"{report}    ({seconds:.1f} s)", flush=True)
                if options.stop:
                    STOPPED.set()
    print(f"{played} weeks from {options.first}, {failed} of them broke a promise,"
          f" {time.monotonic() - begin:.0f} s")
    return 1 if failed else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--seeds", type=int, default=100)
    parser.add_argument("--first", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--no-shrink", action="store_true")
    parser.add_argument("--stop", action="store_true")
    parser.add_argument("--real-time", action="store_true")
    parser.add_argument("--self-check", action="store_true")
    parser.add_argument("--replay", metavar="FILE")
    parser.add_argument("--show", type=int, metavar="SEED")
    options = parser.parse_args()
    if options.show is not None:
        print("".join(f"{step}\n" for step in generate(options.show)), end="")
        return 0
    if options.self_check:
        problems = check_self()
        print("".join(problem + "\n" for problem in problems) or "all planted faults were found")
        if problems:
            return 1
    if options.replay:
        prepare()
        with open(options.replay, encoding="utf-8") as file:
            broken = play(parse(file.read()), RealTime if options.real_time else World)
        print(broken[1] if broken else "no promise was broken")
        return 1 if broken else 0
    return play_many(options)


if __name__ == "__main__":
    sys.exit(main())
