# shellcheck shell=bash disable=SC2154
# What the tests of installations share. To be sourced with the project's root as the current folder, the version in
# $version, in $scratch an empty folder to work in, and in the array emulator the command that runs programs where this
# machine cannot.

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# silently COMMAND...: shows what it writes only if it fails.
silently() {
    "$@" >"$scratch/log" 2>&1 || {
        cat "$scratch/log" >&2
        fail "failed: $*"
    }
}

# expectHolds WHAT TEXT PATTERN...: each extended regular expression occurs in the text.
expectHolds() {
    local what=$1 text=$2 pattern
    shift 2
    for pattern in "$@"; do
        grep -qE -- "$pattern" <<<"$text" || fail "$what lacks '$pattern':" "$text"
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
