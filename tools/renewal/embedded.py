"""The figures of the guide's page on embedded use, benchmarks/embedded/*.txt: code and data, stack, instructions, and
bytes for each block, on 32-bit and 64-bit ARM. All are the same each time, so that they can be compared."""

import collections
import os
import pathlib
import re

import stamps
from commands import ROOT, Failed, needPackages, output

SOURCES = ROOT / "benchmarks/embedded"
BUILD = ROOT / "build/embedded"
TARGETS = {"armhf": ("arm-linux-gnueabihf", "qemu-arm"), "aarch64": ("aarch64-linux-gnu", "qemu-aarch64")}
LEVELS = ["-Os", "-O2"]
WAYS = [(target, level) for target in TARGETS for level in LEVELS]
FLAGS = ["-std=c++17", "-DNDEBUG", "-ffunction-sections", "-fdata-sections", "-fcallgraph-info=su",
         f"-I{ROOT}/include"]
MEASURED = ["nothing", "pool", "shared_pool", "everything", "operations", "paths", "bytes_per_block"]


# --- to build ---------------------------------------------------------------------------------------------------------


def folderOf(way):
    return BUILD / "".join(way)


def build():
    """Compiles the library and the programs in each way, with as many compilers at a time as there are processors."""
    rules = ["rule compile\n  command = $compiler $flags -MMD -MF $out.d -c $in -o $out\n  depfile = $out.d\n",
             "rule link\n  command = $compiler $in -pthread $flags -o $out\n"]
    library = sorted(path for path in ROOT.glob("libsrc/*/*.cpp"))
    for way in WAYS:
        folder, compiler = folderOf(way), f"{TARGETS[way[0]][0]}-g++"
        folder.mkdir(parents=True, exist_ok=True)
        objects = {}
        for source in [*library, *(SOURCES / f"{name}.cpp" for name in MEASURED)]:
            objects[source.stem] = folder / f"{source.stem}.o"
            rules.append(f"build {objects[source.stem]}: compile {source}\n  compiler = {compiler}\n"
                         f"  flags = {' '.join(FLAGS)} {way[1]}\n")
        for name in MEASURED:
            if name != "operations":
                own = [name, "operations"] if name == "paths" else [name]
                # The paths are counted in one file, which holds the C library, too.
                flags = "-static" if name == "paths" else "-Wl,--gc-sections"
                parts = " ".join(str(objects[part]) for part in [*own, *(source.stem for source in library)])
                rules.append(f"build {folder / name}: link {parts}\n  compiler = {compiler}\n  flags = {flags}\n")
    (BUILD / "build.ninja").write_text("".join(rules))
    output("ninja", "-C", BUILD, "-j", os.cpu_count())


def emulated(target, *program):
    triplet, emulator = TARGETS[target]
    return [emulator, "-L", f"/usr/{triplet}", *program]


def compilers():
    return ", ".join(output(f"{triplet}-g++", "--version").splitlines()[0] for triplet, _ in TARGETS.values())


def table(title, head, rows, widths):
    """Lines of text: a title above the names of the rows, and columns that end where their heads do."""
    first = max(len(title), *(len(name) for name, _ in rows)) + 2
    for name, cells in [(title, head), *rows]:
        columns = "".join(str(cell).rjust(width) for cell, width in zip(cells, widths))
        yield (name.ljust(first) + columns).rstrip() + "\n"


# --- code and data ----------------------------------------------------------------------------------------------------

KINDS = {
    "code": [".text"],
    "constants": [".rodata"],
    "unwinding": [".eh_frame", ".eh_frame_hdr", ".gcc_except_table", ".ARM.exidx", ".ARM.extab"],
    "data": [".data", ".data.rel.ro", ".init_array", ".fini_array"],
    "zeroed": [".bss"],
}


def sections(way, program):
    sizes = {}
    for line in output(f"{TARGETS[way[0]][0]}-size", "-A", folderOf(way) / program).splitlines():
        words = line.split()
        if len(words) == 3 and words[0].startswith("."):
            sizes[words[0]] = int(words[1])
    return [sum(sizes.get(section, 0) for section in names) for names in KINDS.values()]


def sizes():
    rows = []
    for program, title in {"pool": "a pool", "shared_pool": "a shared pool", "everything": "everything"}.items():
        for way in WAYS:
            output(*emulated(way[0], folderOf(way) / program)) # it must work
            cells = [with_ - without for with_, without in zip(sections(way, program), sections(way, "nothing"))]
            if cells[0] <= 0:
                raise Failed(f"{program} has no code {way}")
            rows.append((f"{title}, {' '.join(way)}", cells))
    yield from table("bytes of a program with", KINDS, rows, [10, 12, 12, 8, 9])


