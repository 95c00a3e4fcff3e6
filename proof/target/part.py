"""Runs the suite and more on Debian's own kernel for 32-bit ARM, in a machine that qemu emulates as a whole. It has
four processors, 256 MB, and no network. Its first process, init.cpp, does what a plan says, tells of it on the console,
and switches the machine off. What is to be looked at later it writes to a disk. fetch-kernel gets the kernel: it needs
the network the first time, and 200 MB of disk.

An emulator of programs leaves these to this machine's kernel, or does them itself:

- threads on several processors, and the kernel's futexes: each of the processors must have done a part of each storm;
- memory that is refused: refusal_test.cpp;
- the end of a program that accesses what is not aligned. The kernel is told to end it, and must have had no other
  reason for it than the accesses that are planted: the suite has none;
- cores: the kernel writes them, and the debugger shows what is in them.

qemu translates the programs for this machine's processors, which order accesses to memory more strictly than ARM does:
what only a processor of weak order shows is not seen here. One test is skipped, since this kernel has no transparent
huge pages.

The short form runs no suite, and one storm."""

import dataclasses
import re
import shutil
import subprocess

import suites
from driver import ARM, ROOT, emulator, text, triplet

PROCESSORS, MEGABYTES = 4, 256
FLAGS = ["-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DCMAKE_EXE_LINKER_FLAGS=-static", "-DGILVANE_TEST_ON_TARGET=ON",
         "-DGILVANE_TEST_FLAGS=-g0"]
# All programs but the one of the shared library, since they are linked statically.
SUITES = suites.places(suites.PROGRAMS + suites.HARDENED)
TARGET, REFUSAL, STRESS = "proof/target_tests", "proof/target_refusal_tests", "proof/stress"
ALIGNMENT, MISTAKE, SUBJECT = "proof/target_alignment", "proof/target_mistake", "tests/gdb/gdb_subject_static"
PROGRAMS = [TARGET, REFUSAL, STRESS, ALIGNMENT, MISTAKE, SUBJECT]
MODULES = ["virtio_mmio", "virtio_blk"]  # for the disk
SIGILL, SIGABRT, SIGBUS = -4, -6, -7
# Instruction and offset.
ALIGNED = [("ldm", 0), ("stm", 4), ("ldrd", 0), ("strd", 4), ("ldrex", 4), ("ldr", 1)]  # ldr may be anywhere
UNALIGNED = [("ldm", 1), ("ldm", 2), ("stm", 3), ("ldrd", 1), ("strd", 2), ("ldrex", 1)]
STORM = "SharedPoolStorm.ofEightThreadsLosesNothing"
WAITERS = 3  # threads of target_mistake that wait when it ends


@dataclasses.dataclass
class Outcome:
    """What a line of the plan came to."""
    said: str
    status: int | None = None  # None if the time limit ended the program
    seconds: float = 0
    ticks: tuple = ()  # of each processor


