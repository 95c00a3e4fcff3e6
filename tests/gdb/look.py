"""Runs in GDB: repeats the commands of a transcript and writes what they say now, and the dumps of all pools.

GDB_TEST_TRANSCRIPT   the transcript: lines "(gdb) COMMAND", each with what it shall say
GDB_TEST_WORK_FOLDER  where the program left its names for addresses, and where this leaves its files
GDB_TEST_PHASE        what the files' names begin with
"""

import os
import re

import gdb

folder = os.environ["GDB_TEST_WORK_FOLDER"]
phase = os.path.join(folder, os.environ["GDB_TEST_PHASE"])

# Dump file of the program -> an expression that gives the pool
POOLS = {
    "emptyPool": ["emptyPool"],
    "pool": ["pool", "poolReference", "poolPointer", "*poolPointer", "borrowed"],
    "largePool": ["largePool", "&largePool"],
    "threadPool": ["threadPool", "&threadPool"],
    "shared": ["shared", "sharedAgain", "&shared"],
}


def answer(command):
    # GDB warns where it looks for the class that a pointer of the hardened build points to, and standard error comes in
    # here, too.
    try:
        return re.sub(r"^warning: RTTI symbol not found.*\n", "", gdb.execute(command, to_string=True), flags=re.MULTILINE)
    except gdb.error as problem:
        return "%s\n" % problem


def write(name, text):
    with open(name, "w", encoding="utf-8") as file:
        file.write(text)


gdb.execute("set pagination off")
gdb.execute("set print pretty on")
# The name of what a pointer to data points to is there or not, as the program is linked.
gdb.execute("set print symbol off")
gdb.execute("frame function main", to_string=True)
with open(os.path.join(folder, "names"), encoding="utf-8") as file:
    names = dict(line.rstrip("\n").split(" ", 1) for line in file)
with open(os.environ["GDB_TEST_TRANSCRIPT"], encoding="utf-8") as file:
    commands = [line[len("(gdb) "):].rstrip("\n") for line in file if line.startswith("(gdb) ")]

transcript = ""
for command in commands:
    said = re.sub(r"^\$\d+ = ", "", answer(command))
    said = re.sub(r"\b0x[0-9a-f]+\b", lambda found: names.get(found[0], found[0]), said)
    said = re.sub(r"\bthread (\d+)\b", lambda found: names.get("thread:" + found[1], found[0]), said)
    said = re.sub(r" at \S*/(\w+\.cpp):\d+", r" at \1:LINE", said)
    transcript += "(gdb) %s\n%s\n" % (command, said.rstrip("\n") + "\n")
write(phase + ".transcript", transcript)

for pool, expressions in POOLS.items():
    for number, expression in enumerate(expressions):
        write("%s.%s.%d.dump" % (phase, pool, number), answer("info gvpool " + expression))
gdb.execute("pipe info gvpool pool | cat >%s.pool.pipe.dump" % phase)
