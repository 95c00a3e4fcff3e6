#!/usr/bin/env bash
# The example of the lease says what it does, and does it.
#
#   lease_test.sh WORK_FOLDER COMMAND...
set -euo pipefail
work=$1
shift
rm -rf "$work"
mkdir -p "$work"

"$@" >"$work/output" || { echo "lease ended with status $?" >&2; exit 1; }

diff - <(head -n 3 "$work/output") <<'END' || { echo "lease wrote something else" >&2; exit 1; }
sample 1 is 0.5
in use: 0
1 of 4 blocks lent, nothing is wrong
END
# The report follows: one element, with a line for each block.
[ "$(sed -n 4p "$work/output")" = "<GVMemoryPoolInspector>" ] || { echo "the report does not follow" >&2; exit 1; }
[ "$(tail -n 1 "$work/output")" = "</GVMemoryPoolInspector>" ] || { echo "the report does not end" >&2; exit 1; }
[ "$(grep -c '^	<block>.*</block>$' "$work/output")" = 4 ] || { echo "the report does not show 4 blocks" >&2; exit 1; }
[ "$(grep -c '<state>lent</state>' "$work/output")" = 1 ] || { echo "the report does not show the loan" >&2; exit 1; }
sed -n '4,$p' "$work/output" | python3 -c 'import sys, xml.etree.ElementTree as tree; tree.parse(sys.stdin)' ||
    { echo "the report is not well-formed" >&2; exit 1; }
rm -rf "$work"
