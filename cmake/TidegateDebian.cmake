# Debian packages: `cpack -G DEB` in the build folder of the preset `package`. One for each component of
# TidegateInstall.cmake. With the programs go manual pages, documents, changelogs, copyright and the scripts that dpkg
# runs.

find_program(TIDEGATE_HELP2MAN help2man REQUIRED)
find_program(TIDEGATE_GZIP gzip REQUIRED)

set(tidegate_debian ${CMAKE_CURRENT_LIST_DIR}/debian)
set(tidegate_made ${PROJECT_BINARY_DIR}/debian)
set(tidegate_library_package libtidegate-metrics${PROJECT_VERSION_MAJOR})
set(tidegate_dev_package libtidegate-metrics-dev)
set(tidegate_agent_package tidegate-agent)
file(MAKE_DIRECTORY ${tidegate_made}/compressed)

# The newest entry of the changelog has the release of the packages.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${tidegate_debian}/changelog)
file(READ ${tidegate_debian}/changelog tidegate_changelog)
if(NOT tidegate_changelog MATCHES "^tidegate-metrics \\(([0-9.]+)-([^)]+)\\)" OR NOT CMAKE_MATCH_1 STREQUAL
                                                                            PROJECT_VERSION)
  message(FATAL_ERROR "cmake/debian/changelog has no entry for version ${PROJECT_VERSION}")
endif()
set(tidegate_release ${CMAKE_MATCH_2})

# Compresses a file to build/.../debian/NAME.gz as the packages hold it, without its date.
set(tidegate_compressed)
function(tidegate_compress file name)
  set(made ${tidegate_made}/${name}.gz)
  add_custom_command(
    OUTPUT ${made}
    COMMAND ${CMAKE_COMMAND} -E copy ${file} ${tidegate_made}/compressed/${name}
    COMMAND ${TIDEGATE_GZIP} -9nf ${tidegate_made}/compressed/${name}
    COMMAND ${CMAKE_COMMAND} -E rename ${tidegate_made}/compressed/${name}.gz ${made}
    DEPENDS ${file}
    VERBATIM)
  set(tidegate_compressed ${tidegate_compressed} ${made} PARENT_SCOPE)
endfunction()

tidegate_compress(${tidegate_debian}/changelog changelog.Debian)
tidegate_compress(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog)
configure_file(docs/man/tidegate-metrics.7.in ${tidegate_made}/tidegate-metrics.7 @ONLY)
tidegate_compress(${tidegate_made}/tidegate-metrics.7 tidegate-metrics.7)
add_custom_command(
  OUTPUT ${tidegate_made}/tidegate-agent.1
  COMMAND
    ${TIDEGATE_HELP2MAN} --no-info --include=${PROJECT_SOURCE_DIR}/tools/agent/man/tidegate-agent.h2m
    --output=${tidegate_made}/tidegate-agent.1 $<TARGET_FILE:tidegate-agent>
  DEPENDS tidegate-agent tools/agent/man/tidegate-agent.h2m
  VERBATIM)
tidegate_compress(${tidegate_made}/tidegate-agent.1 tidegate-agent.1)
add_custom_target(tidegate_debian ALL DEPENDS ${tidegate_compressed})

set(tidegate_doc ${CMAKE_INSTALL_DATAROOTDIR}/doc)
foreach(component IN ITEMS library:runtime dev:dev agent:tools)
  string(REGEX MATCH "^(.*):(.*)$" component ${component})
  set(package ${tidegate_${CMAKE_MATCH_1}_package})
  install(
    FILES ${tidegate_made}/changelog.Debian.gz ${tidegate_made}/changelog.gz ${tidegate_debian}/copyright
    DESTINATION ${tidegate_doc}/${package}
    COMPONENT ${CMAKE_MATCH_2})
  if(EXISTS ${tidegate_debian}/${package}.lintian-overrides)
    install(
      FILES ${tidegate_debian}/${package}.lintian-overrides
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
      RENAME ${package}
      COMPONENT ${CMAKE_MATCH_2})
  endif()
endforeach()
install(FILES ${tidegate_made}/tidegate-metrics.7.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT dev)
install(FILES ${tidegate_made}/tidegate-agent.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)

# The documents are not compressed and keep their folders: they link each other.
foreach(component IN ITEMS dev:dev agent:tools)
  string(REGEX MATCH "^(.*):(.*)$" component ${component})
  set(folder ${tidegate_doc}/${tidegate_${CMAKE_MATCH_1}_package})
  install(FILES README.md DESTINATION ${folder} COMPONENT ${CMAKE_MATCH_2})
  install(
    DIRECTORY docs
    DESTINATION ${folder}
    COMPONENT ${CMAKE_MATCH_2}
    FILES_MATCHING
    PATTERN "*.md"
    PATTERN man EXCLUDE)
endforeach()
install(DIRECTORY examples DESTINATION ${tidegate_doc}/${tidegate_dev_package} COMPONENT dev)

string(REPLACE ";" " " TIDEGATE_UNITS "${TIDEGATE_UNITS}")
foreach(script IN ITEMS postinst prerm postrm)
  configure_file(${tidegate_debian}/${script}.in ${tidegate_made}/${script} @ONLY)
endforeach()
file(WRITE ${tidegate_made}/triggers "activate-noawait ldconfig\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tidegate-metrics)
set(CPACK_PACKAGE_VENDOR "tidegate")
set(CPACK_PACKAGE_CONTACT "tidegate maintainers <maintainers@tidegate.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each component has its own
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${tidegate_release})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "client-side metrics for long-running services (shared library)
A library with which services count things at high rates. It adds
numbers up in memory, by name and tags, and hands the points to an agent
on the same host once per interval.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${tidegate_library_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${tidegate_made}/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS ${tidegate_agent_package})

set(CPACK_COMPONENT_DEV_DESCRIPTION
    "client-side metrics for long-running services (headers)
Headers, CMake and pkg-config files, the guide and examples of the
library with which services count things at high rates.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${tidegate_dev_package})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${tidegate_library_package} (= ${PROJECT_VERSION}-${tidegate_release}), zlib1g-dev")

set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "receives, shows and forwards the metrics of this host
The agent of a host: takes what services count with libtidegate-metrics,
prints it, serves it to Prometheus and forwards it to a database.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tidegate_agent_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
# The agent forwards by https with these.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS ca-certificates)
# CPack adds the libraries that it links.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    ${tidegate_made}/postinst ${tidegate_made}/prerm ${tidegate_made}/postrm ${tidegate_debian}/conffiles)
include(CPack)
