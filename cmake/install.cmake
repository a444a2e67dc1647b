# Install rules and package files: the public headers, libCorvane.so.1.0.0
# with its libCorvane.so.1 and libCorvane.so links, our two middlewares (the
# D-Bus one, libcorvane_dbus.so.1, and the in-process stand-in for unit
# tests, libcorvane_platform.so.1) with their headers, pkg-config files
# (corvane, corvane-dbus, corvane-platform) and a CMake package
# (find_package(Corvane 1.0) -> Corvane::Corvane, Corvane::Dbus,
# Corvane::Platform). With the D-Bus middleware, platform/policy installs
# the bus policy (share/dbus-1/system.d/org.corvane.conf) and
# examples/CMakeLists.txt the two daemons with their systemd units and a
# sysusers.d file.
#
# libCorvane imports the middleware without naming a library for it: a
# program links libCorvane and one middleware (the device's own, or one of
# ours).
include(CMakePackageConfigHelpers)

set(CORVANE_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Corvane
    CACHE STRING "Where the CMake package files of Corvane are installed")

set_target_properties(corvane_platform PROPERTIES EXPORT_NAME Platform)
set(CORVANE_INSTALL_TARGETS Corvane corvane_platform)
set(CORVANE_PC_FILES corvane corvane-platform)
if(TARGET corvane_dbus)
  # libcorvane_dbus.so.1 needs libCorvane.so.1, installed next to it.
  set_target_properties(corvane_dbus PROPERTIES EXPORT_NAME Dbus INSTALL_RPATH "$ORIGIN")
  list(APPEND CORVANE_INSTALL_TARGETS corvane_dbus)
  list(APPEND CORVANE_PC_FILES corvane-dbus)
endif()

install(TARGETS ${CORVANE_INSTALL_TARGETS}
  EXPORT CorvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
          NAMELINK_COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/corvane
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")
set(CORVANE_PLATFORM_HEADERS quib.h ranq.h quib_stub.h)
if(TARGET corvane_dbus)
  list(APPEND CORVANE_PLATFORM_HEADERS quib_dbus.h)
endif()
list(TRANSFORM CORVANE_PLATFORM_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/platform/include/)
install(FILES ${CORVANE_PLATFORM_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane-platform COMPONENT development)

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
foreach(pc IN LISTS CORVANE_PC_FILES)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc.in @ONLY)
  install(CODE "
    set(CORVANE_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${PROJECT_BINARY_DIR}/${pc}.pc.in\" \"${PROJECT_BINARY_DIR}/${pc}.pc\" @ONLY)
    " COMPONENT development)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
