# The packages that the project's scripts need; sourced by them.

# To build the library and the examples.
buildPackages=(cmake ninja-build g++ zlib1g-dev libconcurrentqueue-dev gzip)

# To make the site, with its search.
sitePackages=(cmake ninja-build g++ doxygen python3 libjs-lunr duktape)

# To take its picture, and those of gvview.
browserPackages=(chromium fonts-dejavu-core)
sitePicturePackages=("${sitePackages[@]}" "${browserPackages[@]}")
picturePackages=("${buildPackages[@]}" "${browserPackages[@]}" python3 pngquant)

# To make Debian packages.
packagingPackages=("${sitePackages[@]}" debhelper dpkg-dev)

# To run the tests as well.
testPackages=(
    "${buildPackages[@]}" "${sitePackages[@]}" "${packagingPackages[@]}" lintian meson
    clang libclang-rt-dev libc++-dev libc++abi-dev llvm clang-format clang-tidy libgtest-dev
    g++-arm-linux-gnueabihf qemu-user googletest abigail-tools python3
    pkg-config man-db libmimalloc-dev valgrind
    gdb gdb-multiarch binutils systemtap-sdt-dev bpftrace
)

# To prove.
provePackages=(
    "${testPackages[@]}" clang-19 llvm-19 libclang-rt-19-dev valgrind libc6-dbg
    g++-aarch64-linux-gnu g++-riscv64-linux-gnu g++-s390x-linux-gnu g++-i686-linux-gnu g++-arm-linux-gnueabi
    qemu-system-arm cpio
)

# To take the figures of embedded use.
embeddedPackages=(ninja-build g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user python3)

# To count instructions.
countPackages=("${buildPackages[@]}" valgrind python3)

# To run the benchmarks. Debian's Boost packages exclude each other, so that the one that is installed has to do; all have
# the pools, and the older ones lack a table.
boostPackage=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' 'libboost1.[0-9]?-dev' 2>/dev/null |
    sed -n 's/^installed //p' | tail -n 1) || true
benchPackages=(
    "${buildPackages[@]}"
    libbenchmark-dev "${boostPackage:-libboost1.81-dev}" libabsl-dev libmimalloc-dev gnuplot-nox python3 valgrind
    libdpdk-dev libjemalloc2 libtcmalloc-minimal4 pkg-config
)
