"""Builds the suite for each platform and runs it there: natively, or under qemu's emulation of programs. The layout of
the classes is asserted while it is compiled. docs/platforms.md is written from what is noted here.

The suite is not optimised, and the library is, but little: so it is compiled soonest. A process runs all tests of a
program. No test may fail, and as many must have run as the program lists. The short form has one platform: S/390,
whose bytes lie the other way round, and where no type is aligned for more than 8 bytes. Both forms measure the guide's
figures of embedded use again, and compare."""

import json
import re
import subprocess
import time
import typing

import commands
import embedded
import stamps
import suites
from driver import ROOT, emulator, text, words


class Platform(typing.NamedTuple):
    title: str
    compiler: str
    words: str  # as the target says
    standard: int = 17
    library: str = "libstdc++"

    def target(self):
        """What the target must say of itself."""
        number = {17: 201703, 20: 202002, 23: 202100}[self.standard]  # the last one is g++ 12's for C++23
        return f"{self.words}, C++ {number}, {self.library}"


LITTLE_64, LITTLE_32, BIG_64 = "64 bits, little-endian", "32 bits, little-endian", "64 bits, big-endian"
PLATFORMS = {
    "aarch64": Platform("64-bit ARM", "aarch64-linux-gnu-g++", LITTLE_64),
    "s390x": Platform("S/390", "s390x-linux-gnu-g++", BIG_64),
    "riscv64": Platform("64-bit RISC-V", "riscv64-linux-gnu-g++", LITTLE_64),
    "i686": Platform("32-bit x86", "i686-linux-gnu-g++", LITTLE_32),
    "armhf": Platform("32-bit ARM, hard-float", "arm-linux-gnueabihf-g++", LITTLE_32),
    "armel": Platform("32-bit ARM, soft-float", "arm-linux-gnueabi-g++", LITTLE_32),
    "x86-64": Platform("x86-64", "g++", LITTLE_64),
    "x86-64-c++20": Platform("x86-64", "g++", LITTLE_64, 20),
    "x86-64-c++23": Platform("x86-64", "g++", LITTLE_64, 23),
    "x86-64-libc++": Platform("x86-64", "clang++", LITTLE_64, library="libc++"),
}
SHORT = ["s390x"]
PROGRAMS = suites.places(suites.PROGRAMS + suites.SHARED + suites.HARDENED)
TARGET = "proof/target_tests"
LISTING = "tests/layout_listing"
# Faults that one kind of target shows, and the platform on which they must be found.
FAULTY_TEST = "tests/datastructures/generichashfunction_test.cpp"
SHOWN_BY = {"s390x": "platforms with the first byte highest", "i686": "platforms of 32 bits"}


