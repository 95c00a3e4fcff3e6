#!/usr/bin/env bash
# Pages of figures are what was measured: one that was changed by hand is refused, and one of an earlier library is named
# and let pass.
#
#   tests/tools/stamps_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
cd "$1"
. tests/support/script.sh
scratch=$2

tools/renew --check >/dev/null || fail "a page of this project claims what was not measured"

# A copy in which every page is of its library.
freshFolder "$scratch"
mkdir "$scratch/tools"
cp -r docs libsrc README.md CMakeLists.txt benchmarks "$scratch"
cp -r tools/renew tools/renewal "$scratch/tools"
cd "$scratch"
PYTHONPATH=tools/renewal python3 - <<'STAMP'
import pathlib, stamps
for path in [*(pathlib.Path("docs") / f"{page}.md" for page in ("proof", "performance", "platforms")),
             pathlib.Path("benchmarks/hardened-cost.txt"), *pathlib.Path("benchmarks/embedded").glob("*.txt")]:
    path.write_text(stamps.stamped(stamps.STAMP.sub("\n", path.read_text())))
STAMP
tools/renew facts >/dev/null

# expect STATUS PATTERN [ARGUMENT]: tools/renew ends and speaks so.
expect() {
    local status=0 said
    said=$(tools/renew "${@:3}" 2>&1) || status=$?
    [[ $status == "$1" ]] && grep -qE "$2" <<<"$said" || fail "expected status $1 and '$2', got $status and: $said"
}
expect 0 '^all figures are of version [0-9.]+, libsrc [0-9a-f]{12}$' --check

# Another library: all pages are named, in one line or a line each, and nothing fails.
echo '// changed' >>libsrc/base/gvobject.cpp
expect 0 '^figures of another library than .*: docs/proof.md, docs/performance.md, docs/platforms.md, benchmarks/' --check
expect 0 '^docs/proof.md is of version .*: tools/renew proof$'
sed -i '$d' libsrc/base/gvobject.cpp
expect 0 '^all figures' --check

# A figure changed by hand, in a page and in the README; a page with another library's name on it.
cp docs/platforms.md kept
sed -i '0,/0 of [0-9]* failed/s//0 of 999999 failed/' docs/platforms.md
expect 1 'docs/platforms.md: its figures are not what was measured' --check
cp kept docs/platforms.md
sed -i -E 's/libsrc [0-9a-f]{12}, seal/libsrc 0123456789ab, seal/' docs/platforms.md
expect 1 'docs/platforms.md: its figures are not' --check
cp kept docs/platforms.md
sed -i -E 's/^(\| mutants killed \| )/\19/' README.md
expect 1 'README.md: its facts are not what the pages say' --check
tools/renew facts >/dev/null
expect 0 '^all figures' --check
rm -rf "$scratch"
