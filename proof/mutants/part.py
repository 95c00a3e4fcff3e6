"""Breaks the library in one place at a time and requires the suite to notice; mutants/prove says how."""

from driver import ROOT, text


def run(proof):
    form = ["--short"] if proof.isShort else []
    proof.mustSucceed("mutants survive, or the list of those that may is wrong",
                      [ROOT / "proof/mutants/prove", *form], proof.folder / "log", 4 * 3600)
    for line in text(proof.folder / "figures").splitlines():
        name, _, value = line.rpartition(": ")
        if name != "findings":
            proof.figure(name, value)
