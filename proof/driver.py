#!/usr/bin/env python3
"""Runs the parts of the proof and writes their scoreboard; ./prove says how it is called.

A part is a file part.py in a folder of its own. It has a function run(proof) that ends normally when nothing was found,
calls proof.fail where something was, and reports its figures with proof.figure. What it builds, and the faults that are
planted to see whether it finds them, it gets from here, too.
"""

import argparse
import concurrent.futures
import datetime
import fcntl
import importlib.util
import os
import pathlib
import platform
import re
import shlex
import shutil
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build/proof"
sys.path[:0] = [str(ROOT / "proof/faults"), str(ROOT / "tools/renewal")]

import faults  # noqa: E402
import stamps  # noqa: E402

# In the order of a reader's questions: what may go wrong, is it noticed, is everything reached, would a fault be seen.
# They run side by side, as many as there are processors, but for those that use all processors by themselves.
PARTS = ["failures", "misuse", "model", "interleavings", "sharing", "threads", "valgrind", "platforms", "target",
         "coverage", "mutants"]
ON_ALL_PROCESSORS = ["platforms", "target", "mutants"]
LONGEST = "model"  # begins first
ONLY_WHEN_NAMED = ["target"]  # among the short forms: together these are to take a quarter of an hour
ARM = "arm-linux-gnueabihf-g++"
SANITIZED = "-O1 -g -fsanitize=address,undefined -fno-sanitize-recover=all"


class Failed(Exception):
    """Why a part ends: a finding, a planted fault that is not found, or something that does not work."""


def say(text):
    print(f"== {text}", flush=True)


def triplet(compiler):
    """The target of one of Debian's cross compilers, or nothing for a compiler for this machine."""
    return compiler.removesuffix("-g++") if "-linux-" in compiler else None


def emulator(compiler):
    """What runs the programs of a compiler: the beginning of a command."""
    target = triplet(compiler)
    if target is None or target.startswith("i686-"):
        return []
    return [f"qemu-{target.partition('-')[0]}", "-L", f"/usr/{target}"]


def words(command):
    return [str(word) for word in command]


def text(path):
    return pathlib.Path(path).read_text(errors="replace")


