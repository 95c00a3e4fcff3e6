"""Refuses every allocation of every operation in turn and compares all that survives with a reference. The long form
does it under sanitizers and on 32-bit ARM, too."""

import re

from driver import ARM, SANITIZED, emulator, text

DIFFERENCE = r"^difference: "


def visit(proof, name, command):
    proof.say(f"every allocation fails once ({name})")
    log = proof.folder / f"{name}.log"
    proof.mustSucceed("something else survives a refused allocation than must", command, log, 1800)
    return re.findall(r"^((?:states|operations|failure points).*): (\d+)$", text(log), re.MULTILINE)


def run(proof):
    figures = visit(proof, "plain", [proof.build("plain", ["failures"]) / "proof/failures"])
    accepted = text(proof.folder / "plain.log").partition("accepted losses")
    print("accepted losses" + accepted[2].partition("\nstates")[0])

    proof.say("planted faults")
    program = proof.build("planted-failures", ["failures"], library=proof.plantAll()) / "proof/failures"
    for number, fault in proof.faults():
        proof.find(fault, number, [program], DIFFERENCE, status=1)

    points = 0
    if not proof.isShort:
        sanitized = proof.build("sanitized", ["failures"], "clang++", SANITIZED)
        visit(proof, "sanitized", [sanitized / "proof/failures"])
        arm = proof.build("arm", ["failures"], ARM)
        points = sum(int(number) for name, number in visit(proof, "arm", [*emulator(ARM), arm / "proof/failures"])
                     if name.startswith("failure points"))

    for name, number in figures:
        proof.figure(name, number)
    if points:
        proof.figure("failure points on 32-bit ARM", points)
    proof.countFaults()
