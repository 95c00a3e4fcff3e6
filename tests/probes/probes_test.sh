#!/usr/bin/env bash
# A library with probes has those that the guide names, with as many arguments, in itself and not in programs. Without
# them its code is what it would be if they stood nowhere. The option is refused where there is no header.
#
#   tests/probes/probes_test.sh SOURCE_DIR WORK_FOLDER PROBED_LIBRARY PROGRAM DEFAULT_LIBRARY HEADERS COMPILER OPTION...
#
# The OPTIONs tell CMake of the compiler.
set -euo pipefail
export LC_ALL=C
source=$1 work=$2 probed=$3 program=$4 default=$5 headers=$6 compiler=$7
shift 7
. "$source/tests/probes/documented.sh"
rm -rf "$work"
mkdir -p "$work"

# present FILE: "NAME NUMBER_OF_ARGUMENTS" for each place of a probe in it, sorted.
present() {
    readelf -n "$1" | awk '
        $1 == "Provider:" { ours = $2 == "gilvane" }
        $1 == "Name:" { name = $2 }
        $1 == "Arguments:" && ours { print name, gsub(/@/, "@") }' | sort
}

# compile FOLDER FILE OPTION...: FOLDER/FILE.o of the source in FOLDER/libsrc.
compile() {
    local folder=$1 file=$2
    shift 2
    (cd "$folder" && "$compiler" -std=c++17 -O2 "$@" -I include -isystem "$headers" -c "libsrc/$file.cpp" \
        -o "$(basename "$file").o")
}

# --- where the probes are ---------------------------------------------------------------------------------------------

expected=$(documented "$source")
[[ $(wc -l <<<"$expected") -gt 5 ]] || fail "hardly a probe in the guide"
[[ $(present "$probed") == "$expected" ]] || fail "the guide has other probes than the library, which has:" \
    "$(present "$probed")"
[[ -z $(present "$program") ]] || fail "a program has probes of its own"
nm -uC "$program" | grep detail::probeDry >/dev/null || fail "the program's own loans do not come by a probe"
[[ -z $(present "$default") ]] || fail "the default library has probes"
symbols=$(nm -C "$default")
! grep 'detail::probe' <<<"$symbols" || fail "the default library has functions of probes"

# --- what they cost where they are not --------------------------------------------------------------------------------

for copy in asis without; do
    mkdir -p "$work/$copy"
    cp -rP "$source/libsrc" "$source/include" "$work/$copy"
done
# Lines keep their numbers, since exceptions name them.
sed -i 's/^ *GILVANE_PROBE(.*);$//' "$work"/without/libsrc/utilities/*
! grep -r 'GILVANE_PROBE(' "$work/without/libsrc/utilities" || fail "a use of GILVANE_PROBE is not on one line"
for file in gvmemorypool gvsharedpool gvtokencache; do
    compile "$work/asis" utilities/$file
    compile "$work/without" utilities/$file
    cmp "$work"/{asis,without}/$file.o || fail "$file.cpp compiles to something else because of its probes"
    compile "$work/asis" utilities/$file -DGILVANE_PROBES
    ! cmp -s "$work"/{asis,without}/$file.o || fail "$file.cpp passes no probe in a build that has them"
done

# --- the check itself -------------------------------------------------------------------------------------------------

# expectDifference LINE CHANGED TEXT: with that in a line of gvprobes.cpp, the difference to the guide is this.
expectDifference() {
    cp "$source/libsrc/base/gvprobes.cpp" "$work/asis/libsrc/base"
    sed -i "s/$1/$2/" "$work/asis/libsrc/base/gvprobes.cpp"
    compile "$work/asis" base/gvprobes -DGILVANE_PROBES
    difference=$(diff <(echo "$expected") <(present "$work/asis/gvprobes.o") | grep '^[<>]') || true
    [[ $difference == "$3" ]] || fail "with $2 for $1 the difference is: $difference"
}

expectDifference 'DTRACE_PROBE3(gilvane, dry, .*);' '' '< dry 3'
expectDifference 'DTRACE_PROBE3(gilvane, spill, pool, moved, freeBlocks)' 'DTRACE_PROBE2(gilvane, spill, pool, moved)' \
    $'< spill 3\n> spill 2'
expectDifference 'gilvane, closed' 'gilvane, ended' $'< closed 2\n> ended 2'

# --- the option -------------------------------------------------------------------------------------------------------

# configure FLAGS OPTION...: a build with the option; what it says is in the log.
configure() {
    local flags=$1
    shift
    rm -rf "$work/build"
    cmake -G Ninja -S "$source" -B "$work/build" "$@" -DCMAKE_CXX_FLAGS="$flags" -DGILVANE_PROBES=ON \
        -DGILVANE_WERROR=ON -DGILVANE_BUILD_TESTS=OFF -DGILVANE_BUILD_EXAMPLES=OFF >"$work/log" 2>&1
}

mkdir -p "$work/missing/sys"
echo '#error this header is not there' >"$work/missing/sys/sdt.h"
! configure "-isystem $work/missing" "$@" || fail "the option is taken though there is no sys/sdt.h"
[[ $(tr -s '\n ' ' ' <"$work/log") == *"GILVANE_PROBES needs the header sys/sdt.h, which Debian has in systemtap"* ]] ||
    fail "the option is refused, but it does not say why:" "$(tail -n 20 "$work/log")"
configure "-isystem $headers" "$@" || fail "the option is refused:" "$(tail -n 20 "$work/log")"
object=CMakeFiles/gilvane_static.dir/libsrc/base/gvprobes.cpp.o
cmake --build "$work/build" --target $object >"$work/log" || fail "$(cat "$work/log")"
[[ $(present "$work/build/$object") == "$expected" ]] || fail "with the option there are other probes"
grep -q -- '-DGILVANE_PROBES' "$work/build/gilvane.pc" || fail "programs are not told of the option"
rm -rf "$work"
