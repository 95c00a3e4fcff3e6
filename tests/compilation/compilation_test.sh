#!/usr/bin/env bash
# A source compiles as it is; and, where it names a refusal, does not compile once REFUSED is defined, for the reason
# that it names. In the source's comments:
#
#   // with: FLAGS      for the compiler; -std=c++17 alone otherwise
#   // refused: TEXT    in the compiler's message
#
#   tests/compilation/compilation_test.sh SOURCE_DIR SOURCE
set -euo pipefail
export LC_ALL=C
cd "$1"
. tests/support/script.sh
source=$2

read -ra flags <<<"$(sed -n 's|^// with: ||p' "$source")"
text=$(sed -n 's|^// refused: ||p' "$source")
for compiler in g++ clang++; do
    command=("$compiler" -std=c++17 -Wall -Wextra -Werror "${flags[@]}" -I include -fsyntax-only "$source")
    "${command[@]}" || fail "$compiler refuses $source"
    [[ -n $text ]] || continue
    if output=$("${command[@]}" -DREFUSED 2>&1); then
        fail "$compiler accepts $source, as REFUSED has it"
    fi
    grep -qF -- "$text" <<<"$output" || fail "$compiler refuses $source, but does not say \"$text\":" "$output"
done
