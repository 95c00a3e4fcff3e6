#!/usr/bin/env bash
# The folders of the library build on each other in one direction, and its sources are all it takes to build it.
#
#   tests/architecture_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
cd "$1"
. tests/support/script.sh
scratch=$2

# folder: what it may include, declare in advance or befriend; itself besides
declare -A allowed=(
    [base]="base"
    [threads]="base threads"
    [datastructures]="base datastructures"
    [utilities]="base threads datastructures utilities"
)

# What may stand between the word class and a class's name.
attributes='(?:\[\[[^]]*\]\]\s*|GILVANE_\w+\s+)*'

# found PATTERN FILE...: "FILE:MATCH" for each match of a Perl pattern outside comments.
found() {
    local pattern=$1 file match
    shift
    for file in "$@"; do
        { sed 's|//.*||' "$file" | grep -oP "$pattern" || true; } | while read -r match; do echo "$file:$match"; done
    done
}

# isAllowed FOLDER OTHER: whether a folder may name what that other one defines. The tests define their peer.
isAllowed() {
    [[ -n $2 && " ${allowed[$1]} tests " == *" $2 "* ]]
}

# breaches ROOT: a line for everything in ROOT/libsrc that names what is above or beside it.
breaches() {
    local folder file name key='(?:class|struct|union|enum|enum class)'
    local -A definedIn=([GVTestPeer]=tests)
    cd "$1"
    while IFS=: read -r file name; do
        folder=${file#libsrc/}
        definedIn[$name]=${folder%%/*}
    done < <(found "^\s*(?:template\s*<.*>\s*)?$key\s+$attributes\K\w+(?=\s*(?:final\s*)?[:{<])" libsrc/*/*)
    for folder in libsrc/*; do
        folder=${folder#libsrc/}
        [[ -n ${allowed[$folder]:-} ]] || { echo "libsrc/$folder has no place in the architecture"; continue; }
        while IFS=: read -r file name; do
            isAllowed "$folder" "$name" || echo "$file includes from $name"
        done < <(found '^#include <gilvane/\K\w+' libsrc/"$folder"/*)
        while IFS=: read -r file name; do
            isAllowed "$folder" "${definedIn[$name]:-}" || echo "$file befriends $name of ${definedIn[$name]:-nothing}"
        done < <(found '\bfriend\s+(?:(?:class|struct|union)\s+)?(?:\w*::)*\K.*(?=;)' libsrc/"$folder"/*)
        while IFS=: read -r file name; do
            isAllowed "$folder" "${definedIn[$name]:-}" || echo "$file declares $name of ${definedIn[$name]:-nothing}"
        done < <(found "(?<!friend )(?<![<,] )(?<!<)\b$key\s+(?!class\b)$attributes(?:\w*::)*\K\w+" libsrc/"$folder"/*)
    done
}

[[ $(found '^#include <gilvane/' libsrc/*/* | wc -l) -gt 20 && $(found '\bfriend\b' libsrc/*/* | wc -l) -gt 5 ]] ||
    fail "hardly an #include, or hardly a friend: is it looking in the right place?"
found=$(breaches .)
[[ -z $found ]] || fail "$found"

# --- the check itself -------------------------------------------------------------------------------------------------

# expectBreach FILE LINE TEXT: with this line added to a file of the library, the check says just this.
expectBreach() {
    freshFolder "$scratch/copy"
    cp -r libsrc "$scratch/copy"
    printf '%s\n' "$2" >>"$scratch/copy/libsrc/$1"
    local found
    found=$(breaches "$scratch/copy")
    [[ $found == "libsrc/$1 $3" ]] || fail "with the line \"$2\", the check says: ${found:-nothing}"
}

expectBreach base/gvobject.h '#include <gilvane/threads/gvmutex.h>' "includes from threads"
expectBreach threads/gvmutex.h '#include <gilvane/datastructures/gvhashtable.h>' "includes from datastructures"
expectBreach datastructures/gvhashtable.h '    friend class GVMemoryPool;' "befriends GVMemoryPool of utilities"
expectBreach datastructures/gvhashtable.h 'friend Gilvane::GVMutex;' "befriends GVMutex of threads"
expectBreach base/gvexception.h 'template <typename T> class GVSmartPointer;' "declares GVSmartPointer of utilities"
expectBreach base/gvobject.cpp 'struct GVMutexHandle;' "declares GVMutexHandle of threads"
expectBreach threads/gvmutexhandle.h 'void lend(class GVMemoryPool& pool);' "declares GVMemoryPool of utilities"
expectBreach utilities/gvmemorypool.h 'friend class GVNowhere;' "befriends GVNowhere of nothing"
expectBreach utilities/gvmemorypool.h 'class GILVANE_EXPORT GVNowhere;' "declares GVNowhere of nothing"

# --- building ---------------------------------------------------------------------------------------------------------

# links PROGRAM SOURCE...: the sources and nothing else make this program, which then runs.
links() {
    g++ -I include examples/"$1".cpp "${@:2}" -std=c++17 -pthread -o "$scratch/$1"
    "$scratch/$1" >/dev/null
}

mkdir -p "$scratch/objects"
printf '%s\n' libsrc/*/*.cpp | xargs -P "$(nproc)" -I{} sh -c \
    'g++ -std=c++17 -I include -c "$1" -o "$2/objects/$(basename "$1" .cpp).o"' compile {} "$scratch"
links quickstart "$scratch"/objects/*.o

# Without what the page on embedded use says needs Linux, the pool is whole, and nothing includes a header of Linux alone
# but the hooks, which see for themselves whether it is there.
needsLinux=$(sed -n '/<!-- what needs Linux -->/,/<!-- end of what needs Linux -->/s/^- `\(.*\)`$/\1/p' docs/guide/embedded.md)
[[ $(wc -l <<<"$needsLinux") -gt 3 ]] || fail "docs/guide/embedded.md says hardly what needs Linux"
while read -r source; do
    rm "$scratch/objects/$(basename "$source" .cpp).o" || fail "docs/guide/embedded.md: there is no $source"
done <<<"$needsLinux"
links quickstart "$scratch"/objects/*.o
for object in "$scratch"/objects/*.o; do
    source=$(ls libsrc/*/"$(basename "$object" .o)".cpp)
    [[ $source == libsrc/base/gvobject.cpp ]] ||
        ! g++ -std=c++17 -I include -M "$source" | grep -o 'linux/futex\.h\|sys/eventfd\.h\|sys/syscall\.h\|sys/mman\.h' ||
        fail "$source needs Linux, and docs/guide/embedded.md does not say so"
done
rm -rf "$scratch"
