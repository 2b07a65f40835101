# The files that `cmake --install` writes. Components: runtime (the shared library), dev (headers, CMake and pkg-config
# files, the link to the library or the static one, the library for tests), tools (the agent, its units, completion for
# shells).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(tidegate_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/tidegate-metrics)
set(tidegate_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tidegate-metrics)

install(
  TARGETS tidegate_metrics tidegate_metrics_testing
  EXPORT tidegate-metrics-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  INCLUDES DESTINATION ${tidegate_include_dir})

foreach(header IN LISTS TIDEGATE_PUBLIC_HEADERS)
  string(REGEX REPLACE "^(include|src)/" "" installed ${header})
  cmake_path(GET installed PARENT_PATH folder)
  install(
    FILES ${TIDEGATE_STAGED_HEADERS}/${installed}
    DESTINATION ${tidegate_include_dir}/${folder}
    COMPONENT dev)
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

# The pkg-config file names a folder under the prefix relative to the prefix, an absolute one as it is. If the file
# itself is under the prefix, it names the prefix relative to itself, so that the tree can be moved.
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
if(TIDEGATE_LIBRARY_TYPE STREQUAL "STATIC")
  set(TIDEGATE_PC_PRIVATE "")
  set(TIDEGATE_PC_FLAGS " -pthread -Wl,-z,nodelete")
else()
  set(TIDEGATE_PC_PRIVATE .private)
  set(TIDEGATE_PC_FLAGS "")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/tidegate-metrics.pc.in
               ${PROJECT_BINARY_DIR}/tidegate-metrics.pc @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tidegate-metrics-testing.pc.in
               ${PROJECT_BINARY_DIR}/tidegate-metrics-testing.pc @ONLY)
install(
  FILES ${PROJECT_BINARY_DIR}/tidegate-metrics.pc ${PROJECT_BINARY_DIR}/tidegate-metrics-testing.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)

if(TIDEGATE_BUILD_AGENT)
  set(tidegate_systemd ${PROJECT_SOURCE_DIR}/tools/agent/systemd)
  install(TARGETS tidegate-agent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  set(TIDEGATE_UNITS tidegate-agent.service tidegate-agent.socket)
  list(TRANSFORM TIDEGATE_UNITS PREPEND ${tidegate_systemd}/ OUTPUT_VARIABLE tidegate_unit_files)
  install(
    FILES ${tidegate_unit_files}
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
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ # it may hold a password
    COMPONENT tools)
  install(
    DIRECTORY share/
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/tidegate-agent
    COMPONENT tools
    PATTERN alerts_test.yml EXCLUDE)
  install(
    FILES tools/agent/completion/tidegate-agent.bash
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
    RENAME tidegate-agent
    COMPONENT tools)
  install(
    FILES tools/agent/completion/tidegate-agent.zsh
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/vendor-completions
    RENAME _tidegate-agent
    COMPONENT tools)
endif()