def output(proof, command):
    done = subprocess.run(words(command), cwd=ROOT, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if done.returncode != 0:
        proof.fail(f"this cannot be run (status {done.returncode}): {' '.join(words(command))}: {done.stderr}")
    return done.stdout


def version(proof, program):
    return output(proof, [program, "--version"]).splitlines()[0]


def suite(proof, name, command, environment=None):
    """Runs a program of tests. Returns how many have run, how many of these were skipped, and what is wrong."""
    tests = suites.listed(output(proof, [*command, "--gtest_list_tests"]))
    log = proof.folder / name / command[-1].name
    status = proof.run(command, log, 900, environment)
    ran, skipped, wrong = suites.outcome(command[-1].name, tests, status, text(log))
    return ran, skipped, [f"{what}: {log}" for what in wrong]


def mustNotice(proof, name, command):
    """What is planted in the program that says what the target is: a failure, and an end before the last test."""
    for fault in "12":
        if not suite(proof, name, command, {"GILVANE_PLANTED_FAULT": fault})[2]:
            proof.fail(f"a run on {name} does not notice planted fault {fault} of {command[-1].name}")
        proof.seen += 1


def findPlanted(proof, name, compiler, folder):
    """Faults of the library that this platform shows."""
    part = SHOWN_BY[name]
    tree, program = proof.plantAll(part), proof.folder / name / "planted"
    gtest = "/usr/src/googletest/googletest/include"
    proof.quietly(compiler, "-std=c++17", "-w", "-I", tree / "include", "-isystem", gtest,
                  ROOT / FAULTY_TEST, folder / "lib/libgtest_main.a", folder / "lib/libgtest.a",
                  folder / "libgilvane.a", "-pthread", "-static", "-o", program)
    for number, fault in proof.faults(part):
        proof.find(fault, number, [*emulator(compiler), program], suites.FAILED, status=1)


def visit(proof, name):
    """Builds and runs all for a platform. Notes the outcome if nothing is wrong; returns what is."""
    platform, noted = PLATFORMS[name], proof.folder / f"{name}.json"
    noted.unlink(missing_ok=True)
    compiler, target = platform.compiler, platform.target()
    proof.say(f"{name}: building")
    begun = time.monotonic()
    flags, options = "-O1", ["-DGILVANE_TEST_FLAGS=-O0;-g0", f"-DGILVANE_CXX_STANDARD={platform.standard}"]
    if platform.library == "libc++":
        flags += " -stdlib=libc++"
        options.append("-DGILVANE_BUILD_GTEST=ON")
    targets = [program.rpartition("/")[2] for program in [*PROGRAMS, TARGET, LISTING]]
    folder = proof.build(f"platform-{name}", targets, compiler, flags, options=options)
    built = time.monotonic()

    proof.say(f"{name}: running")
    run = emulator(compiler)
    tests, skipped, wrong = 0, 0, []
    for program in [TARGET, *PROGRAMS]:
        ran, passedOver, faults = suite(proof, name, [*run, folder / program])
        tests, skipped, wrong = tests + ran, skipped + passedOver, wrong + faults
    said = re.search(r"^target: (.*)$", text(proof.folder / name / "target_tests"), re.MULTILINE)
    if not said or said[1] != target:
        wrong.append(f"the target says that it is {said and said[1]}, and not {target}")
    mustNotice(proof, name, [*run, folder / TARGET])
    ended = time.monotonic()
    if name in SHOWN_BY:
        findPlanted(proof, name, compiler, folder)

    outcome = {
        "name": name, "library": stamps.library(), "title": platform.title, "target": target,
        "tests": tests, "skipped": skipped, "compiler": version(proof, compiler),
        "emulator": version(proof, run[0]) if run else None,
        "layout": output(proof, [*run, folder / LISTING]).splitlines(),
    }
    if not wrong:
        noted.write_text(json.dumps(outcome, indent=1) + "\n")
    print(f"   {tests} tests, {skipped} of them skipped; built in {built - begun:.0f} s, run in {ended - built:.0f} s")
    return [f"{name}: {what}" for what in wrong]


def compareFigures(proof):
    """The guide's figures of embedded use must be those that are measured now."""
    proof.say("the guide's figures of embedded use")
    try:
        measured = embedded.measured()
    except commands.Failed as why:
        proof.fail(why)
    for name, text_ in measured.items():
        shown = embedded.shown(name)
        if embedded.isOutdated(shown, text_):
            proof.fail(f"benchmarks/embedded/{name}.txt is not what is measured now; tools/renew embedded")
        # A figure that is one more.
        changed = re.sub(r"\d\b", lambda digit: str((int(digit[0]) + 1) % 10), shown, count=1)
        if not embedded.isOutdated(changed, text_):
            proof.fail(f"that a figure of {name} is another is not noticed")
        proof.seen += 1


def run(proof):
    chosen = SHORT if proof.isShort else list(PLATFORMS)
    wrong = [what for name in chosen for what in visit(proof, name)]
    if wrong:
        proof.fail("the suite does not pass everywhere:\n" + "\n".join(wrong))
    compareFigures(proof)
    outcomes = [json.loads(text(proof.folder / f"{name}.json")) for name in chosen]
    proof.figure("platforms", len(outcomes))
    proof.figure("tests run on them", sum(outcome["tests"] for outcome in outcomes))
    proof.figure("tests skipped there", sum(outcome["skipped"] for outcome in outcomes))
    proof.countFaults()
