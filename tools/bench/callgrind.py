"""Has valgrind's callgrind count the instructions of what a program marks with benchmarks/callgrind.h."""
import os
import pathlib
import re
import subprocess
import tempfile


def count(program, **environment):
    """What the program writes, and instructions per operation by the operations' names."""
    with tempfile.TemporaryDirectory() as folder:
        run = subprocess.run(
            ["valgrind", "-q", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={folder}/out", program],
            env={**os.environ, **environment}, check=True, capture_output=True, text=True)
        totals = {}
        for part in pathlib.Path(folder).iterdir():
            text = part.read_text()
            label = re.search(r"^desc: Trigger: Client Request: (\w+) (\d+)$", text, re.MULTILINE)
            if label:
                total = re.search(r"^totals: (\d+)$", text, re.MULTILINE)
                totals.setdefault(label.group(1), {})[int(label.group(2))] = int(total.group(1))
    counts = {}
    for name, by_number in sorted(totals.items()):
        few, many = sorted(by_number)
        counts[name] = (by_number[many] - by_number[few]) / (many - few)
    return run.stdout, counts
