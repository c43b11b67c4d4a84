"""Checks that filters select every test of a program exactly once:  check_filters.py PROGRAM FILTER...

The arguments are pairs of a GoogleTest program and a filter; a program occurs once for each of its filters.
"""

import collections
import subprocess
import sys


def listed(program, *options):
    """The full names of a program's tests."""
    result = subprocess.run([program, "--gtest_list_tests", *options], check=True, text=True,
                            stdout=subprocess.PIPE)
    found, suite = [], ""
    for line in result.stdout.splitlines():
        name = line.split("#")[0].rstrip()
        if name.startswith("  "):
            found.append(suite + name.strip())
        elif name.endswith("."):
            suite = name
    return found


def main(arguments):
    filters = collections.defaultdict(list)
    for program, pattern in zip(arguments[::2], arguments[1::2]):
        filters[program].append(pattern)
    wrong = 0
    for program, patterns in filters.items():
        selected = collections.Counter()
        for pattern in patterns:
            selected.update(listed(program, "--gtest_filter=" + pattern))
        every = listed(program)
        for name in every:
            if selected[name] != 1:
                print(f"{program}: {name} is selected by {selected[name]} filters instead of one")
                wrong += 1
        print(f"{program}: {len(every)} tests in {len(patterns)} filters")
    return 1 if wrong or not filters else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
