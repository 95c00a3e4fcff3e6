#!/usr/bin/env bash
# The Debian packages please lintian, but for the licence, which is not chosen yet; and unpacked, never installed, they
# serve programs. Ends with status 77 where the tools are missing.
#
#   tests/install/debian_test.sh SOURCE_DIR SCRATCH_DIR VERSION
set -euo pipefail
export LC_ALL=C
cd "$1"
scratch=$2
version=$3
emulator=()
for tool in dh dpkg-buildpackage lintian doxygen; do
    command -v "$tool" >/dev/null || { echo "skipped: no $tool here"; exit 77; }
done
. tests/install/installation.sh

# Compiled sooner than what is handed out, and packed the same.
DEB_CXXFLAGS_APPEND="-O1 -g1" silently tools/build-packages --into "$scratch/packages"
architecture=$(dpkg --print-architecture)
cd "$scratch/packages"
diff <(printf '%s\n' "gilvane-doc_${version}_all.deb" "libgilvane-dev_${version}_$architecture.deb" \
    "libgilvane1-dbgsym_${version}_$architecture.deb" "libgilvane1_${version}_$architecture.deb") <(printf '%s\n' *.deb) ||
    fail "what packages there should be (<) is not what there is (>)"

# --- lintian ----------------------------------------------------------------------------------------------------------

diff <(printf 'W: %s: copyright-without-copyright-notice\n' gilvane-doc libgilvane-dev libgilvane1) \
    <(lintian --allow-root --display-info --fail-on none ./*.changes 2>"$scratch/log" | sort) ||
    fail "what lintian should say, of the licence alone (<), is not what it says (>)"

# --- what is in which package -----------------------------------------------------------------------------------------

for package in libgilvane1 libgilvane-dev libgilvane1-dbgsym gilvane-doc; do
    dpkg-deb -x ./${package}_*.deb "$scratch/$package"
done
cd - >/dev/null
libdir=usr/lib/$(g++ -print-multiarch)
# filesOf PACKAGE: those that are not about the package itself.
filesOf() {
    (cd "$scratch/$1" && find . ! -type d ! -path "./usr/share/doc/$1/c*" ! -path './usr/share/lintian/*' -printf '%P\n') |
        sort
}
diff <(printf "$libdir/libgilvane.so.%s\n" 1 "$version") <(filesOf libgilvane1) ||
    fail "what programs run with (<) is not what is in libgilvane1 (>)"
id=$(readelf -n "$scratch/libgilvane1/$libdir/libgilvane.so.1" | sed -n 's/^ *Build ID: //p')
[[ -f $scratch/libgilvane1-dbgsym/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug ]] ||
    fail "libgilvane1-dbgsym is not of this library: $(filesOf libgilvane1-dbgsym)"
expectHolds "gilvane-doc" "$(filesOf gilvane-doc)" '^usr/share/doc/gilvane-doc/html/index.html$' \
    '^usr/share/doc/gilvane-doc/examples/quickstart.cpp$'
! grep -rlF -- "$scratch" "$scratch/gilvane-doc" || fail "the pages above name the folder that they were made in"
for package in "$scratch"/packages/libgilvane-dev_*.deb; do
    expectHolds "$package" "$(dpkg-deb --field "$package" Depends)" "libgilvane1 \(= $version\)"
done

# --- a program --------------------------------------------------------------------------------------------------------

mkdir "$scratch/root"
cp -a "$scratch/libgilvane1/." "$scratch/libgilvane-dev/." "$scratch/root"
expectMovable "$scratch/root"
[[ $("$scratch/root/usr/bin/gvview" --help) == usage:* ]] || fail "gvview does not run"
# Nobody who does not choose gets the static library. The soname leads to what is in libgilvane1.
expectConsumerServed by_package shared -DCMAKE_PREFIX_PATH="$scratch/root/usr"
read -ra flags <<<"$(PKG_CONFIG_PATH=$scratch/root/$libdir/pkgconfig pkg-config --cflags --libs gilvane)"
g++ -std=c++17 tests/install/consumer/main.cpp -o "$scratch/program" "${flags[@]}"
expectServed shared env LD_LIBRARY_PATH="$scratch/libgilvane1/$libdir" "$scratch/program"
rm -rf "$scratch"
