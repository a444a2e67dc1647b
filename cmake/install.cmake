# Install rules and package files: the public headers, libCorvane.so.1.0.0
# with its libCorvane.so.1 and libCorvane.so links, the stand-in platform
# library it needs at run time (and its headers), a pkg-config file and a
# CMake package (find_package(Corvane 1.0) -> Corvane::Corvane).
include(CMakePackageConfigHelpers)

set(CORVANE_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Corvane
    CACHE STRING "Where the CMake package files of Corvane are installed")

# libCorvane.so.1 names libcorvane_platform.so.1 as DT_NEEDED. Both are
# installed side by side, so the library looks for it next to itself first:
# a copy unpacked into any prefix works without LD_LIBRARY_PATH.
set_target_properties(Corvane PROPERTIES INSTALL_RPATH "$ORIGIN")
# Imported as Corvane::Platform by consumers of the CMake package.
set_target_properties(corvane_platform PROPERTIES EXPORT_NAME Platform)

install(TARGETS Corvane corvane_platform
  EXPORT CorvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
          NAMELINK_COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/corvane
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane-platform COMPONENT development
  FILES_MATCHING PATTERN "*.h")

install(EXPORT CorvaneTargets
  NAMESPACE Corvane::
  DESTINATION ${CORVANE_INSTALL_CMAKEDIR} COMPONENT development)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/CorvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/CorvaneConfig.cmake
  INSTALL_DESTINATION ${CORVANE_INSTALL_CMAKEDIR})
# 1.x consumers accept any 1.y; a 2.0 library is a different ABI (libCorvane.so.2).
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CorvaneConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/CorvaneConfig.cmake
              ${PROJECT_BINARY_DIR}/CorvaneConfigVersion.cmake
  DESTINATION ${CORVANE_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config: libdir and includedir relative to ${prefix}; the prefix itself
# is written when installing, so that `cmake --install --prefix DIR` gives a
# file that points into DIR (DESTDIR is not part of it).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(CORVANE_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(CORVANE_PC_LIBDIR "\${exec_prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(CORVANE_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(CORVANE_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
set(CORVANE_PC_PREFIX "@CORVANE_PC_PREFIX@")  # kept for the install step
configure_file(${CMAKE_CURRENT_LIST_DIR}/corvane.pc.in ${PROJECT_BINARY_DIR}/corvane.pc.in @ONLY)
install(CODE "
  set(CORVANE_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/corvane.pc.in\" \"${PROJECT_BINARY_DIR}/corvane.pc\" @ONLY)
  " COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/corvane.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
