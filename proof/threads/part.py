"""Runs the suite's thread tests, those of the hardened build too, and a stress program under ThreadSanitizer, which must
find nothing, and a long storm of threads over a shared pool without it.

Four accesses take no lock on purpose and are excused in the library, each by an attribute of the function that does
nothing else (GILVANE_UNGUARDED). One planted fault takes the excuses away: each of the four must then be reported, so
that none is excused for nothing, and the stress does reach them. The others are races beside the excused accesses."""

import re

import suites
from driver import ROOT, text

FLAGS = "-O1 -g -fno-omit-frame-pointer -fsanitize=thread"
# The scenarios use the same addresses again and again: each race is reported as often as it happens.
OPTIONS = {"TSAN_OPTIONS": "halt_on_error=0:exitcode=66:history_size=4:suppress_equal_addresses=0"}
PROGRAMS = ["thread_tests", "hardened_thread_tests"]
EXCUSED = {
    r"GILVANE_UNGUARDED|no_sanitize": 3,
    r"GILVANE_UNGUARDED .*takeNextToken\(\) \{ return theNextToken\+\+; \}$": 1,
    r"GILVANE_UNGUARDED unsigned int countWithoutLock": 1,
    r"GILVANE_UNGUARDED void setWithoutLock": 1,
    r"countWithoutLock\(memoryPool\)": 2,
    r"setWithoutLock\(bytesInEachObject, bytes\)": 1,
}


def checkExcuses(proof):
    lines = [line for path in ROOT.glob("libsrc/**/*.*") if path.name != "gvcompiler.h"
             for line in path.read_text().splitlines() if not line.lstrip().startswith("//")]
    for pattern, number in EXCUSED.items():
        found = sum(1 for line in lines if re.search(pattern, line))
        if found != number:
            proof.fail(f"{found} lines of the library instead of {number} match: {pattern}")


def mustReport(proof, fault, number, program, rounds):
    """Runs the stress until its reports match all that the fault is seen as; ten runs must do. A pattern is looked for
    in the stacks' lines, joined by '|'. Where no fault is switched on there is no report, or the run fails."""
    reports = ""
    for turn in range(10):
        _, said = proof.withFault(number, [program, rounds], 300, OPTIONS)
        reports += "|".join(re.findall(r"^    #\d+ .*$", said, re.MULTILINE)) + "|"
        missing = [pattern for pattern in fault.patterns if not re.search(pattern, reports)]
        if not missing:
            print(f"   found: {fault.name}")
            proof.seen += 1
            return
    proof.fail(f"'{fault.name}': no report of {missing}")


def run(proof):
    rounds, plantedRounds, repetitions = (700, 300, 1) if proof.isShort else (10000, 1000, 10)
    checkExcuses(proof)

    proof.say("planted faults")
    switched = proof.build("planted-threads", ["stress"], "clang++", FLAGS, proof.plantAll()) / "proof/stress"
    accesses = 0
    for number, fault in proof.faults():
        program = switched
        if not fault.isSwitched:
            program = proof.build("planted-threads-unexcused", ["stress"], "clang++", FLAGS,
                                  proof.plant([fault], "threads-unexcused")) / "proof/stress"
            accesses += len(fault.patterns)
        mustReport(proof, fault, number, program, plantedRounds)

    folder = proof.build("threadsanitizer", ["stress", *PROGRAMS], "clang++", FLAGS) / "proof"
    proof.say(f"the thread tests, {repetitions} times")
    tests = {}
    for program in PROGRAMS:
        log = proof.folder / f"{program}.log"
        proof.mustSucceed("the thread tests fail", [folder / program, f"--gtest_repeat={repetitions}", "--gtest_brief=1"],
                          log, 1800, OPTIONS, "^(WARNING|SUMMARY)|FAILED")
        tests[program] = suites.passed(text(log))
        if tests[program] == 0:
            proof.fail(f"no test of {program} has run")
    proof.say(f"the stress program, {rounds} rounds")
    proof.mustSucceed("ThreadSanitizer finds races", [folder / "stress", rounds], proof.folder / "stress.log", 3600,
                      OPTIONS, "^(WARNING|SUMMARY)")

    storm = 5_000 if proof.isShort else 1_250_000
    proof.say(f"a storm of 8 threads over a shared pool, {8 * storm} operations, without ThreadSanitizer")
    proof.mustSucceed("blocks are lost, or lent twice",
                      [proof.build("plain", ["thread_tests"]) / "proof/thread_tests",
                       "--gtest_filter=SharedPoolStorm.ofEightThreadsLosesNothing"], proof.folder / "storm.log", 3600,
                      {"GILVANE_STORM_OPERATIONS": str(storm)}, "FAILED|Failure")
    if suites.passed(text(proof.folder / "storm.log")) != 1:
        proof.fail("the storm was not raised")

    proof.figure("operations of the storm over a shared pool", 8 * storm)
    proof.figure("tests", f"{tests['thread_tests']}, each {repetitions} times")
    proof.figure("tests of the hardened build", f"{tests['hardened_thread_tests']}, each {repetitions} times")
    proof.figure("stress rounds", rounds)
    proof.figure("excused accesses, each reported without its excuse", accesses)
    proof.countFaults()
