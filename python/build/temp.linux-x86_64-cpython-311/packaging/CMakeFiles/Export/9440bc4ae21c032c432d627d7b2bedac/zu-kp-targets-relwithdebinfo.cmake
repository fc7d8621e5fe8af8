#----------------------------------------------------------------
# Generated CMake target import file for configuration "RelWithDebInfo".
#----------------------------------------------------------------

# Commands may need to know the format version.
set(CMAKE_IMPORT_FILE_VERSION 1)

# Import target "zu-kp::kp" for configuration "RelWithDebInfo"
set_property(TARGET zu-kp::kp APPEND PROPERTY IMPORTED_CONFIGURATIONS RELWITHDEBINFO)
set_target_properties(zu-kp::kp PROPERTIES
  IMPORTED_LOCATION_RELWITHDEBINFO "${_IMPORT_PREFIX}/lib/libzu-kp.so.3.0.0"
  IMPORTED_SONAME_RELWITHDEBINFO "libzu-kp.so.3"
  )

list(APPEND _cmake_import_check_targets zu-kp::kp )
list(APPEND _cmake_import_check_files_for_zu-kp::kp "${_IMPORT_PREFIX}/lib/libzu-kp.so.3.0.0" )

# Commands beyond this point should not need to know the version.
set(CMAKE_IMPORT_FILE_VERSION)
