"""The suite's programs of tests, and what a program says that it has done: GoogleTest's lines."""

import re

# The quick ones first. Each folder of the library has one, and two look at several folders.
PROGRAMS = ["base_tests", "layout_tests", "locking_tests", "datastructures_tests", "threads_tests", "utilities_tests"]
# The suite over the shared library: the same sources, linked in another way.
SHARED = ["shared_library_tests"]
HARDENED = ["hardened_marks_tests", "hardened_tests"]

# How the line of a test that fails begins.
FAILED = r"^\[  FAILED  \]"


def places(programs):
    """Where a build has them."""
    return [f"tests/hardened/{name}" if name in HARDENED else f"tests/{name}" for name in programs]


def listed(said):
    """How many tests a program has, by what it says with --gtest_list_tests."""
    return len(re.findall(r"^  (?!DISABLED_)\w", said, re.MULTILINE))


def count(pattern, said):
    found = re.search(pattern, said, re.MULTILINE)
    return int(found[1]) if found else 0


def ran(said):
    """How many tests have run, those that were skipped among them; the first time, if they were repeated."""
    return count(r"^\[=+\] (\d+) tests? from .* ran\.", said)


def passed(said):
    """How many of them were neither skipped nor failed."""
    return count(r"^\[  PASSED  \] (\d+) tests?\.", said)


def passedInAll(said):
    """The same where several programs were run, one after the other."""
    return sum(map(int, re.findall(r"^\[  PASSED  \] (\d+) tests?\.", said, re.MULTILINE)))


def failed(said):
    """The tests that failed."""
    return list(dict.fromkeys(re.findall(FAILED + r" ([\w/]+\.[\w/]+)(?=,| \(|$)", said, re.MULTILINE)))


def outcome(name, tests, status, said):
    """How many of the program's tests have run, how many of these were skipped, and what is wrong."""
    skipped = count(r"^\[  SKIPPED \] (\d+) tests?, listed below:", said)
    wrong = []
    if tests == 0 or ran(said) != tests:
        wrong.append(f"{name} lists {tests} tests, and {ran(said)} have run")
    if status != 0 or passed(said) + skipped != ran(said):
        wrong.append(f"{name} ended with status {status}; {' '.join(failed(said)) or 'no test failed'}")
    return ran(said), skipped, wrong
