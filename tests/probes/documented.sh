# shellcheck shell=bash disable=SC2154
# What the tests of probes share. To be sourced, with the project's root in $source.

. "$source/tests/support/script.sh"

# documented SOURCE_DIR: "NAME NUMBER_OF_ARGUMENTS" for each probe in the guide's table, sorted.
documented() {
    sed -nE '/^\| Probe \|/,/^$/s/^\| `([a-z_]+)` \| ([^|]*) \|.*/\1 \2/p' "$1/docs/guide/probes.md" |
        awk '{ name = $1; print name, gsub(/,/, ",") + 1 }' | sort
}
