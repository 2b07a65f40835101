# What `cmake --install` and `cpack` make. Components: runtime (the shared library), dev (headers, CMake
# and pkg-config files, the link to the library), tools (the agent and its unit).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/TidegatePublicHeaders.cmake)

set(tidegate_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/tidegate-metrics)
set(tidegate_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tidegate-metrics)

install(
  TARGETS tidegate_metrics
  EXPORT tidegate-metrics-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${tidegate_include_dir})

foreach(header IN LISTS TIDEGATE_PUBLIC_HEADERS)
  string(REGEX REPLACE "^(include|src)/" "" installed ${header})
  cmake_path(GET installed PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${tidegate_include_dir}/${folder} COMPONENT dev)
endforeach()

install(
  EXPORT tidegate-metrics-targets
  NAMESPACE tidegate::
  DESTINATION ${tidegate_cmake_dir}
  COMPONENT dev)
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/tidegate-metrics-config.cmake.in
  ${PROJECT_BINARY_DIR}/tidegate-metrics-config.cmake
  INSTALL_DESTINATION ${tidegate_cmake_dir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tidegate-metrics-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/tidegate-metrics-config.cmake
        ${PROJECT_BINARY_DIR}/tidegate-metrics-config-version.cmake
  DESTINATION ${tidegate_cmake_dir}
  COMPONENT dev)

# A folder under the prefix is written relative to it, an absolute one as it is. Where the file itself
# lies under the prefix, it finds the prefix from there, so that the tree can be moved.
function(tidegate_pc_dir dir result)
  if(IS_ABSOLUTE ${dir})
    set(${result} ${dir} PARENT_SCOPE)
  else()
    set(${result} "\${prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(TIDEGATE_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
  set(TIDEGATE_PC_PREFIX "\${pcfiledir}/${to_prefix}")
endif()
tidegate_pc_dir(${CMAKE_INSTALL_LIBDIR} TIDEGATE_PC_LIBDIR)
tidegate_pc_dir(${CMAKE_INSTALL_INCLUDEDIR} TIDEGATE_PC_INCLUDEDIR)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tidegate-metrics.pc.in
               ${PROJECT_BINARY_DIR}/tidegate-metrics.pc @ONLY)
install(
  FILES ${PROJECT_BINARY_DIR}/tidegate-metrics.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)

if(TIDEGATE_BUILD_AGENT)
  set(tidegate_systemd ${PROJECT_SOURCE_DIR}/tools/agent/systemd)
  install(TARGETS tidegate-agent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(
    FILES ${tidegate_systemd}/tidegate-agent.service ${tidegate_systemd}/tidegate-agent.socket
    DESTINATION lib/systemd/system
    COMPONENT tools)
  install(
    FILES ${tidegate_systemd}/tidegate-agent.sysusers
    DESTINATION lib/sysusers.d
    RENAME tidegate-agent.conf
    COMPONENT tools)
  install(
    FILES ${tidegate_systemd}/tidegate-agent.tmpfiles
    DESTINATION lib/tmpfiles.d
    RENAME tidegate-agent.conf
    COMPONENT tools)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(tidegate_etc /etc)
  else()
    set(tidegate_etc ${CMAKE_INSTALL_SYSCONFDIR})
  endif()
  install(
    FILES ${tidegate_systemd}/tidegate-agent.conf
    DESTINATION ${tidegate_etc}
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ # there can be a password in it
    COMPONENT tools)
endif()

# Debian packages: `cpack -G DEB` in the build folder of the preset `package`. A project that embeds this
# one makes its own.
if(NOT TIDEGATE_TOP_LEVEL)
  return()
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tidegate-metrics)
set(CPACK_PACKAGE_VENDOR "tidegate")
set(CPACK_PACKAGE_CONTACT "tidegate maintainers <maintainers@tidegate.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TIDEGATE_BUILD_AGENT)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: the shared library")
set(CPACK_COMPONENT_DEV_DESCRIPTION "${PROJECT_DESCRIPTION}: headers and build files")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Receives, shows and forwards the metrics of this host")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtidegate-metrics${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtidegate-metrics-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), zlib1g-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tidegate-agent)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
# To forward by https.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/postinst
                                             ${PROJECT_SOURCE_DIR}/cmake/debian/conffiles)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
include(CPack)
