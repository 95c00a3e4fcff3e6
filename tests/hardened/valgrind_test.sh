#!/usr/bin/env bash
# Under Valgrind a hardened program that uses the bytes of a free block is reported, with the stack of the use; one that
# keeps to the rules is not, and neither is a program of the default build.
#
#   tests/hardened/valgrind_test.sh HARDENED_PROGRAM DEFAULT_PROGRAM
set -euo pipefail
. "$(dirname "$0")/../support/script.sh"
hardened=$1
default=$2

# expectReported FUNCTION PATTERN PROGRAM USE: memcheck reports one thing, and the pattern's line stands right above the
# function's.
expectReported() {
    local function=$1 pattern=$2 report
    shift 2
    report=$(valgrind -q --error-exitcode=99 "$@" 2>&1) && fail "$* is not reported: $report"
    grep -A 1 -E "$pattern" <<<"$report" | grep -qE "(at|by) 0x[0-9A-F]+: .*$function.*\(marked_blocks\.cpp:[0-9]+\)" ||
        fail "$* is not reported as '$pattern' in $function:" "$report"
}

# expectClean PROGRAM USE: memcheck has nothing to say.
expectClean() {
    local report
    report=$(valgrind -q --error-exitcode=99 "$@" 2>&1) || fail "$* failed: $report"
    [[ -z $report ]] || fail "$* is reported: $report"
}

expectReported useAfterReturn 'Invalid write of size 1' "$hardened" after-return
expectReported useWithoutLoan 'Invalid read of size 1' "$hardened" without-loan
expectReported useWithoutValue 'depends on uninitialised value' "$hardened" without-value
expectClean "$hardened" by-the-rules
expectClean "$default" after-return
