"""Counts the executed lines and branches of each layer and file:  coverage_table.py TOP FILE.lcov UNCOVERED

Prints the table. Writes the lines that were not executed to the file UNCOVERED, consecutive lines as one range.
"""

import collections
import os
import sys

LAYERS = ("kro", "quarn2", "backup_common", "launcher", "report")


class Counts:
    def __init__(self):
        self.lines = {}
        self.branches = {}

    @staticmethod
    def of(counted):
        return sum(1 for count in counted.values() if count), len(counted)


def read_lcov(path, top):
    files = collections.defaultdict(Counts)
    current = None
    with open(path, encoding="utf-8") as lcov:
        for line in lcov:
            key, _, value = line.rstrip("\n").partition(":")
            if key == "SF":
                current = files[os.path.relpath(value, top)]
            elif key == "DA":
                number, count = map(int, value.split(",")[:2])
                current.lines[number] = current.lines.get(number, 0) + count
            elif key == "BRDA":
                *place, count = value.split(",")
                # A branch that was never reached has no count.
                place = tuple(place)
                current.branches[place] = (current.branches.get(place, 0) +
                                           (0 if count == "-" else int(count)))
    return files


def percent(part):
    done, whole = part
    return f"{done:>6} of {whole:>6}  {100 * done / whole if whole else 100:6.1f} %"


def print_table(files):
    whole = [(0, 0), (0, 0)]
    print(f"{'':46}{'lines':>26}{'branches':>28}")
    for layer in LAYERS:
        parts = {path: (Counts.of(counts.lines), Counts.of(counts.branches))
                 for path, counts in sorted(files.items()) if path.split("/")[0] == layer}
        sums = [tuple(map(sum, zip((0, 0), *column))) for column in zip(*parts.values())] or whole
        print(f"{layer:46}{percent(sums[0])}  {percent(sums[1])}")
        for path, (lines, branches) in parts.items():
            print(f"  {path:44}{percent(lines)}  {percent(branches)}")
        whole = [tuple(map(sum, zip(a, b))) for a, b in zip(whole, sums)]
    print(f"{'all':46}{percent(whole[0])}  {percent(whole[1])}")


def runs(numbers):
    """Groups consecutive numbers into ranges: [(first, last), ...]."""
    found = []
    for number in numbers:
        if found and number == found[-1][1] + 1:
            found[-1] = (found[-1][0], number)
        else:
            found.append((number, number))
    return found


def write_uncovered(files, top, path):
    with open(path, "w", encoding="utf-8") as out:
        for name, counts in sorted(files.items()):
            missed = [number for number in sorted(counts.lines) if not counts.lines[number]]
            with open(os.path.join(top, name), encoding="utf-8") as source:
                text = source.read().split("\n")
            for first, last in runs(missed):
                out.write(f"{name}:{first}-{last}\n")
                out.writelines(f"    {text[number - 1]}\n" for number in range(first, last + 1))


def main(top, lcov, uncovered):
    files = {path: counts for path, counts in read_lcov(lcov, top).items()
             if path.split("/")[0] in LAYERS}
    print_table(files)
    write_uncovered(files, top, uncovered)


if __name__ == "__main__":
    main(*sys.argv[1:])
