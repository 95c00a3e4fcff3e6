"""The catalogue of planted faults, and copies of the library that have them.

catalogue.txt says of each fault what it is called, which part of the proof must find it, and what it changes:

    fault: the token that came back first goes first
    found by: model; valgrind
    seen as: a regular expression
    file: libsrc/utilities/gvmemorypool.h
    - a text that stands in the file once,
    - over as many lines as it takes
    + what stands there instead

A fault may have several such changes, in several files. Some parts know by themselves what a program says that differs;
others look for all that stands under "seen as" in the order of the catalogue. Where @ stands in what is put in, the program decides whether
it has the fault: a copy may then have many faults, and a program built from it has the one whose number
GILVANE_PLANTED_FAULT holds. A fault without @ has a copy of its own.

Faults of one copy do not overlap. A text that the library does not hold, or holds twice, is an error; comments do not
count. So is a text with a comment in it, since a comment may change without the code.
"""

import pathlib
import re
import shutil

ROOT = pathlib.Path(__file__).resolve().parents[2]
SWITCH = "Gilvane::plantedFault() == {number}"
SWITCH_FILE = "libsrc/base/plantedfault.h"
SWITCH_TEXT = """#ifndef GILVANE_PLANTEDFAULT_H
#define GILVANE_PLANTEDFAULT_H

#include <cstdlib>

namespace Gilvane {

inline int plantedFault() {
    static const int theNumber = [] {
        const char* const text = std::getenv("GILVANE_PLANTED_FAULT");
        return text == nullptr ? 0 : std::atoi(text);
    }();
    return theNumber;
}

} // namespace Gilvane

#endif
"""


class Wrong(Exception):
    """What is wrong with the catalogue."""


class Fault:
    """A fault: its name, the parts that must find it, what it is seen as, and its changes."""

    def __init__(self, name):
        self.name, self.parts, self.patterns, self.changes = name, [], [], []

    @property
    def isSwitched(self):
        return any("@" in new for _, _, new in self.changes)


def read(path):
    """The faults of a file of this format, in their order."""
    faults, file = [], None
    old, new = [], []

    def finish():
        if old or new:
            if not old or file is None:
                raise Wrong(f"{faults[-1].name}: a change without a file, or without a text to put it in for")
            faults[-1].changes.append((file, "\n".join(old), "\n".join(new)))
            old.clear()
            new.clear()

    for line in path.read_text().splitlines():
        if line.startswith("- "):
            if new:
                finish()
            old.append(line[2:])
        elif line.startswith("+ ") or line == "+":
            new.append(line[2:])
        elif line.startswith("fault: "):
            finish()
            faults.append(Fault(line.removeprefix("fault: ")))
            file = None
        elif line.startswith("found by: "):
            faults[-1].parts += line.removeprefix("found by: ").split("; ")
        elif line.startswith("seen as: "):
            faults[-1].patterns.append(line.removeprefix("seen as: "))
        elif line.startswith("file: "):
            finish()
            file = line.removeprefix("file: ")
        elif line and not line.startswith("#"):
            raise Wrong(f"not a line of a fault: {line}")
    finish()
    names = [fault.name for fault in faults]
    for fault in faults:
        if not fault.changes or names.count(fault.name) != 1:
            raise Wrong(f"{fault.name}: changes nothing, or is there twice")
    return faults


def forPart(part):
    """The faults that a part must find."""
    catalogue = read(ROOT / "proof/faults/catalogue.txt")
    for fault in catalogue:
        unknown = [name for name in fault.parts if not (ROOT / "proof" / re.match(r"\w+", name)[0] / "part.py").exists()]
        if unknown or not fault.parts:
            raise Wrong(f"{fault.name}: found by no part that there is: {', '.join(unknown)}")
    return [fault for fault in catalogue if part in fault.parts]


def place(path, text, old, name):
    """Where the one place of a text is that is no comment."""
    if "//" in re.sub(r'"(?:[^"\\]|\\.)*"', "", old):
        raise Wrong(f"{name}: the text to change in {path} has a comment, name its code alone: {old}")
    places = [match.start() for match in re.finditer(re.escape(old), text)
              if "//" not in text[text.rfind("\n", 0, match.start()) + 1:match.start()]]
    if len(places) != 1:
        raise Wrong(f"{name}: {len(places)} places instead of one of {path} hold: {old}")
    return places[0]


def plant(faults, tree, source=ROOT):
    """Makes `tree` a copy of the library in `source` with these faults."""
    edits, written = {}, {}
    for number, fault in enumerate(faults, 1):
        for file, old, new in fault.changes:
            begin = place(file, (source / file).read_text(), old, fault.name)
            edits.setdefault(file, []).append((begin, begin + len(old), fault, new.replace("@", SWITCH.format(number=number))))
    for path in sorted(source.glob("libsrc/**/*.*")):
        file = str(path.relative_to(source))
        written[file] = path.read_text()
        if file not in edits:
            continue
        end, text = len(written[file]) + 1, written[file]
        for begin, last, fault, new in sorted(edits[file], key=lambda edit: edit[:2], reverse=True):
            if last > end:
                raise Wrong(f"{fault.name}: its place in {file} is another fault's too")
            text, end = text[:begin] + new + text[last:], begin
        if any(fault.isSwitched for _, _, fault, _ in edits[file]):
            guard = re.search(r"^#define \w+_H$|^#include <.*>$", text, re.MULTILINE)
            if guard is None:
                raise Wrong(f"{file}: no place for the switch")
            text = text[:guard.end()] + "\n#include <gilvane/base/plantedfault.h>" + text[guard.end():]
        written[file] = text
    written[SWITCH_FILE] = SWITCH_TEXT
    write(written, tree)


def write(written, tree):
    """Makes `tree` a copy of the library with these files; writes what has changed alone, so that no more is compiled
    again."""
    for file, text in written.items():
        path = tree / file
        path.parent.mkdir(parents=True, exist_ok=True)
        if not path.exists() or path.read_text() != text:
            path.write_text(text)
    for path in list(tree.glob("libsrc/**/*.*")):
        if str(path.relative_to(tree)) not in written:
            path.unlink()
    (tree / "include").mkdir(exist_ok=True)
    link = tree / "include/gilvane"
    if not link.is_symlink():
        shutil.rmtree(link, ignore_errors=True)
        link.symlink_to("../libsrc")
