#!/usr/bin/env bash
# The debugger finds the printers by itself where the library was installed, and says so where the library came without
# debug information.
#
#   autoload_test.sh BUILD_DIR WORK_FOLDER PROGRAM LIBRARY
set -euo pipefail
. "$(dirname "$0")/../support/script.sh"
build=$1 work=$2 program=$3 library=$4
prefix=$work/prefix
forgetSettings

# look COMMAND...: what gdb answers in the program, which runs with the installed library. It trusts the one folder of
# the prefix that it trusts under /usr by itself.
look() {
    local commands=() command
    for command in "$@"; do commands+=(-ex "$command"); done
    timeout 100 gdb -batch -nx -iex "set auto-load safe-path $prefix/share/gdb/auto-load" \
        -ex "set environment LD_LIBRARY_PATH $folder" -ex 'break lookAround' -ex "run $work" -ex 'frame function main' "${commands[@]}" "$program" 2>&1 </dev/null
}

freshFolder "$work"
silently cmake --install "$build" --prefix "$prefix" --component debugger
script=$(find "$prefix" -name '*-gdb.py')
[[ $(basename "$script") == "$(basename "$library")-gdb.py" ]] || fail "no script of the library's name: $script"
[[ -f $script && $(readlink "$script") != /* ]] || fail "the link to the script is broken, or bound to its place"
folder=$(dirname "$script")
cp "$library" "$folder"
ln -s "$(basename "$library")" "$folder/$(readelf -d "$library" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')"

answer=$(look 'print emptyPool' 'info gvpool emptyPool') || true
grep -q '= GVMemoryPool of 0 blocks of 0 bytes, 0 free, not locking' <<<"$answer" || fail "no printer:" "$answer"
grep -qxF "$(cat "$work/emptyPool.dump")" <<<"$answer" || fail "no dump:" "$answer"

# Moved as a whole, it goes on working.
mv "$prefix" "$prefix-moved"
prefix=$prefix-moved
folder=${folder/\/prefix\//\/prefix-moved\/}
answer=$(look 'print emptyPool') || true
grep -q '= GVMemoryPool of 0 blocks' <<<"$answer" || fail "no printer after the prefix was moved:" "$answer"

objcopy --strip-debug "$folder/$(basename "$library")"
answer=$(look 'print emptyPool' 'info gvpool emptyPool') || true
grep -q '= GVMemoryPool, fields unknown: the library has no debug information' <<<"$answer" ||
    fail "the missing debug information is not said to be missing:" "$answer"
grep -qx 'emptyPool: fields unknown: the library has no debug information.' <<<"$answer" ||
    fail "info gvpool does not say what is missing:" "$answer"
rm -rf "$work"
