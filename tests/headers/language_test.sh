#!/usr/bin/env bash
# Each installed header tells a compiler below C++17, in one sentence and before anything else, what the library needs.
#
#   tests/headers/language_test.sh SOURCE_DIR
set -euo pipefail
export LC_ALL=C
cd "$1"
. tests/support/script.sh
expected="Gilvane needs C++17 or later: compile as C++ with -std=c++17"

# errors COMMAND HEADER: the lines with errors when a program that includes the header is compiled.
errors() {
    # shellcheck disable=SC2086  # the command's words
    printf '#include <%s>\n' "$2" | $1 -fsyntax-only -I include - 2>&1 | grep -E ': (fatal )?error: ' || true
}

mapfile -t headers < <(cd include && find -H gilvane/ -name '*.h' | sort)
[[ ${#headers[@]} -gt 10 ]] || fail "hardly a header: is it looking in the right place?"
for header in "${headers[@]}"; do
    for command in "g++ -std=c++14 -x c++" "clang++ -std=c++14 -x c++" "gcc -x c"; do
        said=$(errors "$command" "$header")
        [[ -n $said ]] || fail "$command accepts $header"
        [[ $(head -n 1 <<<"$said") == *"error: "*"$expected" ]] || fail "$command says of $header first:" "$said"
        # The sentence, and the file that there is not.
        [[ $(wc -l <<<"$said") == 2 ]] || fail "$command says more of $header than it should:" "$said"
    done
done
