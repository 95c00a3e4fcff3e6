#!/usr/bin/env bash
# Every installed header compiles in any company: alone, before and after all others and the standard headers, and after
# macros of well-known headers. Each compiler, standard library, language version and build sees all of them together; a
# header alone, which may lack another, is seen with each standard library in the oldest and the newest language, since a
# later one only includes less.
#
#   tests/headers/headers_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
export LC_ALL=C
cd "$1"
. tests/support/script.sh
scratch=$2
macros=$PWD/tests/headers
compilers=("g++" "clang++" "clang++ -stdlib=libc++")
versions=(c++17 c++20 c++2b) # clang 14 knows C++23 by this name alone

# includes FILE...: a line for each of these files.
includes() {
    printf '#include <%s>\n' "$@"
}

# includesOfStandard NAME...: the same for headers of the standard library, where it has them.
includesOfStandard() {
    local name
    for name in "$@"; do
        printf '#if __has_include(<%s>)\n#include <%s>\n#endif\n' "$name" "$name"
    done
}

# writeSources ROOT: into ROOT/sources, a file for each header alone, twice for its guard; and two files with all
# headers. One has them behind the standard headers, the other before these and in reverse order, so that each header
# comes before and after every other one.
writeSources() {
    local root=$1 header headers reversed standard
    mapfile -t headers < <(cd "$root/libsrc" && printf 'gilvane/%s\n' */*.h)
    mapfile -t reversed < <(printf '%s\n' "${headers[@]}" | tac)
    mapfile -t standard < <(cat "$root"/libsrc/*/*.h | sed -nE 's|^#include <([^/]+)>$|\1|p' | sort -u)
    [[ ${#headers[@]} -gt 10 && ${#standard[@]} -gt 10 ]] || fail "hardly a header: is it looking in the right place?"
    mkdir -p "$root/sources"
    for header in "${headers[@]}"; do
        {
            printf '#include "%s"\n' "$macros/hostile_macros.h"
            includes "$header" "$header"
        } >"$root/sources/alone_$(basename "$header" .h).cpp"
    done
    {
        includesOfStandard "${standard[@]}"
        printf '#include "%s"\n' "$macros/hostile_macros.h" "$macros/hostile_macros_of_standard_names.h"
        includes "${headers[@]}"
    } >"$root/sources/all_behind_standard_headers.cpp"
    {
        includes "${reversed[@]}"
        includesOfStandard "${standard[@]}"
    } >"$root/sources/all_before_standard_headers.cpp"
}

# commands ROOT SOURCES: the compiler's command for each of these sources in each combination, a line each. The hardened
# build, which includes nothing more, is seen in one language version by each compiler, and by headers alone once.
commands() {
    local root=$1 sources=$2 compiler version hardened source combination
    for compiler in "${compilers[@]}"; do
        for version in "${versions[@]}"; do
            for hardened in "" " -DGILVANE_HARDENED"; do
                [[ -z $hardened || $version == "${versions[0]}" ]] || continue
                combination=$compiler$version$hardened
                for source in "$root"/sources/$sources.cpp; do
                    [[ $source != */alone_* || $combination =~ ^(g\+\+|.*libc\+\+)c\+\+(17|2b)$ ||
                        $combination == "g++c++17 -DGILVANE_HARDENED" ]] || continue
                    echo "$compiler -std=$version$hardened -I $root/include $source"
                done
            done
        done
    done
}

# compile COMMAND: writes the command and its first error if it fails.
compile() {
    local output
    # shellcheck disable=SC2086  # the command's words
    output=$($1 -fsyntax-only -Wall -Wextra -Wconversion -Wshadow -Wold-style-cast -Werror 2>&1) ||
        printf 'refused: %s\n%s\n' "$1" "$(grep -m 1 error <<<"$output")"
}
export -f compile

# refusals: compiles what the standard input says, and writes what is refused.
refusals() {
    xargs -r -d '\n' -n 1 -P "$(nproc)" bash -c 'compile "$1"' compile
}

# --- the headers ------------------------------------------------------------------------------------------------------

freshFolder "$scratch"
mkdir "$scratch/asis"
cp -rP libsrc include "$scratch/asis"
writeSources "$scratch/asis"
refused=$(commands "$scratch/asis" '*' | refusals)
[[ -z $refused ]] || fail "$(head -n 20 <<<"$refused")"

# --- the test itself --------------------------------------------------------------------------------------------------

# plant NAME FILE LINE: a copy of the library with a line added to a header, before the end of its guard.
plant() {
    mkdir -p "$scratch/$1"
    cp -rP libsrc include "$scratch/$1"
    [[ $(tail -n 1 "$scratch/$1/libsrc/$2") == '#endif' ]] || fail "the guard of $2 does not end with the file"
    sed -i '$d' "$scratch/$1/libsrc/$2"
    printf '%s\n' "$3" '#endif' >>"$scratch/$1/libsrc/$2"
    writeSources "$scratch/$1"
}

# expectRefusals NAME SOURCES NUMBER TEXT: so many of the commands for these sources are refused, each with this text.
expectRefusals() {
    local refused
    refused=$(commands "$scratch/$1" "$2" | refusals)
    [[ $(grep -c '^refused' <<<"$refused") == "$3" && $(grep -c "$4" <<<"$refused") == "$3" ]] ||
        fail "$1: expected $3 refusals that say \"$4\":" "$refused"
}

plant corners base/gvcompiler.h '
#include <cstddef>
#if defined(_LIBCPP_VERSION) && __cplusplus > 202002L
#error planted corner
#elif defined(__clang__) && !defined(_LIBCPP_VERSION) && __cplusplus == 202002L
#error planted corner
#elif !defined(__clang__) && defined(GILVANE_HARDENED)
#error planted corner
#endif'
expectRefusals corners all_behind_standard_headers 3 "planted corner"
expectRefusals corners alone_gvcompiler 2 "planted corner"

# One combination of compiler and version will do for the rest, in both builds.
compilers=("g++")
versions=(c++17)
plant limit base/gvrawblock.h 'inline int planted() { return std::numeric_limits<int>::max(); }'
expectRefusals limit all_behind_standard_headers 2 'macro "max"'
plant helper base/gvcompiler.h 'inline bool likely(bool condition) { return condition; }'
expectRefusals helper alone_gvcompiler 2 "hostile_macros.h.* stray"
plant macro base/gvcompiler.h '#define allocator planted @'
expectRefusals macro all_before_standard_headers 2 "gvcompiler.h.* stray"
plant dependency base/gvcompiler.h 'inline std::size_t planted() { return 0; }'
expectRefusals dependency alone_gvcompiler 2 "gvcompiler.h.*size_t"
expectRefusals dependency all_behind_standard_headers 0 .
plant cast base/gvcompiler.h 'inline int planted(double number) { return (int)number; }'
expectRefusals cast alone_gvcompiler 2 old-style-cast
plant guard base/gvcompiler.h $'#endif\ninline int planted() { return 0; }\n#if 1'
expectRefusals guard alone_gvcompiler 2 "redefinition of .*planted"
rm -rf "$scratch"
