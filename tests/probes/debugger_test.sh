#!/usr/bin/env bash
# The debugger lists every probe, stops at each, and sees what the program says that it passes.
#
#   tests/probes/debugger_test.sh SOURCE_DIR WORK_FOLDER PROGRAM [LIBRARY_FOLDER SYSROOT EMULATOR...]
#
# With an emulator, the program waits there for the debugger, which finds its libraries in LIBRARY_FOLDER and below
# SYSROOT.
set -euo pipefail
export LC_ALL=C
source=$1 work=$2 program=$3
shift 3
. "$source/tests/probes/documented.sh"
freshFolder "$work"
cd "$work"

# The commands: at each probe, its name and its arguments.
mapfile -t probes < <(documented "$source")
[[ ${#probes[@]} -gt 5 ]] || fail "hardly a probe in the guide"
{
    echo 'echo listed\n' && echo 'info probes stap gilvane'
    for probe in "${probes[@]}"; do
        read -r name count <<<"$probe"
        format=$name arguments=
        for ((number = 0; number < count; ++number)); do
            format+=' %lu' arguments+=", \$_probe_arg$number"
        done
        printf '%s\n' "break -probe-stap gilvane:$name" commands silent "printf \"told $format\\n\"$arguments" \
            continue end
    done
    echo continue
} >commands.gdb

if [[ $# == 0 ]]; then
    timeout 100 gdb -batch -nx -ex 'break main' -ex 'run >told' -x commands.gdb "$program" >log 2>&1 </dev/null || true
else
    libraries=$1 sysroot=$2
    shift 2
    # Paths of sockets are short.
    socket=$(mktemp -u "${TMPDIR:-/tmp}/gdb.XXXXXX")
    timeout 100 "$@" -g "$socket" "$program" >told &
    for ((attempt = 0; attempt < 100; ++attempt)); do
        [[ ! -S $socket ]] || break
        sleep 0.1
    done
    timeout 100 gdb-multiarch -batch -nx -ex "set sysroot $sysroot" -ex "set solib-search-path $libraries" \
        -ex "file $program" -ex "target remote $socket" -ex 'break main' -ex continue -x commands.gdb >log 2>&1 \
        </dev/null || true
    wait || true
    rm -f "$socket"
fi
grep -q '^listed$' log || fail "the debugger cannot run a program here; it said:" "$(tail -n 20 log)"

listed=$(awk '$1 == "stap" && $2 == "gilvane" { print $3 }' log | sort)
[[ $listed == "$(printf '%s\n' "${probes[@]% *}")" ]] || fail "the debugger lists other probes: $listed"
for probe in "${probes[@]% *}"; do
    grep -q "^$probe " told || fail "the program does not come by $probe"
done
diff told <(sed -n 's/^told //p' log) >difference ||
    fail "what the program passes (<) is not what the debugger sees (>):" "$(cat difference)"
rm -rf "$work"
