# shellcheck shell=bash
# What the tests that are scripts share. To be sourced.

# fail TEXT...: why the test fails, a line each.
fail() {
    printf '%s\n' "$@" >&2
    exit 1
}

# silently COMMAND...: shows what it writes only if it fails.
silently() {
    local output
    output=$("$@" 2>&1) || fail "$output" "failed: $*"
}

# freshFolder FOLDER: it is there, and empty.
freshFolder() {
    rm -rf "$1"
    mkdir -p "$1"
}

# forgetSettings: what a user's shell tells build systems, and programs of where libraries are, has no place in tests of
# what is found without it.
forgetSettings() {
    unset CMAKE_PREFIX_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH CXXFLAGS LDFLAGS DESTDIR
}
