#!/usr/bin/env python3
"""plant_faults.py FAULTS LIBSRC COPY: copies the library's sources and plants the faults of a file in the copy.

A program built from the copy has the fault whose number GILVANE_PLANTED_FAULT holds, from 1 on, and none without it.
The file FAULTS holds a list of that name: for each fault its name, the source file, a text that stands there once, and
what is to stand there instead, in which @ is whether the fault is wanted. The names are printed, one a line.
"""
import pathlib
import runpy
import shutil
import sys

FAULT = "plantedFault() == {number}"

SWITCH = """#include <cstdlib>
#include <exception>

namespace Gilvane {

inline int plantedFault() {
    static const int theNumber = [] {
        const char* const text = std::getenv("GILVANE_PLANTED_FAULT");
        return text == nullptr ? 0 : std::atoi(text);
    }();
    return theNumber;
}

} // namespace Gilvane

namespace Gilvane {
"""


def replace(path, old, new):
    text = path.read_text()
    if text.count(old) != 1:
        sys.exit(f"{path}: not there once: {old}")
    path.write_text(text.replace(old, new))


def main():
    faults, source, copy = map(pathlib.Path, sys.argv[1:])
    shutil.rmtree(copy, ignore_errors=True)
    shutil.copytree(source, copy)
    header = copy / "base/gvobject.h"
    header.write_text(header.read_text().replace("namespace Gilvane {\n", SWITCH, 1))
    for number, (name, file, old, new) in enumerate(runpy.run_path(str(faults))["FAULTS"], 1):
        replace(copy / file, old, new.replace("@", FAULT.format(number=number)))
        print(name)


main()
