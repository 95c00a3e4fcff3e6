#!/usr/bin/env bash
# A program of the guide succeeds and writes what the guide says it does.
#
#   guide_test.sh EXPECTED_OUTPUT COMMAND...
set -euo pipefail
expected=$1
shift
output=$("$@") || { echo "$1 ended with status $?" >&2; exit 1; }
diff "$expected" <(printf '%s\n' "$output") || { echo "it wrote something else than $expected" >&2; exit 1; }
