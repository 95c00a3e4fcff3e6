#!/usr/bin/env bash
# A benchmark that ends its program loses its own result and no other's. The program here is a fake, which ends as it is
# told to.
#
#   measure_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
. "$1/tests/support/script.sh"
measure=$1/tools/bench/measure
scratch=$2
freshFolder "$scratch"
cd "$scratch"

# Writes the names that match, as results; one that "falls" ends it by a signal, one that "gives up" with a status.
cat >program <<'END'
#!/usr/bin/env bash
names=('row/one/good/8' 'row/one/falls/8' 'row/one/std::good, too/8/threads:2' 'row/one/gives up/8'
    'row/one_more/good/8' 'row/one_more/good/9' 'row/two/falls/8')
list=false
for argument in "$@"; do
    case $argument in
    --benchmark_filter=*) filter=${argument#*=} ;;
    --benchmark_out=*) out=${argument#*=} ;;
    --benchmark_list_tests) list=true ;;
    esac
done
for name in "${names[@]}"; do
    [[ $name =~ $filter ]] || continue
    if $list; then
        echo "$name"
        continue
    fi
    [[ $name != */falls/* ]] || kill -SEGV $$
    [[ $name != */"gives up"/* ]] || exit 3
    echo "$name" >>"$out"
done
END
chmod +x program

"$measure" ./program row results >said

# Each process wrote its own file, and what one that fell had written by then is not taken for results.
diff - <(cat results/*.json | grep '^row' | sort) <<'END' || fail "not what was measured (<) is in the results (>)"
row/one/good/8
row/one/std::good, too/8/threads:2
row/one_more/good/8
row/one_more/good/9
END
diff - <(python3 -c 'import json; print(*json.load(open("results/lost.json")), sep="\n")') <<'END' ||
row/one/falls: Segmentation fault, signal 11
row/one/gives up: status 3
row/two/falls: Segmentation fault, signal 11
END
    fail "not what was lost (<) is said to be (>)"
[[ $(grep -c '^   lost: ' said) == 3 ]] || fail "there is not a line for each loss:" "$(cat said)"
cd /
rm -rf "$scratch"
