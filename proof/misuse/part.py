"""The suite's tests of wrong use, label misuse: faults are planted in what wrong use comes to, and each must fail one of
them. That the tests pass is the suite's own affair."""

import suites
from driver import ROOT, text


def run(proof):
    names = [line for line in (ROOT / "tests/misuse.txt").read_text().splitlines() if line and not line.startswith("#")]
    chosen = "--gtest_filter=" + ":".join(names)

    sound = proof.build("plain", suites.PROGRAMS)
    tests = 0
    for program in suites.PROGRAMS:
        log = proof.folder / program
        proof.mustSucceed("a wrong use has another outcome than it must", [sound / "tests" / program, chosen], log, 300,
                          showing="Failure|FAILED")
        tests += suites.passed(text(log))
    if tests != len(names):
        proof.fail(f"tests/misuse.txt names {len(names)} tests, and {tests} were run")
    proof.figure("tests of wrong use", tests)

    proof.say("planted faults")
    planted = proof.build("planted-misuse", suites.PROGRAMS, library=proof.plantAll())
    command = " ".join(f"{planted}/tests/{program} '{chosen}' && " for program in suites.PROGRAMS) + "true"
    for number, fault in proof.faults():
        proof.find(fault, number, ["bash", "-c", command], suites.FAILED, status=1)
    proof.countFaults()
