"""Runs listed programs of several threads under every order of their steps, or under many, beside a reference.

The library is a copy with calls put in where a thread may lose its turn besides its locks: at the accesses that take no
lock on purpose, and where tokens are taken and looked up (switchpoints.txt)."""

import shutil

from driver import BUILD, ROOT, faults, text


def copy(name, planted):
    """A copy of the library with the calls, and with planted faults, in the folder for planted libraries."""
    sound = BUILD / "planted" / f"{name}-sound"
    faults.plant(planted, sound)
    tree = BUILD / "planted" / name
    faults.plant(faults.read(ROOT / "proof/interleavings/switchpoints.txt"), tree, sound)
    header = ROOT / "proof/interleavings/switchpoints.h"
    target = tree / "libsrc/base/switchpoints.h"
    if not target.exists() or target.read_text() != header.read_text():
        shutil.copy(header, target)
    return tree


def run(proof):
    proof.say("planted faults")
    switched = [fault for fault in faults.forPart(proof.part) if fault.isSwitched]
    planted = proof.build("planted-interleavings", ["interleavings"], flags="-O2",
                          library=copy("interleavings", switched)) / "proof/interleavings"
    for number, fault in proof.faults():
        found = proof.find(fault, number, [planted, "--short"],
                           r"^program ('.*'): the library differs from the reference: (.*); after$", 600, 1)
        print(f"   found: {fault.name}: in {found[1]}, {found[2]}")

    program = proof.build("interleavings-program", ["interleavings"], flags="-O2",
                          library=copy("switchpoints", [])) / "proof/interleavings"
    figures, sights = proof.folder / "figures", proof.folder / "sights"
    sights.unlink(missing_ok=True)
    proof.say("the programs")
    form = ["--short"] if proof.isShort else []
    proof.mustSucceed("the programs fail", [program, *form, figures, sights], proof.folder / "log", 7200)
    for line in text(figures).splitlines():
        name, _, value = line.rpartition(": ")
        proof.figure(name, value)
    proof.countFaults()
