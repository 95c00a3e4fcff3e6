# Debian's cross compiler for a Linux target, named by its triplet:
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/debian-cross.cmake -DGILVANE_TRIPLET=aarch64-linux-gnu ...
#
# The package g++-TRIPLET has the compiler, with the target's C and C++ libraries. Programs run under qemu's user
# emulation; those of 32-bit x86 run on this machine itself, with the cross compiler's libraries.
set(GILVANE_TRIPLET "" CACHE STRING "The target, as Debian's compilers have it in their names")
# CMake's own checks compile in projects of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES GILVANE_TRIPLET)
if(NOT GILVANE_TRIPLET MATCHES "^([a-z0-9]+)-linux-gnu[a-z]*$")
  message(FATAL_ERROR "GILVANE_TRIPLET has to be a triplet such as aarch64-linux-gnu, and is '${GILVANE_TRIPLET}'")
endif()
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_MATCH_1})
set(CMAKE_CXX_COMPILER ${GILVANE_TRIPLET}-g++)
set(CMAKE_C_COMPILER ${GILVANE_TRIPLET}-gcc)
set(CMAKE_FIND_ROOT_PATH /usr/${GILVANE_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "i686")
  set(gilvane_libraries /usr/${GILVANE_TRIPLET}/lib)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=${gilvane_libraries}/ld-linux.so.2 -Wl,-rpath,${gilvane_libraries}")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR} -L /usr/${GILVANE_TRIPLET})
endif()
