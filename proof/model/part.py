"""The library beside a plain model of it: every sequence of operations up to a length, programs that a fuzzer finds
under AddressSanitizer and UndefinedBehaviorSanitizer, and a corpus of programs, here and on 32-bit ARM."""

import os
import re
import shutil
import subprocess

from driver import ARM, ROOT, SANITIZED, emulator, text

CORPUS = ROOT / "proof/model/corpus"
LISTS = ROOT / "proof/model/fuzz.lists"
FUZZING = (SANITIZED.replace("-O1", "-O2").replace("=address", "=fuzzer-no-link,address") +
           f" -fno-sanitize-coverage=trace-cmp -fsanitize-coverage-allowlist={LISTS} -fsanitize-ignorelist={LISTS}")
# Executions of the fuzzer in a second of its processor's time, which other programs on the machine hardly change.
LEAST_RATE = 3_000
DIFFERENCE = r"the library differs from the model|ERROR: AddressSanitizer|: runtime error: "
# The driver's own memory needs no watching after its release; the library's is watched by the driver.
OPTIONS = {"ASAN_OPTIONS": "quarantine_size_mb=1:abort_on_error=1"}


def plantedFaults(proof, corpus):
    proof.say("planted faults")
    fronts = proof.build("planted-model", ["enumerate", "replay"], library=proof.plantAll()) / "proof"
    command = f'"{fronts}/enumerate" short && "{fronts}/replay" "$@"'
    for number, fault in proof.faults():
        proof.find(fault, number, ["bash", "-c", command, "fronts", *corpus], DIFFERENCE)
    arm = proof.build("planted-model-arm", ["replay"], ARM,
                      library=proof.plantAll("model on ARM"))
    for number, fault in proof.faults("model on ARM"):
        proof.find(fault, number, [*emulator(ARM), arm / "proof/replay", *corpus], DIFFERENCE)
    fuzzer = proof.build("planted-model-fuzzer", ["fuzz"], "clang++", FUZZING, proof.plantAll("model's fuzzer"))
    for number, fault in proof.faults("model's fuzzer"):
        proof.find(fault, number, [fuzzer / "proof/fuzz", "-runs=0", f"-artifact_prefix={proof.folder}/", CORPUS],
                   DIFFERENCE, environment=OPTIONS)


def run(proof):
    corpus = sorted(CORPUS.iterdir())
    plantedFaults(proof, corpus)

    native = proof.build("plain", ["enumerate", "replay"]) / "proof"
    arm = proof.build("arm", ["replay"], ARM) / "proof"
    fuzzing = proof.build("fuzzing", ["fuzz"], "clang++", FUZZING) / "proof"

    proof.say(f"the corpus of {len(corpus)} programs, here and on 32-bit ARM")
    here, there = proof.folder / "replayed", proof.folder / "replayed-arm"
    proof.mustSucceed("the library differs from the model", [native / "replay", *corpus], here, 300)
    proof.mustSucceed("the library differs from the model", [*emulator(ARM), arm / "replay", *corpus], there, 600)
    if text(here) != text(there):
        proof.fail("ARM made other operations than this machine")

    seconds = 5 if proof.isShort else 600
    proof.say(f"programs from the fuzzer, for {seconds} s, beside the enumeration")
    found = proof.folder / "found"
    shutil.rmtree(found, ignore_errors=True)
    found.mkdir()
    log, enumerated = proof.folder / "fuzz.log", proof.folder / "enumerated"
    with open(log, "w") as output:
        fuzzer = subprocess.Popen(
            [fuzzing / "fuzz", f"-max_total_time={seconds}", "-max_len=152", "-entropic=0", "-detect_leaks=0",
             "-print_final_stats=1", f"-artifact_prefix={proof.folder}/", found, CORPUS], stdin=subprocess.DEVNULL, stdout=output,
            stderr=subprocess.STDOUT, env={**os.environ, **OPTIONS})
    try:
        proof.mustSucceed("the library differs from the model", [native / "enumerate", "short" if proof.isShort else "long"],
                          enumerated, 4 * 3600)
        _, status, usage = os.wait4(fuzzer.pid, 0)
        fuzzer.returncode = os.waitstatus_to_exitcode(status)
        if fuzzer.returncode != 0:
            print("\n".join(line for line in text(log).splitlines()[-60:] if not line.startswith("#")))
            proof.fail(f"the fuzzer ended with status {fuzzer.returncode}; the program that did it is in {proof.folder}")
    finally:
        if fuzzer.poll() is None:
            fuzzer.kill()
            fuzzer.wait()

    executions = int(re.search(r"^stat::number_of_executed_units: *(\d+)", text(log), re.MULTILINE)[1])
    if executions <= len(corpus):
        proof.fail("the fuzzer did nothing")
    rate = round(executions / (usage.ru_utime + usage.ru_stime))
    if rate < LEAST_RATE:
        proof.fail(f"the fuzzer ran {rate} programs in a second of its processor's time, and must run {LEAST_RATE}")
    proof.figure("sequences enumerated", re.search(r"^sequences: (\d+)", text(enumerated), re.MULTILINE)[1])
    proof.figure("fuzzer executions", executions)
    proof.figure("fuzzer executions in a second of processor time", rate)
    for figure in ("operations", "median program", "deepest program"):
        proof.figure(f"fuzzer, {figure}", re.search(rf"^{figure}: (\d+)", text(log), re.MULTILINE)[1])
    proof.figure("corpus programs, here and on ARM", len(corpus))
    proof.figure("operations in the corpus", re.search(r" (\d+) operations made", text(here))[1])
    proof.countFaults()
