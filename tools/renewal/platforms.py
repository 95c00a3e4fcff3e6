"""docs/platforms.md: what ./test and ./prove platforms have run, each in a chapter of its own that says of which
library it is. A chapter stays as it stands if its command has not run."""

import json
import platform
import re
import sys

import stamps
from commands import ROOT, output

PAGE = ROOT / "docs/platforms.md"
SUITES, PLATFORMS = "What `./test` runs", "What `./prove platforms` runs"
OUTCOMES = ROOT / "build/proof/platforms"
OF_LIBRARY = re.compile(r"^Run with version (\S+), libsrc ([0-9a-f]{12})\.$", re.MULTILINE)
HEAD = """# Platforms

All of it runs on one x86-64 machine. This file is written by `tools/renew platforms`.

"""


def version(*command):
    return output(*command, "--version").splitlines()[0]


def ofLibrary(library):
    return f"Run with version {stamps.version()}, libsrc {library}.\n"


def former(title):
    """A chapter as the page has it."""
    found = re.search(rf"^## {re.escape(title)}\n\n(.*?)(?=^## |\Z)", stamps.STAMP.sub("\n", PAGE.read_text()),
                      re.MULTILINE | re.DOTALL)
    if not found:
        sys.exit(f"renew: docs/platforms.md has no chapter '{title}', and nothing has run for it")
    return found[1].rstrip("\n") + "\n"


# --- ./test -----------------------------------------------------------------------------------------------------------


def suites():
    library = ROOT / "build/log/library"
    logs = {preset: ROOT / f"build/log/ctest-{preset}" for preset in ("dev", "asan", "arm", "arm-ubsan")}
    if not library.exists() or not all(log.exists() for log in logs.values()):
        print("   ./test has not run: its chapter stays as it is")
        return former(SUITES)

    def outcome(preset):
        failed = re.search(r"(\d+) tests failed out of \d+$", logs[preset].read_text(), re.MULTILINE)[1]
        tests = output("bash", "-c", '. tools/lib.sh; testsIn "$@"', "renew", preset, str(logs[preset]))
        return f"{failed} of {tests.strip()} failed"

    arm, qemu = version("arm-linux-gnueabihf-g++"), version("qemu-arm")
    gtest = output("dpkg-query", "-W", "-f", "${Version}", "libgtest-dev")
    return f"""| Preset | Target | Compiler | Run by | Tests |
|---|---|---|---|---|
| `dev` | x86-64 Linux | {version('g++')} | the machine | {outcome('dev')} |
| `asan`: AddressSanitizer, LeakSanitizer, UndefinedBehaviorSanitizer | x86-64 Linux | {version('clang++')} | the machine | {outcome('asan')} |
| `arm` | 32-bit ARM Linux, hard-float | {arm} | {qemu} | {outcome('arm')} |
| `arm-ubsan`: UndefinedBehaviorSanitizer | 32-bit ARM Linux, hard-float | {arm} | {qemu} | {outcome('arm-ubsan')} |

| What | Version |
|---|---|
| System | {platform.freedesktop_os_release()["PRETTY_NAME"]} |
| C library | {version('ldd')} |
| GoogleTest | {gtest} |
| CMake | {version('cmake')} |
| Binary interface | {version('abidw')} |

Some tests are not run on ARM:

- the compressor among the examples, since its library is not there,
- the checks of documents and scripts, which belong to the building machine,
- with UndefinedBehaviorSanitizer, the hardened library, the examples, and the check of objects' types (`vptr`): all of
  them are in the presets `asan` and `arm`, or in one of the two.

{ofLibrary(library.read_text().strip())}"""


# --- ./prove platforms ------------------------------------------------------------------------------------------------


def layouts(outcomes):
    """The table of classes that are not laid out alike on all platforms with words of their length."""
    alike = {}
    for outcome in outcomes:
        alike.setdefault((outcome["target"].partition(",")[0], tuple(outcome["layout"])), []).append(outcome["name"])
    classes = [{name: (size, alignment) for kind, name, size, alignment in map(str.split, layout) if kind == "class"}
               for _, layout in alike]
    yield "| Class | " + " | ".join(", ".join(f"`{name}`" for name in names) for names in alike.values()) + " |\n"
    yield "|---|" + "---|" * len(alike) + "\n"
    for name in classes[0]:
        cells = [layout.get(name) for layout in classes]
        bits = {}
        for (word, _), cell in zip(alike, cells):
            bits.setdefault(word, set()).add(cell)
        if any(len(different) > 1 for different in bits.values()):
            yield f"| `{name}` | " + " | ".join(", to ".join(cell) if cell else "not there" for cell in cells) + " |\n"


def names():
    """The platforms, in the order of the part that runs them."""
    part = (ROOT / "proof/platforms/part.py").read_text()
    return re.findall(r'^    "([^"]+)": Platform\(', part, re.MULTILINE)


def platforms():
    outcomes = {path.stem: json.loads(path.read_text()) for path in OUTCOMES.glob("*.json")}
    library = stamps.library()
    outcomes = [outcomes[name] for name in names() if name in outcomes and outcomes[name]["library"] == library]
    if not outcomes:
        print("   ./prove platforms has not run with this library: its chapter stays as it is")
        return former(PLATFORMS)
    missing = ", ".join(f"`{name}`" for name in names() if name not in [one["name"] for one in outcomes])
    without = f"Not run with this library: {missing}.\n\n" if missing else ""
    rows = "".join(
        f"| `{one['name']}` | {one['title']} | {one['target']} | {one['compiler']} | "
        f"{one['emulator'] or 'the machine'} | 0 of {one['tests']} failed, {one['skipped']} skipped |\n"
        for one in outcomes)
    return f"""The suite's programs of tests, over a library of that target, with the layout of the classes asserted while
they are compiled. As many tests must have run as the programs list. Each run was seen to fail where a failure was
planted.

| Name | Target | What it says of itself | Compiler | Run by | Tests |
|---|---|---|---|---|---|
{rows}
{without}Tests are skipped where an emulator does not hand on to the kernel what they watch: advice about huge pages, and limits
of memory. `./prove target` has the latter, on a kernel of ARM. `./test` alone has the tests of documents, scripts, the
debugger, installations and examples.

[Layout](layout.md) has the classes on `armhf` and `x86-64`. These lie otherwise on another platform with words of the
same length: size in bytes, and alignment.

{"".join(layouts(outcomes))}
{ofLibrary(library)}"""


def renew():
    chapters = {SUITES: suites(), PLATFORMS: platforms()}
    text = HEAD + "\n".join(f"## {title}\n\n{chapter}" for title, chapter in chapters.items())
    # A page with a chapter of another library is of that library.
    libraries = [OF_LIBRARY.search(chapter)[2] for chapter in chapters.values()]
    late = [library for library in libraries if library != stamps.library()]
    PAGE.write_text(stamps.stamped(text, late[0] if late else None))
