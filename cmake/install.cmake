# What `cmake --install` puts into a prefix. A prefix may be moved afterwards: a file in it that names a folder does so
# from where it stands itself.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    message(FATAL_ERROR "CMAKE_INSTALL_${dir} has to be relative to the prefix")
  endif()
endforeach()

# --- headers and libraries --------------------------------------------------------------------------------------------

install(DIRECTORY libsrc/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/gilvane FILES_MATCHING PATTERN "*.h")
install(TARGETS gilvane_static gilvane_shared EXPORT GilvaneTargets INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# --- find_package(Gilvane) --------------------------------------------------------------------------------------------

set(gilvane_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Gilvane)
install(EXPORT GilvaneTargets NAMESPACE Gilvane:: DESTINATION ${gilvane_config_dir})
configure_package_config_file(cmake/GilvaneConfig.cmake.in ${PROJECT_BINARY_DIR}/GilvaneConfig.cmake
  INSTALL_DESTINATION ${gilvane_config_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/GilvaneConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/GilvaneConfig.cmake ${PROJECT_BINARY_DIR}/GilvaneConfigVersion.cmake
  DESTINATION ${gilvane_config_dir})

# --- gilvane.pc -------------------------------------------------------------------------------------------------------

set(gilvane_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH gilvane_pc_to_prefix /${gilvane_pc_dir} /)
string(REGEX REPLACE "/$" "" gilvane_pc_to_prefix "${gilvane_pc_to_prefix}")
list(TRANSFORM gilvane_definitions PREPEND " -D" OUTPUT_VARIABLE gilvane_pc_definitions)
string(JOIN "" gilvane_pc_definitions ${gilvane_pc_definitions})
list(TRANSFORM gilvane_options PREPEND " " OUTPUT_VARIABLE gilvane_pc_options)
string(JOIN "" gilvane_pc_options ${gilvane_pc_options})
set(gilvane_pc_private_libraries "")
if(GILVANE_MIMALLOC)
  set(gilvane_pc_private_libraries " -lmimalloc")
endif()
configure_file(cmake/gilvane.pc.in ${PROJECT_BINARY_DIR}/gilvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/gilvane.pc DESTINATION ${gilvane_pc_dir})
