#!/usr/bin/env bash
# The library serves programs in each of the ways that it can be had: installed, by find_package and by pkg-config; from
# its sources, by add_subdirectory and by FetchContent. debian_test.sh has Debian's packages, meson_test.sh has Meson.
#
#   tests/install/install_test.sh SOURCE_DIR BUILD_DIR SCRATCH_DIR VERSION
set -euo pipefail
cd "$1"
build=$2
scratch=$3
version=$4
emulator=()
. tests/install/installation.sh

# --- the prefix -------------------------------------------------------------------------------------------------------

prefix=$scratch/prefix
silently cmake --install "$build" --prefix "$prefix"
expectInstalled "$prefix"
expectMovable "$prefix"

# Programs find the library by its soname, and in it this system's own symbols alone.
expectHolds "the shared library" "$(readelf -d "$prefix/lib/libgilvane.so")" \
    "SONAME.*\[libgilvane\.so\.${version%%.*}\]"
symbols=$(nm --dynamic --defined-only --demangle "$prefix/lib/libgilvane.so" | sed -E 's/^[0-9a-f]+ . //')
expectHolds "the list of symbols" "$symbols" '^Gilvane::GVMemoryPool::releaseObject\(unsigned int\)' \
    '^typeinfo for Gilvane::GVException'
! grep -vE '^(typeinfo for |typeinfo name for |vtable for )?Gilvane::' <<<"$symbols" ||
    fail "the shared library offers the symbols above"

# The manual page has what --help has.
options=$("$prefix/bin/gvview" --help | grep -oE -- '(^|[ ,])--?[a-z]+\b' | tr -d ' ,' | sort -u)
[[ -n $options ]] || fail "gvview --help names no option"
page=$(MANWIDTH=80 man --warnings -E ascii -l "$prefix/share/man/man1/gvview.1" 2>&1)
for option in $options; do
    expectHolds "gvview's manual page" "$page" "(^|[ ,])$option\b"
done
! grep -i warning <<<"$page" || fail "the manual page has the mistakes above"

# --- find_package -----------------------------------------------------------------------------------------------------

expectConsumerServed by_find_package static -DCMAKE_PREFIX_PATH="$prefix"

# --- pkg-config, by the README's commands -----------------------------------------------------------------------------

# compile PREFIX_OF_PC PATTERN: runs the one line of the README that the pattern matches, in a folder with the program.
compile() {
    local line
    line=$(grep -E -- "$2" README.md) || fail "README.md has no line that matches '$2'"
    rm -rf "$scratch/by_pkg_config"
    cp -r tests/install/consumer "$scratch/by_pkg_config"
    (cd "$scratch/by_pkg_config" && PKG_CONFIG_PATH=$1 silently sh -c "$line")
}
compile "$prefix/lib/pkgconfig" '^g\+\+ .*pkg-config --cflags --libs gilvane'
expectServed shared env LD_LIBRARY_PATH="$prefix/lib" "$scratch/by_pkg_config/program"
compile "$prefix/lib/pkgconfig" '^g\+\+ .* -static .*pkg-config --static --cflags --libs gilvane'
expectServed static "$scratch/by_pkg_config/program"

# ask OPTION...: what pkg-config says of the library.
ask() { PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config "$@" gilvane; }
[[ $(ask --modversion) == "$version" ]] || fail "gilvane.pc tells another version: $(ask --modversion)"
# With this C library programs link without it; with older ones they do not.
expectHolds "what static programs link with" "$(ask --static --libs)" ' -pthread\b'

# --- add_subdirectory and FetchContent --------------------------------------------------------------------------------

# expectNothingButTheLibrary BUILD CONSUMER: of the library's own project nothing reaches the consumer's but the library.
expectNothingButTheLibrary() {
    local added=$1 consumer=$2 commands targets
    # Of its programs, not of the library's sources.
    commands=$(grep -F '"command":' "$added/compile_commands.json" | grep -F -- "$consumer/main.cpp")
    [[ -n $commands ]] || fail "no command compiles the consumer"
    ! grep -E -- ' -(W|std=c\+\+17|fvisibility)' <<<"$commands" || fail "the library's flags leak into the commands above"
    ! grep -E '^BUILD_SHARED_LIBS|^BUILD_TESTING' "$added/CMakeCache.txt" || fail "the options above were set for it"
    targets=$(ninja -C "$added" -t targets all)
    ! grep -E 'quickstart|parallel_gzip|gilvane_bench|gilvane_counted|_tests' <<<"$targets" ||
        fail "more than the library is built"
    [[ $(ctest --test-dir "$added" -N) == *"Total Tests: 0"* ]] || fail "the library's tests are among the program's"
    silently cmake --install "$added" --prefix "$scratch/of_the_consumer"
    [[ ! -e $scratch/of_the_consumer ]] || fail "the library is installed with the program"
}

consumer=$scratch/consumer
cp -r tests/install/consumer "$consumer"
ln -s "$PWD" "$consumer/gilvane"
expectConsumerServed by_add_subdirectory static
expectNothingButTheLibrary "$scratch/by_add_subdirectory" "$consumer"

fetched=$scratch/by_fetch_content
silently cmake -S tests/install/consumer -B "$fetched" -G Ninja -DGILVANE_FETCHED="$PWD"
silently cmake --build "$fetched" -j 2 --target program
expectServed static "$fetched/program"
expectNothingButTheLibrary "$fetched" "$PWD/tests/install/consumer"

# --- the README's lines for CMake -------------------------------------------------------------------------------------

expectUsed cmake tests/install/consumer/CMakeLists.txt README.md
rm -rf "$scratch"
