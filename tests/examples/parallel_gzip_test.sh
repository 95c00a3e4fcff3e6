#!/usr/bin/env bash
# What parallel_gzip promises: any file comes back from gunzip as it was, memory does not grow with the file, and
# a run that fails says why in one line, ends with status 1 and leaves everything as it found it.
#
#   parallel_gzip_test.sh WORK_FOLDER PROGRAM
set -uo pipefail

binary=$(realpath "$2")
program=(timeout -k 5 60 "$binary") # should it hang, that is status 124
work=$1
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1
folder=$PWD

failures=0
skipped=0

problem() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

skip() {
    echo "skipped: $*"
    skipped=$((skipped + 1))
}

# The folder's contents in one line, hidden files too.
contents() {
    find . -mindepth 1 -printf '%P\n' | sort | tr '\n' ' '
}

# roundTrip WHAT FILE [OPTION...]: the file, compressed and uncompressed again, is itself.
roundTrip() {
    local what=$1 file=$2
    shift 2
    if ! "${program[@]}" "$file" out.gz "$@" >stdout 2>stderr; then
        problem "$what: status is not 0: $(cat stderr)"
    elif ! gunzip -t out.gz 2>gunzip.err; then
        problem "$what: gunzip finds fault: $(cat gunzip.err)"
    elif ! gunzip -c out.gz | cmp - "$file"; then
        problem "$what: gunzip does not restore the file"
    elif [ -n "$(find . -name '*.part-*')" ]; then
        problem "$what: an unfinished file is left: $(contents)"
    fi
    rm -f stdout stderr gunzip.err
}

# refuses WHAT MESSAGE COMMAND...: the command ends with status 1 and one line that contains MESSAGE, leaves no file
# behind, and `kept.gz` as it was. Standard output goes to the file that $stdout names.
refuses() {
    local what=$1 message=$2 before after status=0
    shift 2
    echo "what was here before" >kept.gz
    before=$(contents)
    "$@" >"${stdout:-/dev/null}" 2>../refusal || status=$?
    after=$(contents)
    if [ "$status" != 1 ]; then
        problem "$what: status $status instead of 1: $(cat ../refusal)"
    fi
    if [ "$(wc -l <../refusal)" != 1 ]; then
        problem "$what: not one line but: $(cat ../refusal)"
    fi
    if ! grep -qF -- "$message" ../refusal; then
        problem "$what: \"$message\" is not in: $(cat ../refusal)"
    fi
    if [ "$before" != "$after" ]; then
        problem "$what: before there were: $before; afterwards: $after"
    fi
    if [ "$(cat kept.gz)" != "what was here before" ]; then
        problem "$what: the former output was changed"
    fi
    rm -f ../refusal kept.gz
}

# waitFor WHAT COMMAND...: until the command succeeds, for ten seconds at most.
waitFor() {
    local what=$1 attempt
    shift
    for ((attempt = 0; attempt < 200; ++attempt)); do
        "$@" && return 0
        sleep 0.05
    done
    problem "$what: did not happen within ten seconds"
    return 1
}

# --- whatever goes in comes out ---------------------------------------------------------------------------------------

chunk=$((128 * 1024))
mkdir files
: >files/empty
printf x >files/one_byte
head -c $chunk /dev/urandom >files/one_chunk
head -c $((chunk + 1)) /dev/urandom >files/one_chunk_and_a_byte
head -c $((chunk - 1)) /dev/urandom >files/one_chunk_less_a_byte
head -c $((chunk * 3)) /dev/zero >files/three_chunks_of_zeros
head -c 5000000 /dev/urandom >files/incompressible
# Chunks that take very different times, so that members overtake each other.
for ((part = 0; part < 12; ++part)); do
    head -c $chunk /dev/urandom
    head -c $((chunk * 2)) /dev/zero
    seq $((part * 60000)) $((part * 60000 + 60000))
done >files/mixed

