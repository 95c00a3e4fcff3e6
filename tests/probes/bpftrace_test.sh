#!/usr/bin/env bash
# The script for bpftrace uses every probe, and bpftrace understands it.
#
#   tests/probes/bpftrace_test.sh SOURCE_DIR WORK_FOLDER PROBED_LIBRARY
#
# Nothing is traced: that needs privileges.
set -euo pipefail
export LC_ALL=C
source=$1 work=$2 probed=$3
. "$source/tests/probes/documented.sh"
script=$source/tools/bpftrace/gilvane.bt

skip() {
    echo "skipped: $1"
    exit 77
}
# understood FILE: whether bpftrace takes it; the log has what it says.
understood() {
    timeout 60 bpftrace -d "$1" "$probed" >"$work/log" 2>&1
}

freshFolder "$work"
used=$(grep -oE '^usdt:\$1:gilvane:\w+' "$script" | sed 's/.*://' | sort -u)
[[ $used == "$(documented "$source" | sed 's/ .*//')" ]] || fail "the script does not use every probe, or others:" "$used"

command -v bpftrace >/dev/null || skip "there is no bpftrace"
echo 'BEGIN { exit(); }' >"$work/nothing.bt"
understood "$work/nothing.bt" || skip "bpftrace cannot run here: $(tail -n 1 "$work/log")"
understood "$script" || fail "bpftrace refuses the script:" "$(grep -i error "$work/log" | head)"
while read -r probe; do
    grep -q "usdt:$probed:gilvane:$probe\$" "$work/log" || fail "bpftrace does not see the script's $probe"
done <<<"$used"

# What it must not take.
sed 's/arg2/arg2 +/' "$script" >"$work/wrong.bt"
! understood "$work/wrong.bt" || fail "bpftrace takes a script with a mistake"
rm -rf "$work"
