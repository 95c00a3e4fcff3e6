#!/usr/bin/env bash
# Programs and libraries link when both are hardened or neither is, and otherwise not; and a hardened build tells its
# users so in the ways by which they find it.
#
#   tests/hardened/linking_test.sh SOURCE_DIR SCRATCH_DIR DEFAULT_LIBRARY HARDENED_LIBRARY
set -euo pipefail
cd "$1"
. tests/support/script.sh
scratch=$2
default=$3
hardened=$4
freshFolder "$scratch"
forgetSettings

# expectRefused SYMBOL OBJECT LIBRARY: they do not link, for want of this symbol.
expectRefused() {
    local complaint
    complaint=$(g++ "$scratch/$2" "$3" -pthread -o "$scratch/mixed" 2>&1) && fail "$2 links with $3"
    grep -qE "undefined reference to .*$1" <<<"$complaint" ||
        fail "$2 does not link with $3, but not for want of $1:" "$complaint"
}

# --- linking ----------------------------------------------------------------------------------------------------------

program=tests/install/consumer/main.cpp
# A hardened build tells by pkg-config what programs are to define.
silently cmake --preset release -B "$scratch/build" -DGILVANE_HARDENED=ON -DGILVANE_BUILD_EXAMPLES=OFF
flags=$(PKG_CONFIG_PATH=$scratch/build pkg-config --cflags gilvane)
definitions=$(grep -oE -- '-D[^ ]+' <<<"$flags") || fail "gilvane.pc of a hardened build defines nothing: $flags"
[[ $definitions == -DGILVANE_HARDENED ]] || fail "gilvane.pc of a hardened build defines: $definitions"

silently g++ -std=c++17 -O2 -I include -c "$program" -o "$scratch/default.o"
silently g++ -std=c++17 -O2 "$definitions" -I include -c "$program" -o "$scratch/hardened.o"
for kind in default hardened; do
    silently g++ "$scratch/$kind.o" "${!kind}" -pthread -o "$scratch/$kind"
    [[ $("$scratch/$kind") == served ]] || fail "the $kind program did not do its job"
done
expectRefused 'checkAfterReturn\[abi:hardened\]\(' hardened.o "$default"
expectRefused 'growToLend\(\)' default.o "$hardened"

# Not even a program that never borrows, and so calls no check: the hardened library would treat its blocks as free.
cat >"$scratch/lookup.cpp" <<'END'
#include <gilvane/utilities/gvmemorypool.h>
int main() {
    Gilvane::GVMemoryPool pool(1, 8, false);
    return pool.getMemoryForToken(0) == nullptr;
}
END
silently g++ -std=c++17 -O2 -I include -c "$scratch/lookup.cpp" -o "$scratch/lookup.o"
silently g++ "$scratch/lookup.o" "$default" -pthread -o "$scratch/lookup"
expectRefused 'GVMemoryPool::GVMemoryPool\(' lookup.o "$hardened"

# --- find_package -----------------------------------------------------------------------------------------------------

mapfile -t exported < <(find "$scratch/build" -path '*Export*' -name GilvaneTargets.cmake)
[[ ${#exported[@]} == 1 ]] || fail "not one file of exported targets: ${exported[*]}"
[[ $(grep -c 'INTERFACE_COMPILE_DEFINITIONS "GILVANE_HARDENED"' "${exported[0]}") == 2 ]] ||
    fail "the exported targets, static and shared, do not both define GILVANE_HARDENED"
rm -rf "$scratch"