# --- stack ------------------------------------------------------------------------------------------------------------

# What the call graph does not show the stack of, by a letter: what calls go through a pointer, by the text of their
# line, and functions of others, by their names.
THROUGH_POINTERS = {
    "L": r"->(lock|unlock)\(\)",
    "A": r"GetAllocator\(\)\(",
    "D": r"rawBlockDeallocator\(",
    "V": r"\bdelete\b|->~|^}$|deleteData\(\)|deepCopy\(\)", # where an object ends, its members do
    "C": r"theTimeLeft\(",
}
OF_OTHERS = {
    "X": r"__cxa_|_Unwind_|std::__throw_|std::terminate",
    "P": r"pthread_mutex(attr)?_",
    "K": r"\beventfd|syscall|\bclose\(|madvise",
    "T": r"steady_clock::now",
    "S": r"basic_ostream|basic_ios|ios_base|ostringstream",
    "M": r"mem(cpy|move|set|cmp)|strlen|malloc|free\(|__aeabi_|__aarch64_|uidiv",
}
LEGEND = {
    "L": "lock and unlock of a mutex handle", "A": "the allocation function", "D": "the deallocation function",
    "V": "a virtual destructor, or a virtual operation of a smart pointer", "C": "the caller's clock",
    "X": "exceptions: thrown, caught or passed on", "P": "POSIX mutexes", "K": "the system", "T": "the steady clock",
    "S": "streams", "M": "malloc, and functions of memory and arithmetic", "R": "a sort, which calls itself",
}
# What is called through pointers and is the library's own.
POINTED_TO = r"PosixMutexHandle::(try)?[lL]ock\(|PosixMutexHandle::unlock\(|ByDefault\(|^virtual Gilvane::\S+::~"


def letterOf(patterns, text):
    found = [letter for letter, pattern in patterns.items() if re.search(pattern, text)]
    if len(found) != 1:
        raise Failed(f"a call that has no name, or several ({found}): {text}")
    return found[0]


class CallGraph:
    """The functions of one way of building, with their frames and what they call, as the compiler says."""

    def __init__(self, way):
        self.frames, self.names, self.calls, self.known = {}, {}, collections.defaultdict(set), {}
        for path in sorted(folderOf(way).glob("*.ci")):
            if path.stem in MEASURED and path.stem != "operations":
                continue
            for line in path.read_text().splitlines():
                node = re.match(r'node: \{ title: "(.*?)" label: "(.*?)"', line)
                edge = re.match(r'edge: \{ sourcename: "(.*?)" targetname: "(.*?)" label: "(.*?)" \}', line)
                if node:
                    self.names.setdefault(node[1], node[2].partition("\\n")[0])
                    frame = re.search(r"\\n(\d+) bytes \((.*?)\)", node[2])
                    if frame:
                        if frame[2] != "static":
                            raise Failed(f"a frame whose length is not known: {node[2]}")
                        self.frames[node[1]] = int(frame[1])
                        self.names[node[1]] = node[2].partition("\\n")[0]
                elif edge:
                    self.calls[edge[1]].add((edge[2], edge[3]))

    def deepest(self, function, callers=()):
        """The most stack that a function takes with all it calls, and the letters of what is not in it."""
        if function not in self.frames: # constructors and destructors of complete objects are those of bases
            function = re.sub(r"([CD])1(?=[EI])", r"\g<1>2", function)
        if function not in self.frames:
            return 0, {letterOf(OF_OTHERS, f"{function} {self.names.get(function)}")}
        if function in callers:
            return 0, {"R"}
        if function not in self.known:
            most, letters = 0, set()
            for called, where in self.calls[function]:
                if called == "__indirect_call":
                    file, line, _ = where.rsplit(":", 2)
                    text = pathlib.Path(file).read_text().splitlines()[int(line) - 1]
                    depth, more = 0, {letterOf(THROUGH_POINTERS, text)}
                else:
                    depth, more = self.deepest(called, (*callers, function))
                most, letters = max(most, depth), letters | more
            self.known[function] = self.frames[function] + most, letters
        return self.known[function]


