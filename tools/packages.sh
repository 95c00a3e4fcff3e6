# The packages that the project's scripts need; sourced by them.

# To build the library and the examples.
buildPackages=(cmake ninja-build g++ zlib1g-dev gzip)

# To make the site.
sitePackages=(cmake ninja-build g++ doxygen python3)

# To take its picture.
sitePicturePackages=("${sitePackages[@]}" chromium fonts-dejavu-core)

# To run the tests as well.
testPackages=(
    "${buildPackages[@]}" "${sitePackages[@]}"
    clang libclang-rt-dev llvm clang-format clang-tidy libgtest-dev
    g++-arm-linux-gnueabihf qemu-user googletest abigail-tools python3
    pkg-config dpkg-dev file libmimalloc-dev valgrind
    gdb gdb-multiarch binutils
)

# To count instructions.
countPackages=("${buildPackages[@]}" valgrind python3)

# To run the benchmarks.
benchPackages=(
    "${buildPackages[@]}"
    libbenchmark-dev libboost1.81-dev libabsl-dev libmimalloc-dev gnuplot-nox python3 valgrind
)
