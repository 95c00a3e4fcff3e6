#!/usr/bin/env bash
# Every class and enumeration that the library's headers offer to programs stands in layout.h.
#
#   tests/layout/completeness_test.sh SOURCE_DIR
set -euo pipefail
cd "$1"
. tests/support/script.sh

# What is declared at the margin is not nested in a class; helpers in detail are not for programs, traits have no objects.
mapfile -t offered < <(
    awk '/^namespace (Gilvane::)?detail/ { inDetail = 1 } /^} \/\/ namespace (Gilvane::)?detail/ { inDetail = 0 } !inDetail' libsrc/*/*.h |
        grep -oE '^(class|enum)( \[\[[a-z]+\]\])?( GILVANE_[A-Z_]+)* [A-Za-z_]+ *[:{]' |
        sed -E 's/ *[:{]$//; s/.* //' | sort -u
)
[[ " ${offered[*]} " == *" GVException "*" GVMemoryPool "*" GVSharedPool "* ]] || fail "these are not the classes: ${offered[*]}"
for name in "${offered[@]}"; do
    grep -qE "CLASS\($name," tests/layout/layout.h || fail "tests/layout/layout.h lacks $name"
done
echo "${#offered[@]} classes and enumerations, all of them in layout.h"
