#!/usr/bin/env bash
# The installed library serves programs that Meson builds, by gilvane.pc. Ends with status 77 where there is no Meson.
#
#   tests/install/meson_test.sh SOURCE_DIR BUILD_DIR SCRATCH_DIR VERSION
set -euo pipefail
cd "$1"
build=$2
scratch=$3
version=$4
command -v meson >/dev/null || { echo "skipped: no meson here"; exit 77; }
. tests/install/installation.sh

prefix=$scratch/prefix
silently cmake --install "$build" --prefix "$prefix"
cp -r tests/install/meson_consumer "$scratch/consumer"
cp tests/install/consumer/main.cpp "$scratch/consumer"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
silently meson setup "$scratch/meson" "$scratch/consumer"
silently ninja -C "$scratch/meson"
expectServed shared env LD_LIBRARY_PATH="$prefix/lib" "$scratch/meson/program"
expectServed static "$scratch/meson/program_static"

# --- what the documents show for Meson --------------------------------------------------------------------------------

expectUsed meson tests/install/meson_consumer/meson.build README.md docs/installing.md
rm -rf "$scratch"
