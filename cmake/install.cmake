# Installs the shared library with its symlinks, the public header, a pkg-config file and a
# CMake package configuration (find_package(zovdx) -> zovdx::zovdx).
include(CMakePackageConfigHelpers)

# Components are the Debian packages (cmake/package.cmake): the library itself in "lib", what
# a program needs to build against it in "dev".
install(TARGETS zovdx EXPORT zovdxTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/virtual/include/zovdx/vdx.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zovdx COMPONENT dev)

set(ZOVDX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zovdx)
install(EXPORT zovdxTargets NAMESPACE zovdx:: DESTINATION ${ZOVDX_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zovdxConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zovdxConfig.cmake INSTALL_DESTINATION ${ZOVDX_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zovdxConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zovdxConfig.cmake ${PROJECT_BINARY_DIR}/zovdxConfigVersion.cmake
  DESTINATION ${ZOVDX_CMAKE_DIR} COMPONENT dev)

# The pkg-config file finds the prefix from where it lies, so the tree can be installed
# under any --prefix (or DESTDIR) and moved.
file(RELATIVE_PATH ZOVDX_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZOVDX_PC_TO_PREFIX "${ZOVDX_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/zovdx.pc.in ${PROJECT_BINARY_DIR}/zovdx.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zovdx.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
