#!/usr/bin/env bash
# Installed from a build for another kind of machine, the library serves programs for that machine, and is refused to
# programs for this one.
#
#   tests/install/cross_install_test.sh SOURCE_DIR BUILD_DIR SCRATCH_DIR VERSION TOOLCHAIN_FILE TRIPLET EMULATOR...
set -euo pipefail
cd "$1"
build=$2
scratch=$3
version=$4
toolchain=$5
triplet=$6
shift 6
emulator=("$@")
. tests/install/installation.sh

prefix=$scratch/prefix
silently cmake --install "$build" --prefix "$prefix"
expectInstalled "$prefix"
expectMovable "$prefix"
# The prefix stands for what /usr/local will be on that machine; until then its programs have to be told.
export LD_LIBRARY_PATH=$prefix/lib
expectConsumerServed by_find_package static --toolchain "$toolchain" -DGILVANE_TRIPLET="$triplet" -DCMAKE_STAGING_PREFIX="$prefix"

if refusal=$(cmake -S tests/install/consumer -B "$scratch/here" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" 2>&1); then
    fail "a program for this machine was given a library for another"
fi
expectHolds "the refusal" "$refusal" "version: $version \(32bit\)"
rm -rf "$scratch"
