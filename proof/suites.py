"""What a program of tests says that it has done: GoogleTest's lines."""

import re


def listed(said):
    """How many tests a program has, by what it says with --gtest_list_tests."""
    return len(re.findall(r"^  (?!DISABLED_)\w", said, re.MULTILINE))


def count(pattern, said):
    found = re.search(pattern, said, re.MULTILINE)
    return int(found[1]) if found else 0


def outcome(name, tests, status, said):
    """How many of the program's tests have run, how many of these were skipped, and what is wrong."""
    ran = count(r"^\[=+\] (\d+) tests? from .* ran\.", said)
    passed = count(r"^\[  PASSED  \] (\d+) tests?\.", said)
    skipped = count(r"^\[  SKIPPED \] (\d+) tests?, listed below:", said)
    wrong = []
    if tests == 0 or ran != tests:
        wrong.append(f"{name} lists {tests} tests, and {ran} have run")
    if status != 0 or passed + skipped != ran:
        failed = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)(?:, where .*)?$", said, re.MULTILINE)
        wrong.append(f"{name} ended with status {status}; {' '.join(failed) or 'no test failed'}")
    return ran, skipped, wrong
