# Installation into any prefix: run paths relative to the binaries, the
# helper scripts with launchers on the path, manual pages, a CMake package
# and pkg-config files. Everything here is relocatable: `cmake --install
# build --prefix DIR` gives a tree that works wherever DIR is. The Debian
# packages are built from debian/ with dpkg-buildpackage.
include(CMakePackageConfigHelpers)

# Run paths: the device library finds taudio2base beside itself (a client's
# own run path does not cover the dependencies of the libraries it loads);
# it and taudio2call find libshared in its private directory.
file(RELATIVE_PATH lib_to_private /prefix/${CMAKE_INSTALL_LIBDIR} /prefix/${TAUDIO2_PRIVATE_LIBDIR})
file(RELATIVE_PATH bin_to_private /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${TAUDIO2_PRIVATE_LIBDIR})
set_target_properties(taudio2universaldev PROPERTIES INSTALL_RPATH "$ORIGIN;$ORIGIN/${lib_to_private}")
set_property(TARGET taudio2call APPEND PROPERTY INSTALL_RPATH "$ORIGIN/${bin_to_private}")
# taudio2base calls nothing in libc itself, so --as-needed would drop it; a
# shared library names the C library all the same (Debian checks it, and its
# static destructors run through libc's __cxa_finalize when it is unloaded).
target_link_libraries(taudio2base PRIVATE -Wl,--push-state,--no-as-needed,-lc,--pop-state)

set(TAUDIO2_DATADIR ${CMAKE_INSTALL_DATADIR}/taudio2)
install(PROGRAMS tools/aec_report.py scripts/virtual-room.sh DESTINATION ${TAUDIO2_DATADIR})
# Launchers: relative links, which survive moving the prefix.
file(RELATIVE_PATH to_data /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${TAUDIO2_DATADIR})
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/launchers)
foreach(launcher taudio2-aec-report:aec_report.py taudio2-virtual-room:virtual-room.sh)
  string(REPLACE ":" ";" launcher ${launcher})
  list(GET launcher 0 name)
  list(GET launcher 1 script)
  file(CREATE_LINK ${to_data}/${script} ${CMAKE_CURRENT_BINARY_DIR}/launchers/${name} SYMBOLIC)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/launchers/${name} DESTINATION ${CMAKE_INSTALL_BINDIR})
endforeach()
install(FILES LICENSE README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES man/taudio2call.1 man/taudio2-aec-report.1 man/taudio2-virtual-room.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

set(TAUDIO2_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/TAudio2)
install(EXPORT TAudio2Targets NAMESPACE TAudio2:: DESTINATION ${TAUDIO2_CMAKEDIR} COMPONENT development)
configure_package_config_file(cmake/TAudio2Config.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/TAudio2Config.cmake
  INSTALL_DESTINATION ${TAUDIO2_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TAudio2ConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TAudio2Config.cmake ${CMAKE_CURRENT_BINARY_DIR}/TAudio2ConfigVersion.cmake
  DESTINATION ${TAUDIO2_CMAKEDIR} COMPONENT development)

# pkg-config files locate the prefix from their own folder.
file(RELATIVE_PATH TAUDIO2_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TAUDIO2_PC_TO_PREFIX "${TAUDIO2_PC_TO_PREFIX}")
foreach(pc taudio2shared taudio2base taudio2universaldev)
  configure_file(cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${pc}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
