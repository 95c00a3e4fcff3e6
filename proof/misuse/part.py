"""The suite's tests of wrong use, label misuse: faults are planted in what wrong use comes to, and each must fail one of
them. Where no fault is switched on they must pass, all that tests/misuse.txt names."""

import suites
from driver import ROOT


def run(proof):
    names = [line for line in (ROOT / "tests/misuse.txt").read_text().splitlines() if line and not line.startswith("#")]
    chosen = "--gtest_filter=" + ":".join(names)

    proof.say("planted faults")
    planted = proof.build("planted-misuse", suites.PROGRAMS, library=proof.plantAll())
    command = ["bash", "-c", " && ".join(f"{planted}/tests/{program} '{chosen}'" for program in suites.PROGRAMS)]
    tests = suites.passedInAll(proof.withoutFault(command))
    if tests != len(names):
        proof.fail(f"tests/misuse.txt names {len(names)} tests, and {tests} were run")
    for number, fault in proof.faults():
        proof.find(fault, number, command, suites.FAILED, status=1)
    proof.figure("tests of wrong use", tests)
    proof.countFaults()
