# shellcheck shell=bash
# What the project's scripts share. To be sourced with the project's root as the current folder.

# say TEXT...: what is about to be done.
say() {
    printf '== %s\n' "$*"
}

# fail TEXT...: why it ends here, in one line.
fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# testsIn PRESET LOG: how many tests ctest has run by its log; where a program is one of ctest's tests, the program's own.
testsIn() {
    local preset=$1 log=$2 sum program tests
    sum=$(sed -nE 's/.* tests failed out of ([0-9]+)$/\1/p' "$log")
    while read -r program; do
        [[ -f build/$preset/gtest/$program.xml ]] || continue
        tests=$(sed -nE 's/^<testsuites tests="([0-9]+)".*/\1/p' "build/$preset/gtest/$program.xml")
        sum=$((sum - 1 + tests))
    done < <(sed -nE 's/^ *[0-9]+\/[0-9]+ +Test +#[0-9]+: ([^ ]+) .*/\1/p' "$log")
    echo "$sum"
}

# showSuites: ctest's closing line of each suite that ./test has run.
showSuites() {
    local preset
    for preset in dev asan arm arm-ubsan; do
        say "the suite in preset $preset, $(testsIn "$preset" "build/log/ctest-$preset") tests"
        grep 'tests passed' "build/log/ctest-$preset"
    done
}

# quietly COMMAND...: shows the command's output only if it fails, which ends the script; on a terminal, the seconds so
# far.
quietly() {
    local log status=0
    log=build/log/$(basename "$1").$$.log
    attempt "$log" "$@" || status=$?
    if [[ $status != 0 ]]; then
        cat "$log" >&2
        rm -f "$log"
        fail "this ended with status $status: $*"
    fi
    rm -f "$log"
}

# attempt LOG COMMAND...: for quietly; returns the command's status, and its output in the file LOG.
attempt() {
    local log=$1 ticker='' status=0
    shift
    mkdir -p "$(dirname "$log")"
    if [[ -t 1 ]]; then
        showSeconds "$*" &
        ticker=$!
    fi
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if [[ -n $ticker ]]; then
        kill "$ticker" 2>/dev/null || true
        wait "$ticker" 2>/dev/null || true
        printf '\r\033[K'
    fi
    return "$status"
}

# showSeconds TEXT: for attempt; ends with the script, should that be interrupted.
showSeconds() {
    local seconds=0
    while sleep 1 && kill -0 $$ 2>/dev/null; do
        seconds=$((seconds + 1))
        printf '\r\033[K   %d s  %.60s' "$seconds" "$1"
    done
}

# buildPreset PRESET [OPTION...]: configures and builds it; the options are those of cmake --build. It configures each
# time, since the folder may have been made with the settings of an earlier preset.
buildPreset() {
    quietly cmake --preset "$1"
    quietly cmake --build --preset "$@"
}

# browse FOLDER OPTION... ADDRESS: a browser without a window, which has its profile in that folder.
browse() {
    local options=(--headless --disable-gpu --user-data-dir="$1")
    if [[ $(id -u) == 0 ]]; then
        options+=(--no-sandbox) # the sandbox refuses to be started by root
    fi
    timeout 600 chromium "${options[@]}" "${@:2}"
}

# isInstalled PACKAGE: whether it is; a pattern such as libboost1.8?-dev, whether one that matches is. A name such as
# zlib1g-dev:amd64 may have several states; one that is installed will do.
isInstalled() {
    dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# needPackages PACKAGE...: has apt install what is missing, and does nothing if nothing is. No package is removed for it.
needPackages() {
    local package missing=() asRoot=()
    if ! command -v dpkg-query >/dev/null; then
        say "no Debian here: taking it that these are installed: $*"
        return
    fi
    for package in "$@"; do
        isInstalled "$package" || missing+=("$package")
    done
    if [[ ${#missing[@]} == 0 ]]; then
        return
    fi
    if [[ $(id -u) != 0 ]]; then
        command -v sudo >/dev/null || fail "not root, and no sudo: please install ${missing[*]}"
        asRoot=(sudo)
        sudo -v || fail "sudo refuses: please install ${missing[*]}"
    fi
    say "installing ${missing[*]}"
    # Lists of packages that are not there, or too old, make the first attempt fail.
    if ! attempt build/log/apt.log aptInstall "${missing[@]}"; then
        quietly "${asRoot[@]}" apt-get update -q
        attempt build/log/apt.log aptInstall "${missing[@]}" || failToInstall "${missing[@]}"
    fi
    rm -f build/log/apt.log
}

# aptInstall PACKAGE...: for needPackages, whose asRoot it uses. In English, which failToInstall reads.
aptInstall() {
    "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive LC_ALL=C \
        apt-get install -q -y --no-remove --no-install-recommends "$@"
}

# failToInstall PACKAGE...: for needPackages, after an attempt; names the packages that would have had to go, if any.
failToInstall() {
    local inTheWay
    inTheWay=$(sed -n '/^The following packages will be REMOVED:$/,/^[^ ]/s/^  //p' build/log/apt.log | tr '\n' ' ')
    if [[ $inTheWay ]]; then
        fail "$* cannot be installed beside ${inTheWay% }; nothing was changed." \
            "If you can do without the latter, remove them yourself and start again; or use another system or container"
    fi
    cat build/log/apt.log >&2
    fail "apt-get cannot install $*"
}
