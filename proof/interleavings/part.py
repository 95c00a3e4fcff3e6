"""Runs listed programs of several threads under every order of their steps, or under many, beside a reference.

The library is a copy with calls put in where a thread may lose its turn besides its locks: at the accesses that take no
lock on purpose, and where tokens are taken and looked up (switchpoints.txt)."""

from driver import ROOT

HEADER = ROOT / "proof/interleavings/switchpoints.h"


def run(proof):
    sights = proof.folder / "sights"
    sights.unlink(missing_ok=True)
    proof.explore("interleavings", HEADER, r"^program ('.*'): the library differs from the reference: (.*); after$",
                  proof.folder / "figures", sights)