class Proof:
    """What a part works with: its form, its folder, its figures."""

    def __init__(self, part, isShort):
        self.part, self.isShort, self.figures = part, isShort, []
        self.folder = BUILD / part
        self.folder.mkdir(parents=True, exist_ok=True)
        self.seen = 0
        self.saidWithoutFault = {}  # by command

    # --- to report ----------------------------------------------------------------------------------------------------

    @staticmethod
    def say(what):
        say(what)

    @staticmethod
    def fail(why):
        raise Failed(why)

    def figure(self, name, value):
        self.figures.append((name, value))
        print(f"   {name}: {value}", flush=True)

    # --- to run -------------------------------------------------------------------------------------------------------

    def quietly(self, *command):
        """Runs a command that must succeed; shows its output only if it does not."""
        done = subprocess.run(words(command), cwd=ROOT, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              errors="replace")
        if done.returncode != 0:
            print(done.stdout + done.stderr, file=sys.stderr)
            self.fail(f"this ended with status {done.returncode}: {shlex.join(words(command))}")
        return done.stdout

    def run(self, command, log, seconds, environment=None):
        """Runs a command, its output in a file. Returns its status; negative for a signal, None for the time limit."""
        log.parent.mkdir(parents=True, exist_ok=True)
        with open(log, "w") as output:
            try:
                return subprocess.run(words(command), cwd=ROOT, stdin=subprocess.DEVNULL, stdout=output,
                                      stderr=subprocess.STDOUT, timeout=seconds,
                                      env={**os.environ, **(environment or {})}).returncode
            except subprocess.TimeoutExpired:
                return None

    def mustSucceed(self, why, command, log, seconds, environment=None, showing=r"."):
        """Runs a command that finds nothing, or the part fails for this reason and shows what the pattern matches."""
        status = self.run(command, log, seconds, environment)
        if status != 0:
            lines = [line for line in text(log).splitlines() if re.search(showing, line)]
            print("\n".join(lines[-30:]), file=sys.stderr)
            self.fail(f"{why} (status {status}); all of it is in {log.relative_to(ROOT)}")

    # --- to build -----------------------------------------------------------------------------------------------------

    def build(self, name, targets, compiler="g++", flags="-O1", library=None, options=()):
        """Builds targets of the project in the way of that name; returns the folder. Another library has a way of its
        own, too, and may cause warnings."""
        folder = BUILD / name
        folder.mkdir(parents=True, exist_ok=True)
        with open(folder / "lock", "w") as lock:  # several parts may want what is built in this way
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.buildLocked(folder, targets, compiler, flags, library, options)
        return folder

    def buildLocked(self, folder, targets, compiler, flags, library, options):
        # Also where that has been done: the settings may have changed.
        settings = [f"-DCMAKE_CXX_COMPILER={compiler}", "-DCMAKE_BUILD_TYPE=None", f"-DCMAKE_CXX_FLAGS={flags}"]
        if triplet(compiler):
            settings[:1] = [f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/debian-cross.cmake",
                            f"-DGILVANE_TRIPLET={triplet(compiler)}"]
        if "-fsanitize" in flags:  # tests leave out what a sanitizer ends
            settings.append("-DGILVANE_SANITIZE=" + re.search(r"-fsanitize=(\S+)", flags)[1])
        self.quietly("cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", "-DGILVANE_BUILD_PROOF=ON",
                     "-DGILVANE_BUILD_EXAMPLES=OFF", f"-DGILVANE_WERROR={'OFF' if library else 'ON'}",
                     f"-DGILVANE_LIBRARY={library or ROOT}", *settings, *options)
        self.quietly("cmake", "--build", folder, "-j", os.cpu_count(), "--target", *targets)

    # --- to find planted faults ---------------------------------------------------------------------------------------

    def faults(self, part=None):
        """The faults that this part must find, each with its number in the copy that has them all, or none if it has a
        copy of its own."""
        chosen = faults.forPart(part or self.part)
        if not chosen:
            self.fail(f"no fault is planted for {part or self.part}")
        switched = [fault for fault in chosen if fault.isSwitched]
        return [(switched.index(fault) + 1 if fault.isSwitched else None, fault) for fault in chosen]

    def plant(self, chosen, name, source=ROOT):
        """A copy of the library with these faults."""
        tree = BUILD / "planted" / name
        faults.plant(chosen, tree, source)
        return tree

    def plantAll(self, part=None, source=ROOT):
        """The copy of the library that has all faults of this part that a program can switch on."""
        return self.plant([fault for fault in faults.forPart(part or self.part) if fault.isSwitched],
                          re.sub(r"\W+", "-", part or self.part), source)

    def plantSwitchPoints(self, chosen, name, header):
        """The same, in which threads say that they may lose their turn: switchpoints.txt of this part says where."""
        sound = self.plant(chosen, f"{name}-sound")
        tree = self.plant(faults.read(ROOT / "proof" / self.part / "switchpoints.txt"), name, sound)
        target = tree / "libsrc/base" / header.name
        if not target.exists() or target.read_text() != header.read_text():
            shutil.copy(header, target)
        return tree

    def withoutFault(self, command, seconds=300, environment=None):
        """What a command says that looks for planted faults, where none is switched on: it must end well. So a copy that is
        broken by more than its faults is noticed. The command is run once."""
        key = tuple(words(command))
        if key not in self.saidWithoutFault:
            log = self.folder / "without-fault.log"
            self.mustSucceed("the planted copy is broken by more than its faults: where none is switched on, this fails",
                             command, log, seconds, {**(environment or {}), "GILVANE_PLANTED_FAULT": "0"})
            self.saidWithoutFault[key] = text(log)
        return self.saidWithoutFault[key]

    def withFault(self, number, command, seconds=300, environment=None):
        """Runs a command where the fault of this number is, and once without it, if it can be switched off. Returns the
        status and what the command says."""
        if number is not None:
            self.withoutFault(command, seconds, environment)
        log = self.folder / "planted.log"
        status = self.run(command, log, seconds, {**(environment or {}), "GILVANE_PLANTED_FAULT": str(number or 0)})
        return status, text(log)

    def find(self, fault, number, command, pattern, seconds=300, status=None, environment=None):
        """Runs a command that must end badly, and say so, where the fault of this number is, and must not where no fault
        is; counts it."""
        ended, said = self.withFault(number, command, seconds, environment)
        found = re.search(pattern, said, re.MULTILINE)
        if ended in (0, None) or not found or status not in (None, ended):
            print("\n".join(said.splitlines()[-10:]), file=sys.stderr)
            self.fail(f"the planted fault '{fault.name}' is not found (status {ended})")
        if number is not None and re.search(pattern, self.withoutFault(command), re.MULTILINE):
            self.fail(f"the planted fault '{fault.name}' seems to be found where it is not: {pattern}")
        self.seen += 1
        return found

    def explore(self, target, header, difference, *outputs):
        """Builds the target over copies with switch points: it must find each planted fault and say so by this pattern,
        and must find nothing in the sound library. Its figures, which it writes to the first output, are reported."""
        self.say("planted faults")
        switched = [fault for fault in faults.forPart(self.part) if fault.isSwitched]
        planted = self.build(f"planted-{self.part}", [target], flags="-O2",
                             library=self.plantSwitchPoints(switched, self.part, header)) / "proof" / target
        for number, fault in self.faults():
            found = self.find(fault, number, [planted, "--short"], difference, 600, 1)
            print(f"   found: {fault.name}: in {found[1]}, {found[2]}")

        sound = self.build(f"{self.part}-program", [target], flags="-O2",
                           library=self.plantSwitchPoints([], f"{self.part}-points", header)) / "proof" / target
        self.say("the programs")
        form = ["--short"] if self.isShort else []
        self.mustSucceed("the library does what it must not", [sound, *form, *outputs], self.folder / "log", 7200)
        for line in text(outputs[0]).splitlines():
            name, _, value = line.rpartition(": ")
            self.figure(name, value)
        self.countFaults()

    def countFaults(self):
        self.figure("planted faults found", self.seen)


