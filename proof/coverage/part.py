"""Requires that the tests enter every function and region of libsrc, take every branch both ways, and show every
condition of every decision to decide alone (MC/DC): in the default build, and in the hardened build by itself. Excused
is what exclusions.txt and exclusions-hardened.txt name.

The test programs are built by clang-19 with its coverage mapping and run. Each program is evaluated by itself, and the
programs' figures are united; evaluate.py says how. The tests of the shared library are left out: they run the same
sources a second time. In the hardened build the suite leaves out tests of misuse, which end the program there, and the
programs in tests/hardened come in; what ends with abort counts like the rest. Both forms are the same."""

import subprocess

import suites
from driver import ROOT, text, words

HERE = ROOT / "proof/coverage"
# Counters that lost updates of parallel threads would show outcomes that were never taken, and hide others.
FLAGS = "-O0 -fprofile-instr-generate -fcoverage-mapping -fcoverage-mcdc -fprofile-update=atomic"
# Precompiled headers are switched off: what they hold is not instrumented. A decision that the compiler cannot measure
# is a warning, and so an error.
OPTIONS = ["-DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON"]
FACTORY = "libsrc/threads/gvthreadsfactory.cpp"
NEEDLESS = """{source}
    {what}
    reason: none, for it is
"""


def build(proof, name, targets, library=None, options=()):
    return proof.build(f"coverage-{name}", targets, "clang++-19", FLAGS, library, [*OPTIONS, *options])


def measure(proof, name, program):
    """Runs a program; returns the file that says what it covered."""
    profiles = proof.folder / "profiles"
    profiles.mkdir(exist_ok=True)
    for former in profiles.glob(f"{name}.*"):
        former.unlink()
    # Children of a test program add to the same file.
    proof.mustSucceed(f"{program.name} fails", [program, "--gtest_brief=1"], profiles / f"{name}.log", 300,
                      {"LLVM_PROFILE_FILE": f"{profiles}/{name}.%m.profraw"})
    merged, export = profiles / f"{name}.profdata", profiles / f"{name}.json"
    proof.quietly("llvm-profdata-19", "merge", "-o", merged, *profiles.glob(f"{name}.*.profraw"))
    with open(export, "w") as output:
        done = subprocess.run(words(["llvm-cov-19", "export", "-format=text", f"-instr-profile={merged}", program]),
                              stdout=output, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0 or done.stderr:
        proof.fail(f"llvm-cov-19 cannot read {program}, or leaves something out: {done.stderr}")
    return export


def judge(tree, exclusions, sources, exports, *options):
    """What the gate says: its status and its output."""
    done = subprocess.run(words([HERE / "evaluate.py", tree, exclusions, *sources, *options, "--", *exports]),
                          cwd=ROOT, capture_output=True, text=True)
    return done.returncode, done.stdout + done.stderr


def mustFind(proof, what, reason, tree, exclusions, export):
    """The gate must stay shut, for this reason and no other."""
    status, said = judge(tree, exclusions, [FACTORY], [export])
    complaints = [line for line in said.splitlines() if line.startswith("not ")]
    if status == 0 or len(complaints) != 1 or reason not in complaints[0]:
        proof.fail(f"the gate does not stay shut for '{what}' alone: {said}")
    proof.seen += 1


def findPlanted(proof, sound):
    status, said = judge(ROOT, "/dev/null", [FACTORY], [measure(proof, "nothing", sound / "tests/threads_tests")])
    if status != 0:
        proof.fail(f"the gate is shut where nothing is planted: {said}")
    entries = {"not needed: its outcome is taken": "line:   if (flag) {\n    never:  flag is true",
               "not needed: code of its file is run": "constant:   isHardened\n    leaves out: the file",
               "not needed: code of its file is compiled": "macro:      isHardened\n    leaves out: the file",
               "not needed: its constant leaves nothing out": "constant:   isHardened\n    leaves out: what it guards"}
    for number, (_, fault) in enumerate(proof.faults()):
        tree = proof.plant([fault], f"coverage-{number}")
        program = build(proof, f"planted-{number}", ["threads_tests"], tree) / "tests/threads_tests"
        mustFind(proof, fault.name, fault.patterns[0], tree, "/dev/null", measure(proof, f"planted-{number}", program))
    # The list of exclusions has faults of its own.
    for reason, what in entries.items():
        exclusions = proof.folder / "needless"
        exclusions.write_text(NEEDLESS.format(source=FACTORY, what=what))
        mustFind(proof, reason, reason, ROOT, exclusions, proof.folder / "profiles/nothing.json")


def cover(proof, folder, programs, exclusions, prefix):
    """Measures the programs of a build, and is its gate."""
    exports = [measure(proof, f"{folder.name}-{program.rpartition('/')[2]}", folder / program) for program in programs]
    result = proof.folder / f"{folder.name}.figures"
    sources = sorted(path.relative_to(ROOT) for path in ROOT.glob("libsrc/**/*.*"))
    status, said = judge(ROOT, HERE / exclusions, sources, exports, "--result", result, "--prefix", prefix)
    print(said, end="")
    if status != 0:
        proof.fail("the tests leave something of libsrc out, see above")
    for line in text(result).splitlines():
        name, _, value = line.rpartition(": ")
        if not name.endswith("findings"):
            proof.figure(name, value)


def run(proof):
    default = build(proof, "default", [*suites.PROGRAMS, "instantiations"])
    proof.say("planted faults")
    findPlanted(proof, default)

    proof.say("the tests, run")
    cover(proof, default, [*suites.places(suites.PROGRAMS), "proof/instantiations"], "exclusions.txt", "")
    proof.say("the same, hardened")
    abort = proof.folder / "writeatabort.o"
    proof.quietly("clang++-19", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-c", "-o", abort, HERE / "writeatabort.cpp")
    programs = suites.PROGRAMS + suites.HARDENED
    hardened = build(proof, "hardened", [*programs, "instantiations"], None,
                     ["-DGILVANE_HARDENED=ON", f"-DCMAKE_EXE_LINKER_FLAGS={abort}"])
    cover(proof, hardened, [*suites.places(programs), "proof/instantiations"], "exclusions-hardened.txt", "hardened build, ")
    proof.countFaults()
