# kp_install_unit(FILE COMPONENT)
#
# Installs a unit of systemd. It is made when it is installed, since `cmake --install --prefix` may
# choose another place for the program that it starts. Each prefix has its own file in the build
# folder, so that two installations at once do not write the same one.
function(kp_install_unit file component)
  cmake_path(GET file FILENAME name)
  install(
    CODE "cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
          cmake_path(APPEND prefix \"${CMAKE_INSTALL_BINDIR}\" OUTPUT_VARIABLE CMAKE_INSTALL_FULL_BINDIR)
          string(MD5 place \"\${prefix}\")
          set(unit \"${CMAKE_CURRENT_BINARY_DIR}/units/\${place}/${name}\")
          configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/${file}\" \"\${unit}\" @ONLY)
          file(INSTALL \"\${unit}\" DESTINATION \"\${prefix}/lib/systemd/system\")"
    COMPONENT ${component})
endfunction()
