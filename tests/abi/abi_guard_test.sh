#!/usr/bin/env bash
# The guard of the binary interface fires on what breaks programs, and on nothing else. Each case changes a scratch copy
# of the library in one way and lets the guard compare it with the unchanged one.
#
#   tests/abi/abi_guard_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
cd "$1"
scratch=$2
. tools/abi.sh

flags=(-g -O1 -std=c++17 -fPIC -fvisibility=hidden -pthread)
# What the cases change is in these; the rest of the library may stay undefined in a shared one.
sources=(libsrc/base/gvobject.cpp libsrc/threads/gvmutexhandle.cpp libsrc/threads/gvthreadsfactory.cpp
    libsrc/utilities/gvmemorypool.cpp)
build() { # COPY: a shared library from the copy's sources
    g++ "${flags[@]}" -include "$scratch/standard.h" -shared -Wl,--version-script=cmake/exports.map \
        -I "$1/include" "${sources[@]/#/$1/}" -o "$1/libgilvane.so"
}

change() { # NAME SED_EXPRESSION: a copy of the library with one change in all its sources, built
    mkdir -p "$scratch/$1"
    cp -rP libsrc include "$scratch/$1"
    find "$scratch/$1/libsrc" -type f -print0 | xargs -0 sed -i -E "$2"
    if diff -rq libsrc "$scratch/$1/libsrc" >/dev/null; then
        echo "the change did not apply: $1" >&2
        exit 1
    fi
    build "$scratch/$1"
}

expectFiring() { # NAME SED_EXPRESSION TEXT: and the report says this
    change "$1" "$2"
    if tools/check-abi "$scratch/$1/libgilvane.so" "$scratch/base.abi" >"$scratch/$1/report" 2>&1; then
        echo "the guard let pass: $1" >&2
        exit 1
    fi
    if ! grep -qE "$3" "$scratch/$1/report"; then
        echo "the guard does not say \"$3\" of: $1" >&2
        cat "$scratch/$1/report" >&2
        exit 1
    fi
    echo "the guard fires: $1"
}

rm -rf "$scratch"
mkdir -p "$scratch/base"
# What the copies include of the standard library is compiled once.
grep -rhoE '^#include <[a-z_]+>' libsrc | sort -u >"$scratch/standard.h"
g++ "${flags[@]}" -x c++-header "$scratch/standard.h"
cp -rP libsrc include "$scratch/base"
build "$scratch/base"
takeDownInterface "$scratch/base/libgilvane.so" "$scratch/base.abi"
tools/check-abi "$scratch/base/libgilvane.so" "$scratch/base.abi" >/dev/null
echo "the guard is silent: nothing changed"

expectFiring "a field widened" 's|^    unsigned int initialNumberOfObjects;|    unsigned long long initialNumberOfObjects;|' \
    "type of 'unsigned int initialNumberOfObjects' changed"
expectFiring "two fields swapped" \
    's|^    unsigned int theHash; |    unsigned int TMP; |; s|^    unsigned int theState;|    unsigned int theHash;|
     s|^    unsigned int TMP; |    unsigned int theState; |' \
    "'unsigned int theHash' offset changed"
expectFiring "a virtual operation added" \
    's|virtual bool tryLock\(\) = 0;|virtual bool tryLock() = 0;\n    virtual void another() {}|' \
    "lock\(\) changed from 3 to 4"
expectFiring "an operation gone" 's|removeTokenFromAvailableList|removeTokenFromList|' \
    "\[D\] .*removeTokenFromAvailableList"

change "an operation added" \
    's|^    void makePool\(unsigned int numberOfObjects\);|&\n    __attribute__((used)) unsigned int addedOperation() const { return bytesInEachObject; }|'
tools/check-abi "$scratch/an operation added/libgilvane.so" "$scratch/base.abi" >"$scratch/report"
grep -q "addedOperation" "$scratch/report" || { echo "the guard did not list the added operation" >&2; exit 1; }
echo "the guard lists: an operation added"
