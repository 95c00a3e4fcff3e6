#!/usr/bin/env bash
# The quickstart says what it does, and does it.
#
#   quickstart_test.sh WORK_FOLDER COMMAND...
set -euo pipefail
work=$1
shift
rm -rf "$work"
mkdir -p "$work"

"$@" >"$work/output" || { echo "quickstart ended with status $?" >&2; exit 1; }

# The block built last is lent first; returned, it is lent again; the third loan grows the pool from 2 blocks to 4.
diff - <(head -n 6 "$work/output") <<'END' || { echo "quickstart wrote something else" >&2; exit 1; }
written into block 1
in use: 0
borrowed block 1
borrowed block 0
borrowed block 3
in use: 3
END
[ "$(grep -c '<GVHashTableEntry>' "$work/output")" = 4 ] || { echo "the dump does not show 4 blocks" >&2; exit 1; }
rm -rf "$work"
