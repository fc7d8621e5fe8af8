# kp_install_unit(FILE COMPONENT)
#
# Installs a unit of systemd. It is made at the place to which it is installed, since
# `cmake --install --prefix` may choose another one for the program that it starts, and two
# installations at once may choose different ones.
function(kp_install_unit file component)
  cmake_path(GET file FILENAME name)
  install(
    CODE "set(prefix \"\${CMAKE_INSTALL_PREFIX}/\")
          cmake_path(ABSOLUTE_PATH prefix NORMALIZE)
          cmake_path(APPEND prefix \"${CMAKE_INSTALL_BINDIR}\" OUTPUT_VARIABLE CMAKE_INSTALL_FULL_BINDIR)
          set(unit \"\${prefix}lib/systemd/system/${name}\")
          message(STATUS \"Installing: \$ENV{DESTDIR}\${unit}\")
          configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/${file}\" \"\$ENV{DESTDIR}\${unit}\" @ONLY
                         NO_SOURCE_PERMISSIONS)
          list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${unit}\")"
    COMPONENT ${component})
endfunction()