for file in files/*; do
    for threads in 1 2 3 8; do
        roundTrip "$file with $threads threads" "$file" --threads $threads
        if [ $threads = 1 ]; then
            mv out.gz first.gz
        elif ! cmp out.gz first.gz; then
            problem "$file: $threads threads give another file than one thread"
        fi
    done
    rm -f out.gz first.gz
done
roundTrip "a program" "$binary"
roundTrip "a file that replaces another" files/mixed
cp files/one_byte ./-dash
"${program[@]}" -- -dash out.gz 2>stderr || problem "a name that begins with a dash: $(cat stderr)"
gunzip -c out.gz | cmp - files/one_byte || problem "a name that begins with a dash: gunzip does not restore the file"
rm -f ./-dash stderr
rm -f out.gz

# Each chunk is a member of its own; an empty file is one empty member.
members() { LC_ALL=C grep -aobP '\x1f\x8b\x08\x00\x00\x00\x00\x00\x00' "$1" | wc -l; }
for expected in empty:1 one_chunk:1 one_chunk_less_a_byte:1 one_chunk_and_a_byte:2 three_chunks_of_zeros:3; do
    rm -f out.gz
    "${program[@]}" "files/${expected%:*}" out.gz 2>/dev/null || problem "${expected%:*}: it fails"
    if [ "$(members out.gz)" != "${expected#*:}" ]; then
        problem "${expected%:*}: $(members out.gz) members instead of ${expected#*:}"
    fi
done
rm -f out.gz

# --- what goes where --------------------------------------------------------------------------------------------------

# Standard error gets one line of figures, standard output the dump of both pools if asked for, with every block.
"${program[@]}" files/mixed out.gz --threads 2 >stdout 2>stderr || problem "it fails: $(cat stderr)"
[ -s stdout ] && problem "without --dump there is something on standard output: $(head -c 200 stdout)"
[ "$(wc -l <stderr)" = 1 ] || problem "not one line of figures but: $(cat stderr)"
for figure in 'MB/s' 'ratio' 'blocks used: [1-8] of 8 for input and [1-8] of 8 for output'; do
    grep -q "$figure" stderr || problem "no \"$figure\" in the figures: $(cat stderr)"
done
"${program[@]}" --dump files/mixed out.gz --threads 2 >stdout 2>/dev/null || problem "--dump fails"
[ "$(grep -o '<GVMemoryPool>' stdout | wc -l)" = 2 ] || problem "--dump does not write two <GVMemoryPool>"
[ "$(grep -c '<GVHashTableEntry>' stdout)" = 16 ] || problem "--dump does not show 8 blocks in each pool"
gunzip -c out.gz | cmp - files/mixed || problem "--dump spoils the file"
rm -f stdout stderr out.gz

"${program[@]}" files/mixed /dev/null 2>stderr || problem "/dev/null as output: $(cat stderr)"
[ -c /dev/null ] || problem "/dev/null was replaced"
"${program[@]}" files/mixed /dev/stdout 2>stderr | gunzip -c | cmp - files/mixed || problem "through a pipe: $(cat stderr)"
head -c 1G files/mixed | "${program[@]}" /dev/stdin out.gz 2>stderr || problem "from a pipe: $(cat stderr)"
gunzip -c out.gz | cmp - files/mixed || problem "from a pipe: gunzip does not restore the file"
rm -f stderr out.gz

# A symbolic link stays one; the file it names is replaced.
echo old >real.gz
ln -s real.gz link.gz
"${program[@]}" files/mixed link.gz 2>stderr || problem "link as output: $(cat stderr)"
[ -L link.gz ] || problem "the link was replaced by the file"
gunzip -c real.gz | cmp - files/mixed || problem "the file behind the link is not the new one"
rm -f stderr real.gz link.gz

# Nobody may read the output who may not read the input.
cp files/one_byte secret
chmod 600 secret
"${program[@]}" secret out.gz 2>/dev/null || problem "a file with mode 600: it fails"
[ "$(stat -c %a out.gz)" = 600 ] || problem "the output of a file with mode 600 has mode $(stat -c %a out.gz)"
rm -f secret out.gz

# --- refusals ---------------------------------------------------------------------------------------------------------

for arguments in "" "files/mixed" "files/mixed kept.gz more" "files/mixed kept.gz --threads" \
    "files/mixed kept.gz --threads 0" "files/mixed kept.gz --threads 2x" "files/mixed kept.gz --threads -1" \
    "files/mixed kept.gz --threads 257" "files/mixed kept.gz --unknown"; do
    # shellcheck disable=SC2086 # the words are the arguments
    refuses "wrong usage ($arguments)" "usage: parallel_gzip INPUT OUTPUT" "${program[@]}" $arguments
done

refuses "missing input" "missing: No such file or directory" "${program[@]}" missing kept.gz
refuses "empty name" "No such file or directory" "${program[@]}" "" kept.gz
refuses "folder as input" "files: Is a directory" "${program[@]}" files kept.gz
refuses "folder as output" "files: Is a directory" "${program[@]}" files/mixed files
refuses "output in a missing folder" "missing/out.gz: No such file or directory" "${program[@]}" files/mixed missing/out.gz
refuses "output below a file" "Not a directory" "${program[@]}" files/mixed files/mixed/out.gz
refuses "output with no name" "No such file or directory" "${program[@]}" files/mixed ""
refuses "same file" "same file" "${program[@]}" kept.gz kept.gz
ln files/mixed same
refuses "same file under two names" "same file" "${program[@]}" files/mixed same
rm same
ln -s files/mixed same
refuses "same file through a link" "same file" "${program[@]}" files/mixed same
rm same

# The first read fails while all the threads are waiting.
refuses "read error" "cannot read /proc/self/mem: Input/output error" "${program[@]}" /proc/self/mem kept.gz
refuses "read error, new output" "cannot read /proc/self/mem: Input/output error" "${program[@]}" /proc/self/mem new.gz

refuses "full device" "/dev/full: No space left on device" "${program[@]}" files/incompressible /dev/full
refuses "full device, empty file" "/dev/full: No space left on device" "${program[@]}" files/empty /dev/full
stdout=/dev/full refuses "dump to a full device" "cannot write the dump" "${program[@]}" --dump files/mixed kept.gz
stdout=/dev/full refuses "dump to a full device, new output" "cannot write the dump" "${program[@]}" --dump files/mixed new.gz

# A limit on file sizes stands in for a disk that fills up while the output grows.
limited() { (ulimit -f 1024 && exec "$@"); }
refuses "output too large, former output" "kept.gz: File too large" limited "${program[@]}" files/incompressible kept.gz
refuses "output too large, new output" "new.gz: File too large" limited "${program[@]}" files/incompressible new.gz

# A disk of 1 MB, seen by one command only and gone with it.
fullDisk() {
    unshare --mount ${userNamespace:+--map-root-user} bash -c '
        mount -t tmpfs -o size=1m none disk && cd disk || exit 99
        "$@" || exit
    ' - "$@"
}
mkdir disk
userNamespace=
[ "$(id -u)" = 0 ] || userNamespace=yes
if fullDisk true 2>/dev/null; then
    leaves() {
        local output=$1
        shift
        "$@" ../files/incompressible "$output" || { status=$?; find . -type f ! -name kept.gz; cat ./kept.gz; return $status; }
    }
    export -f leaves
    full=$(fullDisk bash -c 'echo before >kept.gz; leaves "$@"' - new.gz "${program[@]}" 2>stderr)
    [ "$?$full" = 1before ] || problem "full disk: status and what is left: $full"
    grep -q '^parallel_gzip: cannot write new.gz: No space left on device$' stderr || problem "full disk: $(cat stderr)"
    full=$(fullDisk bash -c 'echo before >kept.gz; leaves "$@"' - kept.gz "${program[@]}" 2>stderr)
    [ "$?$full" = 1before ] || problem "full disk, former output: status and what is left: $full"
    rm -f stderr
else
    skip "full disk: no small disk can be mounted here"
fi
rmdir disk

# Without root's right to pass over permissions, which the administrator's own files hold against him then too.
unprivileged=()
if [ "$(id -u)" = 0 ]; then
    unprivileged=(setpriv "--bounding-set=-dac_override,-dac_read_search")
fi
if "${unprivileged[@]}" test -x "$binary" -a -w .; then
    echo secret >unreadable
    chmod 000 unreadable
    refuses "unreadable input" "unreadable: Permission denied" "${unprivileged[@]}" "${program[@]}" unreadable kept.gz
    echo fixed >unwritable.gz
    chmod 444 unwritable.gz
    refuses "unwritable output" "unwritable.gz: Permission denied" \
        "${unprivileged[@]}" "${program[@]}" files/mixed unwritable.gz
    [ "$(cat unwritable.gz)" = fixed ] || problem "unwritable output: it was replaced"
    mkdir -m 555 closed
    refuses "output in an unwritable folder" "closed/out.gz: Permission denied" \
        "${unprivileged[@]}" "${program[@]}" files/mixed closed/out.gz
    rm -rf unreadable unwritable.gz closed
else
    skip "permissions: they do not hold back this user here"
fi

# A reader that goes away.
mkfifo pipe
head -c 1000 pipe >/dev/null &
refuses "nobody reads the output any more" "pipe: Broken pipe" "${program[@]}" files/incompressible pipe
wait

# A failure is told at once, even while the input has not ended and keeps the reader waiting: it gets one chunk and a bit
# of the next.
mkfifo late_input
exec 3<>late_input
head -c 150000 /dev/urandom >&3 &
refuses "full device while input is late" "/dev/full: No space left on device" \
    "${program[@]}" late_input /dev/full
wait
exec 3>&-
rm -f pipe late_input

# --- ended from outside -----------------------------------------------------------------------------------------------

# A run that waits for more input and has begun its output; input goes in by descriptor 3. Sets $running.
hasUnfinishedFile() { [ -n "$(find . -name 'signalled.gz.part-*')" ]; }
begin() {
    mkfifo pipe
    env --default-signal=INT,TERM,HUP "$binary" pipe "$@" 2>stderr &
    running=$!
    exec 3>pipe
}
end() {
    exec 3>&-
    rm -f pipe stderr
}
for signal in INT:130 TERM:143 HUP:129; do
    echo before >signalled.gz
    begin signalled.gz
    head -c 1000000 /dev/urandom >&3
    waitFor "signal ${signal%:*}: unfinished file" hasUnfinishedFile
    kill -s "${signal%:*}" $running
    status=0
    { wait $running || status=$?; } 2>/dev/null # without the shell's own words on the signal
    [ "$status" = "${signal#*:}" ] || problem "signal ${signal%:*}: status $status instead of ${signal#*:}"
    hasUnfinishedFile && problem "signal ${signal%:*}: unfinished file is left: $(contents)"
    [ "$(cat signalled.gz)" = before ] || problem "signal ${signal%:*}: the former output was changed"
    end
done
rm -f signalled.gz

# --- memory -----------------------------------------------------------------------------------------------------------

# The most memory in kB that the run has ever had, after it has taken in so many MB more: the pipe to it holds 64 kB.
peakAfter() {
    head -c $(($1 * 1000000)) /dev/urandom >&3
    awk '/^VmHWM:/ { print $2 }' "/proc/$running/status"
}
begin out.gz --threads 2
early=$(peakAfter 8)
late=$(peakAfter 56)
end
wait $running || problem "64 MB from a pipe: status is not 0"
if [ -z "$early" ] || [ -z "$late" ]; then
    problem "memory: no figures"
elif [ $((late - early)) -gt 8000 ]; then
    problem "memory: grew from $early kB after 8 MB to $late kB after 64 MB"
fi
rm -f out.gz

if [ $failures != 0 ]; then
    echo "$failures checks failed" >&2
    exit 1
fi
cd / && rm -rf "$folder"
echo "all checks passed, $skipped skipped"
