# How the interface of a shared library is taken down; sourced by the scripts that do it.

# What abidw writes must not depend on where the library was built.
takeDownInterface() { # LIBRARY FILE
    abidw --headers-dir libsrc --drop-private-types --no-corpus-path --no-comp-dir-path --no-show-locs \
        --out-file "$2" "$1"
    sed -i "s|path='[^']*/libsrc/|path='libsrc/|" "$2"
}
