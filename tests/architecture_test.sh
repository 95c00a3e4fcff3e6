#!/usr/bin/env bash
# The folders of the library build on each other in one direction, and its sources are all it takes to build it.
#
#   tests/architecture_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
cd "$1"
scratch=$2

# folder: what it may include, itself besides
declare -A allowed=(
    [base]="base"
    [threads]="base threads"
    [datastructures]="base datastructures"
    [utilities]="base threads datastructures utilities"
)
included=0
for folder in libsrc/*; do
    folder=${folder#libsrc/}
    [ -n "${allowed[$folder]:-}" ] || { echo "libsrc/$folder has no place in the architecture" >&2; exit 1; }
    while IFS=: read -r file other; do
        included=$((included + 1))
        case " ${allowed[$folder]} " in
        *" $other "*) ;;
        *) echo "$file includes from $other, above or beside it" >&2; exit 1 ;;
        esac
    done < <(grep -oE '#include <gilvane/[a-z]+' -r "libsrc/$folder" | sed 's|#include <gilvane/||')
done
[ "$included" -gt 20 ] || { echo "the check found hardly an #include: is it looking in the right place?" >&2; exit 1; }

mkdir -p "$scratch"
g++ -std=c++17 -I include libsrc/*/*.cpp examples/quickstart.cpp -pthread -o "$scratch/quickstart"
"$scratch/quickstart" >/dev/null

# Every header can be included first, and twice.
for header in libsrc/*/*.h; do
    header=${header#libsrc/}
    printf '#include <gilvane/%s>\n#include <gilvane/%s>\n' "$header" "$header" |
        g++ -std=c++17 -I include -fsyntax-only -x c++ - || { echo "$header does not stand alone" >&2; exit 1; }
done
