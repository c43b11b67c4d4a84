"""Runs tests as unittest does, and prints how long each took:  run.py [--shard I/N] NAME...

NAME is a module, or a class or a test in it. With --shard only each N-th test is run, beginning with the
I-th, so that N processes share the tests of a module between them.
"""

import argparse
import sys
import time
import unittest


class TimedResult(unittest.TextTestResult):
    def startTest(self, test):
        self.begin = time.monotonic()
        super().startTest(test)

    def stopTest(self, test):
        self.stream.writeln(f"{time.monotonic() - self.begin:8.2f} s  {test.id()}")
        self.stream.flush()
        super().stopTest(test)


def flat(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from flat(test)
        else:
            yield test


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--shard", default="1/1", metavar="I/N")
    parser.add_argument("names", nargs="+", metavar="NAME")
    arguments = parser.parse_args()
    number, count = map(int, arguments.shard.split("/"))
    tests = list(flat(unittest.defaultTestLoader.loadTestsFromNames(arguments.names)))
    if not 1 <= number <= count <= len(tests):
        sys.exit(f"run.py: there is no shard {arguments.shard} of {len(tests)} tests")
    suite = unittest.TestSuite(tests[number - 1::count])
    result = unittest.TextTestRunner(verbosity=0, resultclass=TimedResult).run(suite)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
