"""Runs programs of threads over a shared pool under every order of their steps that makes a difference, or under every
one with few preemptions; sharing/explore.cpp says what must hold.

The library is a copy in which atomic words, locks and sleep ask the explorer before they do something that other threads
can see (switchpoints.txt). All accesses happen in one order for all threads: what weaker orders may do is the part
threads' affair, and each weaker access gives its reason in the code."""

from driver import ROOT

HEADER = ROOT / "proof/sharing/sharedworld.h"


def run(proof):
    proof.explore("sharing", HEADER, r"^program ('.*'): wrong: (.*); after$", proof.folder / "figures")
