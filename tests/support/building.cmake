# What the builds of the suite share: that of the project, and that of the proof's mutants.

# GoogleTest as GTest::gtest and GTest::gtest_main: Debian's binaries, or built from Debian's sources. It has binaries
# for the building machine and its usual standard library alone, and sources for everyone.
function(gilvane_find_gtest from_sources)
  if(NOT from_sources)
    find_package(GTest REQUIRED)
    return()
  endif()
  set(INSTALL_GTEST OFF)
  set(BUILD_GMOCK OFF)
  add_subdirectory(/usr/src/googletest ${CMAKE_CURRENT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  target_compile_options(gtest PRIVATE -O0 -g1)
endfunction()

# Tests see some calls of the library, and make some fail: where a program has a __wrap_f, the linker sends the calls of
# f there.
function(gilvane_wrap_calls program)
  get_target_property(sources ${program} SOURCES)
  set(calls "")
  foreach(source ${sources})
    file(STRINGS "${source}" lines REGEX "__wrap_")
    string(REGEX MATCHALL "__wrap_[A-Za-z0-9_]+" names "${lines}")
    list(APPEND calls ${names})
  endforeach()
  list(REMOVE_DUPLICATES calls)
  list(TRANSFORM calls REPLACE "^__wrap_" "LINKER:--wrap=")
  target_link_options(${program} PRIVATE ${calls})
endfunction()

# The library once more, built with these definitions whatever the build around it is, and never installed. The linter
# has seen its sources elsewhere.
function(gilvane_add_library_again name kind)
  add_library(${name} ${kind} ${gilvane_sources})
  set_target_properties(${name} PROPERTIES EXPORT_COMPILE_COMMANDS OFF)
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_compile_definitions(${name} PUBLIC ${ARGN})
  target_include_directories(${name} PUBLIC ${GILVANE_LIBRARY}/include)
  target_link_libraries(${name} PUBLIC Threads::Threads PRIVATE gilvane_build_flags)
endfunction()
