"""Runs the test programs and the examples of preset dev under Valgrind's memcheck, with every leak counted as an error and without a
suppression. The short form runs every test once; the long one runs them in five orders, and the examples as well.

Tests that go on purpose where memcheck must report something, in a child process, are left out of the runs, by name;
each is then run by itself, and memcheck must report something, or the test is no longer one of them."""

import re

import suites
from driver import ROOT, text

# program, test, why memcheck must report it
PROVOKING = [
    ("base_tests", "ObjectStorage.callsEvenANullDeallocationFunction", "calls a null pointer"),
    ("utilities_tests", "MisuseOfTokens.addsAnEntryForAnUnknownToken", "reads through a null pointer"),
    ("utilities_tests", "PoolObject.callsEvenANullDeallocationFunction", "calls a null pointer"),
    ("utilities_tests", "SmartPointer.callsEvenANullDeallocationFunctionOfACell", "calls a null pointer"),
    ("locking_tests", "TokenLending.popsAfterGrowthWithoutLookingAgain",
     "ends with its pool alive, after a pop from nothing"),
]


# Blocks of the library begin in front of what users hold, so that one in use looks possibly lost.
MEMCHECK = ["valgrind", "--tool=memcheck", "--error-exitcode=99", "--leak-check=full", "--errors-for-leak-kinds=all",
            "--show-leak-kinds=all", "--track-origins=yes", "--child-silent-after-fork=no", "--default-suppressions=no"]


def memcheck(log):
    """The beginning of a command, whose reports are written beside this log, each process's by itself."""
    return [*MEMCHECK, f"--log-file={log}.%p"]


def reports(log):
    return sorted(log.parent.glob(log.name + ".*"))


def forget(log):
    for report in reports(log):
        report.unlink()


def clean(proof, name, *command):
    """The command must end with status 0, and memcheck must have nothing to say, of its children neither."""
    log = proof.folder / name
    forget(log)
    proof.mustSucceed("memcheck finds something (99), or the program fails", [*memcheck(log), *command], log, 900)
    for report in reports(log):
        if "ERROR SUMMARY: 0 errors" not in text(report):
            proof.fail(f"memcheck reports something in {report}")
    return log


def findPlanted(proof):
    proof.say("planted faults")
    planted = proof.build("planted-valgrind", ["utilities_tests"], flags="-O0 -g", library=proof.plantAll())
    command = [*MEMCHECK, planted / "tests/utilities_tests", "--gtest_brief=1",
               "--gtest_filter=PoolCopy.*:PoolDump.*:PoolShrinking.*:TokenMemory.*"]
    for number, fault in proof.faults():
        proof.find(fault, number, command, fault.patterns[0], 900)


def run(proof):
    proof.quietly("cmake", "--preset", "dev")
    proof.quietly("cmake", "--build", "--preset", "dev")
    dev = ROOT / "build/dev/tests"

    findPlanted(proof)

    proof.say("tests that provoke a report")
    for program, test, reason in PROVOKING:
        print(f"   {test}: {reason}")
        log = proof.folder / "provoking"
        forget(log)
        proof.run([*memcheck(log), dev / program, f"--gtest_filter={test}", "--gtest_brief=1"], log, 900)
        if not any(re.search("ERROR SUMMARY: [1-9]", text(report)) for report in reports(log)):
            proof.fail(f"memcheck does not report anything in {test}")
        if suites.ran(text(log)) != 1:
            proof.fail(f"there is no test {test} in {program}")

    proof.say("the tests")
    leftOut = "--gtest_filter=-" + ":".join(test for _, test, _ in PROVOKING)
    orders = [0] if proof.isShort else range(5)
    tests = 0
    for program in suites.PROGRAMS + suites.SHARED:
        for order in orders:
            shuffle = ["--gtest_shuffle", f"--gtest_random_seed={order}"] if order else []
            log = clean(proof, f"{program}-{order}", dev / program, "--gtest_brief=1", leftOut, *shuffle)
        ran = suites.ran(text(log))
        if ran == 0:
            proof.fail(f"{program} ran no test")
        tests += ran

    examples = 0
    if not proof.isShort:
        proof.say("the examples")
        built = ROOT / "build/dev/examples"
        clean(proof, "quickstart", built / "quickstart")
        clean(proof, "lease", built / "lease")
        source, packed = proof.folder / "input", proof.folder / "output.gz"
        source.write_bytes((built / "parallel_gzip").read_bytes()[:3000000])
        clean(proof, "parallel_gzip", built / "parallel_gzip", source, packed)
        proof.quietly("bash", "-c", f"gunzip -c '{packed}' | cmp - '{source}'")
        examples = 3

    proof.figure("tests under memcheck", f"{tests}, in {len(orders)} order(s)")
    proof.figure("examples under memcheck", examples)
    proof.figure("tests left out, each reported when run", len(PROVOKING))
    proof.countFaults()