def stack():
    graphs = [CallGraph(way) for way in WAYS]
    source = (SOURCES / "operations.cpp").read_text()
    names = re.findall(r"^OPERATION\([^,]+, (\w+__\w*),", source, re.MULTILINE)
    if len(names) < 40:
        raise Failed(f"{len(names)} operations")
    rows = []
    for name in names:
        found = [graph.deepest(name) for graph in graphs]
        letters = "".join(letter for letter in LEGEND if any(letter in more for _, more in found))
        title = name.replace("__", "::").removesuffix("::").replace("::destructor", "::~")
        title = title.replace("::equals", "::operator==").replace("::copy", " copied").replace("::assign", " assigned")
        rows.append((title, [*(depth for depth, _ in found), "  " + letters.ljust(len(LEGEND))]))
    pointed = sorted({name for graph in graphs for function, name in graph.names.items()
                      if function in graph.frames and re.search(POINTED_TO, name)})
    for name in pointed:
        found = [max((graph.deepest(function) for function in graph.frames if graph.names[function] == name),
                     key=lambda one: one[0], default=(0, set())) for graph in graphs]
        letters = "".join(letter for letter in LEGEND if any(letter in more for _, more in found))
        title = re.sub(r"^(virtual )?(void\*? |bool )?|Gilvane::(\{anonymous\}::)?|\(.*", "", name)
        rows.append((title, [*(depth for depth, _ in found), "  " + letters.ljust(len(LEGEND))]))
    head = [*(" ".join(way) for way in WAYS), "  beside it".ljust(2 + len(LEGEND))]
    yield from table("bytes of stack, at most", head, rows, [11, 11, 13, 13, 2 + len(LEGEND)])
    yield "\n"
    for letter, what in LEGEND.items():
        yield f"{letter}  {what}\n"


# --- instructions -----------------------------------------------------------------------------------------------------


def countedCalls(way):
    """The instructions of each call of an operation, in order: what the emulator ran from its beginning until it was
    back in its caller, on the main thread."""
    program = folderOf(way) / "paths"
    trace = folderOf(way) / "trace"
    # On one processor and without haste, a thread that is woken goes on when the call is over.
    alone = ["chrt", "--batch", "0", "taskset", "1"]
    said = output(*alone, *emulated(way[0], "-singlestep", "-d", "exec,nochain", "-D", trace, program), timeout=300)
    counts, caller, before = [], None, None
    with open(trace) as lines:
        for line in lines:
            if not line.startswith("Trace 0:"):
                continue
            function = line[line.index("]") + 2:].strip()
            if caller is None:
                if "__" in function and re.match(r"GV\w+__\w+$", function):
                    caller = before
                    counts.append(1)
            elif function == caller:
                caller = None
            else:
                counts[-1] += 1
            before = function
    trace.unlink()
    calls = [tuple(line.split("|")) for line in said.splitlines()]
    if len(calls) != len(counts) or not calls:
        raise Failed(f"{len(calls)} calls say what they are, and {len(counts)} were counted {way}")
    return calls, counts


def instructions():
    seen = {}
    for way in WAYS:
        for call, count in zip(*countedCalls(way)):
            seen.setdefault(call, {}).setdefault(way, collections.Counter())[count] += 1
    rows = []
    for pool in dict.fromkeys(call[0] for call in seen):
        for operation in ("borrow", "address", "return"):
            for call in sorted(call for call in seen if call[:2] == (pool, operation)):
                # Usual is what most calls take.
                cells = [seen[call][way].most_common(1)[0][0] for way in WAYS]
                rows.append((f"{pool}: {operation}" + (f", {call[2]}" if call[2] else ""), cells))
    yield from table("instructions", [" ".join(way) for way in WAYS], rows, [11, 11, 13, 13])


# --- bytes for each block ---------------------------------------------------------------------------------------------


def blocks():
    for target in TARGETS:
        figures, numbers = {}, []
        for line in output(*emulated(target, folderOf((target, "-O2")) / "bytes_per_block")).splitlines():
            size, number, *bytes_ = map(int, line.split())
            numbers = numbers if number in numbers else [*numbers, number]
            for pool, held in zip(("array", "pool", "shared pool"), bytes_):
                figures.setdefault((pool, size), []).append(f"{held / number:.1f}")
        rows = [(f"{pool}, blocks of {size} bytes", cells) for (pool, size), cells in figures.items()]
        rows.sort(key=lambda row: row[0].partition(",")[0])
        yield from table(f"{target}: bytes for each block", [f"{number} blocks" for number in numbers], rows, [14] * 5)
        if target != list(TARGETS)[-1]:
            yield "\n"


# --- the tables -------------------------------------------------------------------------------------------------------

TABLES = {"size": sizes, "stack": stack, "instructions": instructions, "blocks": blocks}


def measured():
    """Each table's text, without a stamp."""
    needPackages("embedded")
    build()
    about = compilers() + "\n"
    return {name: "".join(lines()) + "\n" + about for name, lines in TABLES.items()}


def renew():
    for name, text in measured().items():
        (SOURCES / f"{name}.txt").write_text(stamps.stamped(text))


def shown(name):
    """A table as the guide has it."""
    return (SOURCES / f"{name}.txt").read_text()


def isOutdated(shownText, measuredText):
    """Whether a table, with its stamp, has other figures."""
    return stamps.STAMP.sub("", shownText).rstrip("\n") != measuredText.rstrip("\n")
