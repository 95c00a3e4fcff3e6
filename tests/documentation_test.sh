#!/usr/bin/env bash
# The README's first program is examples/quickstart.cpp, to the letter.
#
#   tests/documentation_test.sh SOURCE_DIR
set -euo pipefail
cd "$1"
shown=$(awk '/^```cpp$/ { shown = 1; next } /^```$/ && shown { exit } shown' README.md)
[ -n "$shown" ] || { echo "README.md shows no program" >&2; exit 1; }
diff <(printf '%s\n' "$shown") examples/quickstart.cpp || { echo "README.md and quickstart.cpp differ" >&2; exit 1; }
