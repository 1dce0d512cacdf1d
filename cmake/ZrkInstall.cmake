# Installs the library, its headers, a CMake package (zrk::zrkapi) and a
# pkg-config file. Included from the top-level CMakeLists.txt after the
# zrkapi target exists.
include(CMakePackageConfigHelpers)

get_target_property(zrk_library_type zrkapi TYPE)
if(zrk_library_type STREQUAL "STATIC_LIBRARY")
  set(ZRK_STATIC_LIBRARY ON)
  # libcurl goes in as a plain -l: through Requires.private, pkg-config
  # --static would also ask for curl's own private libraries, which Debian
  # ships only as shared objects.
  set(ZRK_PC_REQUIRES_PRIVATE "libturbojpeg spng libhwy libutf8proc")
  set(ZRK_PC_LIBS_PRIVATE "-lcurl -pthread")
else()
  set(ZRK_STATIC_LIBRARY OFF)
  set(ZRK_PC_REQUIRES_PRIVATE "")
  set(ZRK_PC_LIBS_PRIVATE "")
endif()

set(ZRK_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zrkapi)

install(TARGETS zrkapi EXPORT zrkapiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${ZRK_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zrk COMPONENT development)
install(FILES ${ZRK_TESTING_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zrk/testing COMPONENT development)
install(EXPORT zrkapiTargets NAMESPACE zrk:: DESTINATION ${ZRK_CMAKE_INSTALL_DIR} COMPONENT development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zrkapiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zrkapiConfig.cmake
  INSTALL_DESTINATION ${ZRK_CMAKE_INSTALL_DIR})
# 1.x releases keep the API of 1.0.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zrkapiConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zrkapiConfig.cmake ${PROJECT_BINARY_DIR}/zrkapiConfigVersion.cmake
  DESTINATION ${ZRK_CMAKE_INSTALL_DIR} COMPONENT development)

# The prefix is found from where the file lies, so that an install moved
# with "cmake --install --prefix" still compiles and links.
file(RELATIVE_PATH ZRK_PC_PREFIX_FROM_PCFILEDIR
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZRK_PC_PREFIX_FROM_PCFILEDIR "${ZRK_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/zrkapi.pc.in ${PROJECT_BINARY_DIR}/zrkapi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zrkapi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
