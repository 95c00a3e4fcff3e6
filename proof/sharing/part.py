"""Runs programs of threads over a shared pool under every order of their steps that makes a difference, or under every
one with few preemptions; sharing/explore.cpp says what must hold.

The library is a copy in which atomic words, locks and sleep ask the explorer before they do something that other threads
can see (switchpoints.txt). All accesses happen in one order for all threads: what weaker orders may do is the part
threads' affair, and each weaker access gives its reason in the code."""

from driver import ROOT, faults, text

HEADER = ROOT / "proof/sharing/sharedworld.h"


def run(proof):
    proof.say("planted faults")
    switched = [fault for fault in faults.forPart(proof.part) if fault.isSwitched]
    planted = proof.build("planted-sharing", ["sharing"], flags="-O2",
                          library=proof.plantSwitchPoints(switched, "sharing", HEADER)) / "proof/sharing"
    for number, fault in proof.faults():
        found = proof.find(fault, number, [planted, "--short"], r"^program ('.*'): wrong: (.*); after$", 600, 1)
        print(f"   found: {fault.name}: in {found[1]}, {found[2]}")

    program = proof.build("sharing-program", ["sharing"], flags="-O2",
                          library=proof.plantSwitchPoints([], "sharing-points", HEADER)) / "proof/sharing"
    figures = proof.folder / "figures"
    proof.say("the programs")
    form = ["--short"] if proof.isShort else []
    proof.mustSucceed("a shared pool breaks its rules", [program, *form, figures], proof.folder / "log", 7200)
    for line in text(figures).splitlines():
        name, _, value = line.rpartition(": ")
        proof.figure(name, value)
    proof.countFaults()
