# Labels the tests of misuse.txt. Run by ctest, since only ctest knows the names of the programs' tests.
file(STRINGS "${CMAKE_CURRENT_LIST_DIR}/misuse.txt" tests REGEX "^[^#]")
set_tests_properties(${tests} PROPERTIES LABELS misuse)
