#!/usr/bin/env bash
# The debugger shows what a program has in memory, and a pool's dump byte for byte as the program writes it: in the
# process and in its core.
#
#   gdb_test.sh native   TRANSCRIPT SOURCE_DIR WORK_FOLDER PROGRAM
#   gdb_test.sh emulated TRANSCRIPT SOURCE_DIR WORK_FOLDER PROGRAM LIBRARY_FOLDER SYSROOT EMULATOR...
#   gdb_test.sh carried  TRANSCRIPT SOURCE_DIR WORK_FOLDER PROGRAM FOLDER CORE
#
# TRANSCRIPT names what the debugger is asked, and what it shall say: tests/gdb/TRANSCRIPT.transcript.
# Natively, the debugger runs the program and writes the core. The emulator's core is its own, of the program that a
# fault ended; the debugger finds the program's libraries in LIBRARY_FOLDER and below SYSROOT. What is carried was
# written in another machine: CORE by its kernel, and by the program, which has its libraries in it, all else in FOLDER.
set -euo pipefail
kind=$1 transcript=$2 source=$3 work=$4 program=$5
shift 5
. "$source/tests/support/script.sh"
script=$source/tools/gdb/gilvane_gdb.py
export GDB_TEST_TRANSCRIPT=$source/tests/gdb/$transcript.transcript GDB_TEST_WORK_FOLDER=$work GDB_TEST_PHASE

# check PHASE: compares what the debugger said with the transcript, and its dumps with the program's.
check() {
    local log=$work/$1.log dump actual
    [[ -f $work/$1.pool.pipe.dump ]] || fail "the debugger did not look around ($1); it said:" "$(tail -n 20 "$log")"
    ! grep -n 'Traceback\|Python Exception' "$log" "$work/$1.transcript" || fail "a Python error ($1)"
    diff "$GDB_TEST_TRANSCRIPT" "$work/$1.transcript" >"$work/difference" ||
        fail "the debugger says something else ($1):" "$(head -n 40 "$work/difference")"
    for dump in emptyPool pool largePool threadPool shared; do
        for actual in "$work/$1.$dump".*.dump; do
            cmp "$work/$dump.dump" "$actual" || fail "info gvpool does not write what the program writes ($1)"
        done
    done
}

freshFolder "$work"
cd "$work"

# The debugger's own colours, paging and settings of a user have no place here.
debug() { timeout 100 "$@" >"$work/$GDB_TEST_PHASE.log" 2>&1 </dev/null || true; }

if [[ $kind == native ]]; then
    GDB_TEST_PHASE=process
    debug gdb -batch -nx -ex "source $script" -ex 'break lookAround' -ex "run $work" -ex 'info breakpoints' \
        -ex "source $source/tests/gdb/look.py" -ex "generate-core-file $work/core" "$program"
    grep -q 'breakpoint already hit' process.log || fail \
        "gdb cannot run a program here; where processes may not be traced (ptrace), this test cannot be run:" \
        "$(tail -n 20 process.log)"
    check process
    GDB_TEST_PHASE=core
    debug gdb -batch -nx -ex "source $script" -ex "source $source/tests/gdb/look.py" "$program" "$work/core"
    check core
elif [[ $kind == carried ]]; then
    cp "$1"/* .
    GDB_TEST_PHASE=core
    debug gdb-multiarch -batch -nx -ex "file $program" -ex "core-file $2" -ex "source $script" \
        -ex "source $source/tests/gdb/look.py"
    check core
else
    libraries=$1 sysroot=$2
    shift 2
    ulimit -c unlimited 2>/dev/null || fail "cores are forbidden here (ulimit -H -c: $(ulimit -H -c))"
    "$@" "$program" "$work" core >emulator.log 2>&1 || true
    core=$(echo qemu_*.core)
    [[ -f $core ]] || fail "the emulator wrote no core; it said:" "$(cat emulator.log)"
    GDB_TEST_PHASE=core
    debug gdb-multiarch -batch -nx -ex "set sysroot $sysroot" -ex "set solib-search-path $libraries" \
        -ex "file $program" -ex "core-file $core" -ex "source $script" -ex "source $source/tests/gdb/look.py"
    check core
fi
rm -rf "$work"
