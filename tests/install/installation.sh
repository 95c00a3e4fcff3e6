# shellcheck shell=bash disable=SC2154
# What the tests of installations share. To be sourced with the project's root as the current folder, the version in
# $version, in $scratch a folder to work in, which is emptied here, and in the array emulator the command that runs
# programs where this machine cannot.

. tests/support/script.sh
freshFolder "$scratch"
forgetSettings

# expectHolds WHAT TEXT PATTERN...: each extended regular expression occurs in the text.
expectHolds() {
    local what=$1 text=$2 pattern
    shift 2
    for pattern in "$@"; do
        grep -qE -- "$pattern" <<<"$text" || fail "$what lacks '$pattern':" "$text"
    done
}

# expectUsed LANGUAGE FILE PAGE...: the lines that each page shows in that language are the file's, but for indentation
# there and comments here.
expectUsed() {
    local language=$1 file=$2 page shown line
    shift 2
    for page in "$@"; do
        shown=$(sed -n '/^```'"$language"'$/,/^```$/{//!p}' "$page" | sed 's/ *#.*//')
        [[ -n $shown ]] || fail "$page shows no lines in $language"
        while IFS= read -r line; do
            sed 's/^ *//' "$file" | grep -qxF -- "$line" || fail "$page shows a line that $file does without: $line"
        done <<<"$shown"
    done
}

# expectInstalled PREFIX: the library is there, and nothing that programs have no use for.
expectInstalled() {
    local prefix=$1
    diff <({
        find -H include/gilvane/ -name '*.h'
        printf 'lib/libgilvane.%s\n' a so "so.${version%%.*}" "so.$version"
        printf 'lib/cmake/Gilvane/Gilvane%s.cmake\n' Config ConfigVersion Targets Targets-BUILDTYPE
        echo lib/pkgconfig/gilvane.pc
        echo bin/gvview
        echo share/man/man1/gvview.1
        echo share/gdb/auto-load/gilvane/gilvane_gdb.py
        echo "lib/libgilvane.so.$version-gdb.py"
    } | sort) <(find "$prefix" ! -type d -printf '%P\n' | sed 's|Targets-[a-z]*|Targets-BUILDTYPE|' | sort) ||
        fail "what should be installed (<) is not what is (>)"
}

# expectMovable PREFIX: what build systems read names neither the folders it was made in, nor the one it lies in, nor
# the one that it was once meant for.
expectMovable() {
    local files
    mapfile -t files < <(find "$1" -name '*.cmake' -o -name '*.pc')
    [[ ${#files[@]} == 5 ]] || fail "not the files that build systems read: ${files[*]}"
    ! grep -HF -e "$PWD" -e "$scratch" -e /usr/local "${files[@]}" || fail "the lines above name a folder"
}

# expectServed LIBRARY COMMAND...: the command's last word, a program, does its job with the static or shared library.
expectServed() {
    local library=$1 program=${*: -1} needed
    shift
    needed=$(readelf -d "$program" | grep -F libgilvane) || true
    case $library in
    static) [[ -z $needed ]] || fail "$program is not linked with the static library: $needed" ;;
    shared) [[ $needed == *"[libgilvane.so.${version%%.*}]"* ]] || fail "$program lacks the shared library: $needed" ;;
    esac
    [[ $("$@") == served ]] || fail "$program did not do its job"
}

# expectConsumerServed NAME DEFAULT CMAKE_ARGUMENT...: the consumer is built in a folder of that name, and its programs
# do their job; DEFAULT is the library that Gilvane::gilvane has to be.
expectConsumerServed() {
    local name=$1 default=$2
    shift 2
    silently cmake -S "${consumer:-tests/install/consumer}" -B "$scratch/$name" -G Ninja "$@"
    silently cmake --build "$scratch/$name" -j 2
    expectServed "$default" "${emulator[@]}" "$scratch/$name/program"
    expectServed static "${emulator[@]}" "$scratch/$name/program_static"
    expectServed shared "${emulator[@]}" "$scratch/$name/program_shared"
}
