#!/usr/bin/env bash
# The README's first program is examples/quickstart.cpp, to the letter.
#
#   tests/documentation_test.sh SOURCE_DIR
set -euo pipefail
cd "$1"
. tests/support/script.sh
shown=$(awk '/^```cpp$/ { shown = 1; next } /^```$/ && shown { exit } shown' README.md)
[ -n "$shown" ] || fail "README.md shows no program"
diff <(printf '%s\n' "$shown") examples/quickstart.cpp || fail "README.md and quickstart.cpp differ"
