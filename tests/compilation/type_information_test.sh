#!/usr/bin/env bash
# Smart pointers work in a program that is partly compiled without run-time type information, whichever part the linker
# takes the virtual tables from.
#
#   tests/compilation/type_information_test.sh SOURCE_DIR SCRATCH_DIR LIBRARY
set -euo pipefail
cd "$1"
. tests/support/script.sh
scratch=$2
library=$3
mkdir -p "$scratch"

for compiler in g++ clang++; do
    compile=("$compiler" -std=c++17 -O1 -Wall -Wextra -Werror -I include -c tests/compilation/type_information.cpp)
    "${compile[@]}" -o "$scratch/with.o"
    "${compile[@]}" -fno-rtti -DIS_MAIN -o "$scratch/without.o"
    for order in "with without" "without with"; do
        read -r first second <<<"$order"
        "$compiler" "$scratch/$first.o" "$scratch/$second.o" "$library" -pthread -o "$scratch/program"
        timeout 20 "$scratch/program" || fail "$compiler, objects in the order $order: status $?"
    done
done