class Machine:
    """What the machine is made of; the plan is made line by line."""

    def __init__(self, proof, name):
        self.proof, self.name, self.plan = proof, name, []
        self.kernel = next((proof.folder / "debian/kernel/boot").glob("vmlinuz-*"))
        self.stage, self.disk = proof.folder / f"{name}.files", proof.folder / f"{name}.disk"
        shutil.rmtree(self.stage, ignore_errors=True)
        self.stage.mkdir()

    def add(self, source, path):
        """Puts a file into the machine; a program without what only a debugger needs."""
        target = self.stage / path.lstrip("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        if source.read_bytes()[:4] == b"\x7fELF" and source.suffix != ".ko":
            self.proof.quietly(f"{triplet(ARM)}-strip", "-g", "-o", target, source)
        else:
            shutil.copy(source, target)

    def tell(self, *words):
        self.plan.append(" ".join(str(word) for word in words))

    def start(self, seconds):
        """Runs the machine until it ends by itself, or its time is over. Returns whether all of the plan was done."""
        (self.stage / "plan").write_text("".join(f"{line}\n" for line in self.plan))
        archive = self.proof.folder / f"{self.name}.initramfs"
        self.proof.quietly("bash", "-c", f"cd '{self.stage}' && find . | cpio --quiet -o -H newc >'{archive}'")
        with open(self.disk, "wb") as disk:
            disk.truncate(256 << 20)
        log = self.proof.folder / f"{self.name}.console"
        status = self.proof.run(
            ["qemu-system-arm", "-M", "virt", "-cpu", "cortex-a15", "-accel", "tcg,thread=multi", "-smp", PROCESSORS,
             "-m", MEGABYTES, "-nic", "none", "-display", "none", "-monitor", "none", "-serial", "stdio", "-no-reboot",
             "-kernel", self.kernel, "-initrd", archive, "-append", "console=ttyAMA0 loglevel=4 panic=-1 rdinit=/init",
             "-drive", f"if=none,id=disk,format=raw,file={self.disk}", "-device", "virtio-blk-device,drive=disk"],
            log, seconds)
        self.said = text(log).replace("\r", "")
        return status == 0 and "\ntarget: up\n" in self.said and "\ntarget: done\n" in self.said

    def outcome(self, name):
        found = re.search(rf"^target: begin {name}\n(.*?)\ntarget: end {name}: ([^\n]*)$", self.said,
                          re.MULTILINE | re.DOTALL)
        if not found:
            self.proof.fail(f"the machine says nothing of {name}")
        end = re.fullmatch(r"status (\S+), (\d+) ms, processor time in ticks: ([\d ]+)", found[2])
        if not end:
            return Outcome(found[1])
        status = None if end[1] == "none" else int(end[1])
        return Outcome(found[1], status, int(end[2]) / 1000, tuple(map(int, end[3].split())))

    def carried(self, folder):
        """Unpacks what was written to the disk."""
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        self.proof.quietly("tar", "-xf", self.disk, "-C", folder)


# --- what may be wrong ------------------------------------------------------------------------------------------------


def wrongInShares(name, outcome):
    """Each processor must have done a twentieth of the work."""
    if len(outcome.ticks) != PROCESSORS or min(outcome.ticks) * 20 < sum(outcome.ticks):
        return [f"{name} ran on the processors for {' '.join(map(str, outcome.ticks))} ticks, not on all {PROCESSORS}"]
    return []


def wrongInStorm(name, outcome):
    wrong = [] if outcome.status == 0 else [f"{name} ended with status {outcome.status}:\n{outcome.said[-2000:]}"]
    return wrong + wrongInShares(name, outcome)


def wrongInMistakesCore(program, folder, name):
    """The core of a program that has returned a token twice: where it ended, its threads, and its pool."""
    core, dump = folder / f"{name}.core", folder / f"{name}.dump"
    if not core.exists():
        return [f"{name} left no core"]
    said = subprocess.run(
        ["gdb-multiarch", "-batch", "-nx", "-ex", f"file {program}", "-ex", f"core-file {core}",
         "-ex", f"source {ROOT}/tools/gdb/gilvane_gdb.py", "-ex", "backtrace", "-ex", "thread apply all backtrace 2",
         "-ex", "print *lendingPool", "-ex", "info gvpool *lendingPool"],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace").stdout
    (folder / f"{name}.debugger").write_text(said)
    wrong = []
    for what, pattern, times in [
            ("the signal", r"^Program terminated with signal SIGABRT", 1),
            ("where it ended", r"^#\d+ .*reportMisuse(?:.*\n)+?#\d+ .*releaseObject(?:.*\n)+?#\d+ .* in main ", 1),
            ("the threads that wait", r"^#1 .* Gilvane::detail::GVEventCount::wait ", WAITERS),
            ("the pool", r"^\$1 = GVMemoryPool of 3 blocks of 32 bytes, 3 free, locking = \{", 1),
            ("the token that is free twice", r"availableTokens = \{(\d+), (\d+), \2\}", 1)]:
        if len(re.findall(pattern, said, re.MULTILINE)) != times:
            wrong.append(f"the debugger does not show {what}")
    if not dump.exists() or dump.read_text() not in said:
        wrong.append("the debugger does not write the pool's dump as the program does")
    return [f"{name}: {what}, in {folder}/{name}.debugger" for what in wrong]


# --- the part ---------------------------------------------------------------------------------------------------------


def mustNotice(proof, what, isNoticed):
    if not isNoticed:
        proof.fail(f"that {what} is not noticed")
    print(f"   found: {what}")
    proof.seen += 1


def noticeKernelsThatDoNotComeUp(proof):
    """One that is cut off in the middle, and one that finds no first process."""
    cut = Machine(proof, "cut")
    kernel = proof.folder / "cut.kernel"
    kernel.write_bytes(cut.kernel.read_bytes()[:1 << 20])
    cut.kernel = kernel
    mustNotice(proof, "a kernel does not begin", not cut.start(5))
    mustNotice(proof, "a kernel finds no first process", not Machine(proof, "empty").start(60))


def listedTests(proof, programs):
    """How many tests each has, as the emulator of programs says: the same programs will run in the machine."""
    return {name: suites.listed(proof.quietly(*emulator(ARM), program, "--gtest_list_tests"))
            for name, program in programs.items()}


def run(proof):
    proof.say("Debian's kernel for 32-bit ARM")
    proof.quietly(ROOT / "proof/target/fetch-kernel", proof.folder / "debian")
    version = text(proof.folder / "debian/version").strip()

    names = PROGRAMS if proof.isShort else PROGRAMS + SUITES
    proof.say("building")
    folder = proof.build("target-suite", ["target_init", *(name.rpartition("/")[2] for name in names)], ARM, "",
                         options=FLAGS)
    planted = proof.build("planted-target", ["target_refusal_tests"], ARM, "", proof.plantAll(), FLAGS)

    machine = Machine(proof, "machine")
    machine.add(folder / "proof/target_init", "/init")
    for module in MODULES:
        machine.add(next((proof.folder / "debian/kernel/lib").rglob(f"{module}.ko")), f"/modules/{module}.ko")
        machine.tell("module", f"/modules/{module}.ko")
    for name in names:
        machine.add(folder / name, f"/{name}")
    machine.add(planted / REFUSAL, "/planted")
    for sources in ROOT / "libsrc", ROOT / "tests":  # tests read them
        shutil.copytree(sources, machine.stage / sources.relative_to("/"))

    machine.tell("write /proc/cpu/alignment 4")  # programs end, by a signal
    for kind, accesses in [("aligned", ALIGNED), ("unaligned", UNALIGNED)]:
        for instruction, offset in accesses:
            machine.tell("run", f"{kind}-{instruction}-{offset}", 10, f"/{ALIGNMENT}", instruction, offset)
    programs = {} if proof.isShort else {name.rpartition("/")[2]: name for name in SUITES}
    programs |= {"target_tests": TARGET, "target_refusal_tests": REFUSAL}
    for name, path in programs.items():
        machine.tell("run", name, 900, f"/{path}")

    rounds, operations = (50, 0) if proof.isShort else (200, 40_000)
    machine.tell("run storm-locked", 900, f"/{STRESS}", rounds)
    if operations:
        machine.tell("run storm-shared", 900, f"GILVANE_STORM_OPERATIONS={operations}", "/tests/utilities_tests",
                     f"--gtest_filter={STORM}")
    machine.tell("show alignment /proc/cpu/alignment")

    # Planted failures.
    faults = [(number, fault) for number, fault in proof.faults()]
    for number in range(len(faults) + 1):  # with 0 none is switched on
        machine.tell("run", f"fault-{number}", 60, f"GILVANE_PLANTED_FAULT={number}", "/planted")
    for fault in 1, 2:
        machine.tell("run", f"failing-{fault}", 60, f"GILVANE_PLANTED_FAULT={fault}", f"/{TARGET}")
    machine.tell("run endless 2", f"/{STRESS}", 1_000_000)
    machine.tell("run without-a-core 60", f"/{MISTAKE}", "/out/without-a-core.dump")
    machine.tell("processors 1")
    machine.tell("run on-one", 300, f"/{STRESS}", 20)
    machine.tell("processors", PROCESSORS)

    machine.tell("cores on")
    machine.tell("run mistake 60", f"/{MISTAKE}", "/out/mistake.dump")
    machine.tell("folder /out/subject")
    machine.tell("run subject 60", f"/{SUBJECT}", "/out/subject core")
    machine.tell("carry /dev/vda")

    proof.say(f"the machine: {version}, {PROCESSORS} processors, {MEGABYTES} MB")
    if not machine.start(180 if proof.isShort else 3600):
        print(machine.said[-3000:])
        proof.fail(f"the machine does not do all of its plan: {proof.folder}/machine.console")

    wrong, ran, skipped = [], {}, 0
    for name, tests in listedTests(proof, {name: folder / path for name, path in programs.items()}).items():
        outcome = machine.outcome(name)
        ran[name], passedOver, what = suites.outcome(name, tests, outcome.status, outcome.said)
        skipped, wrong = skipped + passedOver, wrong + what
        print(f"   {name}: {ran[name]} tests, {outcome.seconds:.1f} s")
    storms = ["storm-locked", "storm-shared"] if operations else ["storm-locked"]
    for name in storms:
        outcome = machine.outcome(name)
        wrong += wrongInStorm(name, outcome)
        print(f"   {name}: {outcome.seconds:.1f} s, ticks of the processors: {outcome.ticks}")
    for kind, accesses, status in [("aligned", ALIGNED, 0), ("unaligned", UNALIGNED, SIGBUS)]:
        for instruction, offset in accesses:
            ended = machine.outcome(f"{kind}-{instruction}-{offset}").status
            if ended != status:
                wrong.append(f"an access with {instruction} {offset} bytes off ended with {ended}, and not {status}")
    reasons = suites.count(r"^User:\s*(\d+)$", machine.outcome("alignment").said)
    if reasons != len(UNALIGNED):
        wrong.append(f"programs have accessed what is not aligned {reasons} times, and not {len(UNALIGNED)} times")

    carried = proof.folder / "carried"
    machine.carried(carried)
    for name, signal in [("mistake", SIGABRT), ("subject", SIGILL)]:
        if machine.outcome(name).status != signal:
            wrong.append(f"{name} ended with {machine.outcome(name).status}, and not {signal}")
    wrong += wrongInMistakesCore(folder / MISTAKE, carried, "mistake")
    if wrong:
        proof.fail("on the target:\n" + "\n".join(wrong))
    proof.mustSucceed("the debugger shows something else from the kernel's core",
                      [ROOT / "tests/gdb/gdb_test.sh", "carried", "printers", ROOT, proof.folder / "debugger", folder / SUBJECT,
                       carried / "subject", carried / "subject.core"], proof.folder / "debugger.log", 300)

    proof.say("planted failures")
    for number, fault in [(0, None), *faults]:
        outcome = machine.outcome(f"fault-{number}")
        wrong = suites.outcome("the planted copy", ran["target_refusal_tests"], outcome.status, outcome.said)[2]
        if fault is not None:
            mustNotice(proof, fault.name, wrong and suites.failed(outcome.said))
        elif wrong:
            proof.fail("the planted copy is broken by more than its faults:\n" + "\n".join(wrong))
    for fault, what in [(1, "a test fails"), (2, "a program ends before its last test")]:
        outcome = machine.outcome(f"failing-{fault}")
        mustNotice(proof, what, suites.outcome("", ran["target_tests"], outcome.status, outcome.said)[2])
    mustNotice(proof, "a storm does not end", machine.outcome("endless").status is None
               and wrongInStorm("endless", machine.outcome("endless")))
    mustNotice(proof, "a storm uses one processor alone", machine.outcome("on-one").status == 0
               and wrongInStorm("on-one", machine.outcome("on-one")))
    mustNotice(proof, "a program leaves no core", machine.outcome("without-a-core").status == SIGABRT
               and wrongInMistakesCore(folder / MISTAKE, carried, "without-a-core"))
    noticeKernelsThatDoNotComeUp(proof)

    proof.figure("kernel", version)
    proof.figure("processors", PROCESSORS)
    proof.figure("tests run there", sum(ran.values()))
    proof.figure("tests skipped there", skipped)
    proof.figure("tests of memory that the kernel refuses", ran["target_refusal_tests"])
    proof.figure("rounds of the storm over locked pools", rounds)
    proof.figure("operations of the storm over a shared pool", 8 * operations)
    proof.figure("unaligned accesses that ended their program", len(UNALIGNED))
    proof.figure("cores of the kernel that the debugger shows", 2)
    proof.countFaults()