# --- the parts and their scoreboard -----------------------------------------------------------------------------------


def load(part):
    where = importlib.util.spec_from_file_location(f"part_{part}", ROOT / "proof" / part / "part.py")
    module = importlib.util.module_from_spec(where)
    where.loader.exec_module(module)
    return module


def attempt(part, isShort, library):
    """Runs a part and notes its figures; returns whether it found nothing."""
    say(part)
    begun = time.monotonic()
    result, about = BUILD / f"{part}.result", BUILD / f"{part}.about"
    result.unlink(missing_ok=True)
    about.unlink(missing_ok=True)
    proof = Proof(part, isShort)
    try:
        load(part).run(proof)
    except (Failed, faults.Wrong) as why:
        print(f"prove: {part}: {why}", file=sys.stderr, flush=True)
        return False
    figures = proof.figures + [("findings", 0), ("seconds", round(time.monotonic() - begun))]
    result.write_text("".join(f"{name}: {value}\n" for name, value in figures))
    about.write_text(f"{'short' if isShort else 'long'} {library} {datetime.date.today()}\n")
    return True


def lastRun(part):
    """Form, library and day of a part's last run, or nothing if it found something or there was none."""
    about = BUILD / f"{part}.about"
    if not about.exists():
        return None, None, None
    form, library, *day = about.read_text().split()
    return form, library, day[0] if day else str(datetime.date.fromtimestamp(about.stat().st_mtime))


def attemptAlone(part, isShort):
    """The same, in a process of its own, whose output is shown when it ends."""
    begun = time.monotonic()
    command = [sys.executable, __file__, "--alone", part, *(["--short"] if isShort else [])]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace")
    print(f"{done.stdout}== {part} {'ended' if done.returncode == 0 else 'failed'} after "
          f"{time.monotonic() - begun:.0f} s", flush=True)
    return done.returncode == 0


