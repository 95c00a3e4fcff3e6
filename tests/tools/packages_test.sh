#!/usr/bin/env bash
# Scripts install packages that are missing, and never remove one for it. The package system here is a fake, which
# notes how apt-get was called and answers as the real one does.
#
#   packages_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
source=$1
scratch=$2
. "$source/tests/support/script.sh"
freshFolder "$scratch"
mkdir "$scratch/bin"
cd "$scratch"
export PATH=$scratch/bin:$PATH

# fake NAME: a program of that name, from standard input.
fake() {
    { echo '#!/usr/bin/env bash' && cat; } >"bin/$1"
    chmod +x "bin/$1"
}
# Installed is what stands in the file of that name, as patterns find it.
fake dpkg-query <<'END'
while read -r package; do [[ $package == ${*: -1} ]] && echo installed; done <installed || true
END
fake sudo <<'END'
[[ $1 == -v ]] || exec "$@"
END
# What apt-get says and does is the file ANSWER's affair; removing something without being told not to is a fault.
fake apt-get <<'END'
echo "$*" >>calls
[[ $1 != update ]] || exit 0
[[ " $* " == *" --no-remove "* && $LC_ALL == C ]] || exit 77
. ./answer
END

# need PACKAGE...: as a script would; its status in $status, what it says in the file said, calls of apt-get in calls.
need() {
    : >calls
    status=0
    bash -euo pipefail -c '. "$0/tools/lib.sh"; needPackages "$@"' "$source" "$@" >said 2>&1 || status=$?
}

# expect STATUS CALLS: what the last one came to.
expect() {
    [[ $status == "$1" ]] || fail "status $status instead of $1:" "$(cat said)"
    [[ $(sed 's/ .*//' calls | tr '\n' ' ') == "$2" ]] || fail "apt-get was not called for '$2':" "$(cat calls)"
}

# --- nothing is missing -----------------------------------------------------------------------------------------------

printf '%s\n' one libboost1.74-dev >installed
echo 'exit 1' >answer
need one 'libboost1.[0-9]?-dev'
expect 0 ''

# --- something is missing ---------------------------------------------------------------------------------------------

echo 'exit 0' >answer
need one two three
expect 0 'install '
grep -qE '^install .* two three$' calls || fail "not what is missing was asked for:" "$(cat calls)"

# The lists are brought up to date where the first attempt fails.
echo '[[ $(wc -l <calls) == 3 ]]' >answer
need two
expect 0 'install update install '

# --- others are in the way --------------------------------------------------------------------------------------------

cat >answer <<'END'
cat <<'SAID'
Reading package lists...
The following additional packages will be installed:
  two-12
The following packages will be REMOVED:
  g++-multilib gcc-12-multilib
  gcc-multilib
The following NEW packages will be installed:
  two two-12
0 upgraded, 2 newly installed, 3 to remove and 0 not upgraded.
SAID
echo 'E: Packages need to be removed but remove is disabled.' >&2
exit 100
END
need two
expect 1 'install update install '
[[ $(grep -c . said) == 2 ]] || fail "more is said than what is done, and one line why not:" "$(cat said)"
grep -q '^[^:]*: two cannot be installed beside g++-multilib gcc-12-multilib gcc-multilib; nothing was changed' said ||
    fail "the line does not name the packages:" "$(cat said)"

# --- apt-get fails for another reason ---------------------------------------------------------------------------------

echo 'echo "E: Unable to locate package two" >&2; exit 100' >answer
need two
expect 1 'install update install '
grep -q 'Unable to locate package two' said || fail "the reason is not shown:" "$(cat said)"
grep -q ': apt-get cannot install two$' said || fail "no clear line at the end:" "$(cat said)"

# Nothing of the project calls apt-get past all this.
calling=$(cd "$source" && grep -rlE 'apt-get (-[^ ]+ )*(install|remove)|apt install|dpkg -i' \
    --exclude-dir={build,.git,docs} --exclude=*.md .) || fail "not even tools/lib.sh installs packages"
[[ $(sort <<<"$calling") == $'./tests/tools/packages_test.sh\n./tools/lib.sh' ]] ||
    fail "these install packages by themselves:" "$calling"
cd /
rm -rf "$scratch"
