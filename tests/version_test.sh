#!/usr/bin/env bash
# The version stands in one header. Compilers, CMake, pkg-config, the shared library's name and the stamps of pages tell
# the same one, also once the header tells another.
#
#   tests/version_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
cd "$1"
. tests/support/script.sh
scratch=$2

# versions ROOT: what each of them tells of the library in ROOT, a line each.
versions() {
    local root=$1 build=$1/build
    silently cmake -S "$root" -B "$build" -G Ninja -DGILVANE_BUILD_TESTS=OFF -DGILVANE_BUILD_EXAMPLES=OFF
    echo "macros: $(printf '#include <gilvane/base/gvversion.h>\nGILVANE_VERSION_STRING GILVANE_VERSION\n' |
        g++ -std=c++17 -E -P -x c++ -I "$root/include" - | tail -n 1)"
    echo "CMake's project: $(sed -n 's/^CMAKE_PROJECT_VERSION:[A-Z]*=//p' "$build/CMakeCache.txt")"
    echo "CMake's package: $(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")/\1/p' "$build/GilvaneConfigVersion.cmake")"
    echo "pkg-config: $(PKG_CONFIG_PATH=$build pkg-config --modversion gilvane)"
    echo "shared library: $(ninja -C "$build" -t targets all | sed -n 's/^libgilvane\.so\.\([0-9.]*\.[0-9.]*\):.*/\1/p')"
    echo "pages: $(cd "$root" && PYTHONPATH=tools/renewal python3 -c 'import stamps; print(stamps.version())')"
}

# expect VERSION NUMBER: the copy of the library is of this version, for all of them.
expect() {
    local major minor patch
    IFS=. read -r major minor patch <<<"$1"
    diff <(
        echo "macros: \"$major\" \".\" \"$minor\" \".\" \"$patch\" ($major * 10000 + $minor * 100 + $patch)"
        printf '%s: %s\n' "CMake's project" "$1" "CMake's package" "$1" pkg-config "$1" "shared library" "$1" pages "$1"
    ) <(versions "$scratch/copy") || fail "the library is of version $1 (<), and not all say so (>)"
}

freshFolder "$scratch/copy"
cp -rP CMakeLists.txt ./*.md cmake docs include libsrc tools "$scratch/copy"
header=$scratch/copy/libsrc/base/gvversion.h
version=$(sed -nE 's/^#define GILVANE_VERSION_(MAJOR|MINOR|PATCH) //p' "$header" | paste -sd .)
expect "$version"
# Debian's tools read it in the list of their packages' changes.
[[ $(sed -nE '1s/^gilvane \((.*)\) .*/\1/p' debian/changelog) == "$version" ]] ||
    fail "debian/changelog does not begin with version $version"

sed -Ei 's/^(#define GILVANE_VERSION_MAJOR) .*/\1 7/; s/^(#define GILVANE_VERSION_MINOR) .*/\1 8/
    s/^(#define GILVANE_VERSION_PATCH) .*/\1 19/' "$header"
expect 7.8.19
rm -rf "$scratch"