def attemptAll(parts, isShort, library):
    """Those that failed."""
    beside = [part for part in parts if part not in ON_ALL_PROCESSORS]
    if len(beside) == 1:
        ended = [attempt(beside[0], isShort, library)]
    else:
        beside.sort(key=lambda part: part != LONGEST)
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            ended = list(pool.map(lambda part: attemptAlone(part, isShort), beside))
    last = [part for part in parts if part in ON_ALL_PROCESSORS]
    ended += [attempt(part, isShort, library) for part in last]
    return [part for part, isGood in zip(beside + last, ended) if not isGood]


def scoreboard(parts):
    """(part, what, figure) for each line of the results there are; the part stands in its first line alone."""
    for part in parts:
        path = BUILD / f"{part}.result"
        if path.exists():
            for number, line in enumerate(path.read_text().splitlines()):
                what, _, figure = line.rpartition(": ")
                yield part if number == 0 else "", what, figure


def writeDocument():
    """docs/proof.md: what the long forms found."""
    model = next((line.partition(": ")[2] for line in open("/proc/cpuinfo") if line.startswith("model name")), "")
    days = sorted(day for _, _, day in map(lastRun, PARTS))
    when = f"on {days[0]}" if days[0] == days[-1] else f"from {days[0]} to {days[-1]}"
    lines = [f"""# Proof

What `./prove` found {when}, on {os.cpu_count()} processors ({model.strip()}),
{platform.freedesktop_os_release()["PRETTY_NAME"]}. This file is written by `./prove`.

| Part | What | Figure |
|---|---|--:|
"""]
    for part, what, figure in scoreboard(PARTS):
        lines.append(f"| {'**' + part + '**' if part else ''} | {what} | {figure} |\n")
    lines.append("""
## What threads were seen to do

Described behaviour, not findings: `interleavings` counts the schedules in which each of these was seen, and the last
column says where it is described. A finding would be anything else that the library does. The part also fails when one
of these is never seen, so that the programs keep reaching all of it. Where a line begins with "ends", the program has
made a mistake of which nothing is promised, and the schedule ends there.

| What was seen | Schedules | Described in |
|---|--:|---|
""")
    for line in text(BUILD / "interleavings/sights").splitlines():
        what, schedules, where = line.split("|")
        where = where.removeprefix("docs/")
        lines.append(f"| {what} | {schedules} | [{where}]({where.split(', ')[0]}) |\n")
    (ROOT / "docs/proof.md").write_text(stamps.stamped("".join(lines)))
    subprocess.run([ROOT / "tools/renew", "facts"], check=True)
    say("wrote docs/proof.md, and the README's facts")


def main():
    parser = argparse.ArgumentParser(prog="prove", add_help=False)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--alone", action="store_true")  # one part, without the scoreboard
    parser.add_argument("parts", nargs="*", metavar="PART")
    options = parser.parse_args()
    for part in options.parts:
        if part not in PARTS:
            sys.exit(f"prove: no part is called {part}; there are: {' '.join(PARTS)}")
    chosen = options.parts or [part for part in PARTS if not (options.short and part in ONLY_WHEN_NAMED)]
    BUILD.mkdir(parents=True, exist_ok=True)
    library = stamps.library()
    if options.alone:
        sys.exit(not all([attempt(part, options.short, library) for part in chosen]))
    failed = attemptAll(chosen, options.short, library)
    say("scoreboard")
    for part, what, figure in scoreboard(chosen):
        print(f"{part:<16} {what:<60} {figure}")
    if failed:
        sys.exit(f"prove: these parts failed: {' '.join(failed)}")
    for part in PARTS:
        if lastRun(part)[:2] != ("long", library):
            say(f"docs/proof.md stays as it is: the long form of {part} has not been through this library")
            return
    writeDocument()


if __name__ == "__main__":
    sys.stdout.reconfigure(line_buffering=True)
    main()
