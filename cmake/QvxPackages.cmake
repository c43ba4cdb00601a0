# cpack -G DEB: qvx-tools, libqvx1 and libqvx-dev, made of the install components. The preset "package" is for it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qvx)
set(CPACK_PACKAGE_VENDOR Quorvex)
# The first line of a component's description is the summary of its package. CPack would put the project's before all of
# them, but for the one that it takes for none.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGE_CONTACT "Quorvex maintainers <maintainers@quorvex.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tools runtime dev)
# Folders of packages may be read by all, whatever the umask of who makes them.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qvx-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "prints Quorvex telemetry data files as text
qvx_read prints the binary data files that the Quorvex telemetry
collectors write: as JSON, NDJSON, text tables or Influx line protocol.
Files may be filtered by time and name, sorted, and compressed.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqvx${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
configure_file(packaging/debian/shlibs.in debian/shlibs @ONLY)
configure_file(packaging/debian/triggers debian/triggers COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_BINARY_DIR}/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "library that reads and writes Quorvex telemetry data files
It decodes the counters, events and labelled metrics in the binary data
files that the Quorvex telemetry collectors write, and writes such files.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqvx-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libqvx${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}-1), zlib1g-dev, \
libboost-dev (>= 1.74), libsnappy-dev, libdeflate-dev, libssl-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "library that reads Quorvex telemetry data files (development)
It decodes the counters, events and labelled metrics in the binary data
files that the Quorvex telemetry collectors write, and writes such files.
.
This package holds the headers, the static library and what CMake and
pkg-config need to find them.")

if(QVX_DEBIAN_FILES)
  set(qvx_debian_dir ${PROJECT_BINARY_DIR}/debian)
  qvx_build_time(QVX_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000")
  configure_file(packaging/debian/changelog.in ${qvx_debian_dir}/changelog.Debian @ONLY)
  file(MAKE_DIRECTORY ${qvx_debian_dir})
  foreach(text ${qvx_debian_dir}/changelog.Debian ${PROJECT_BINARY_DIR}/qvx_read.1 ${PROJECT_BINARY_DIR}/qvx.5
      ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
    cmake_path(GET text FILENAME name)
    execute_process(COMMAND gzip -9nc ${text} OUTPUT_FILE ${qvx_debian_dir}/${name}.gz COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  file(RENAME ${qvx_debian_dir}/CHANGELOG.md.gz ${qvx_debian_dir}/changelog.gz)
  install(FILES ${qvx_debian_dir}/qvx_read.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${qvx_debian_dir}/qvx.5.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT tools)
  # The licence stands in /usr/share/common-licenses; the notices of the linked libraries do not.
  file(READ NOTICE QVX_NOTICE)
  configure_file(packaging/debian/copyright.in ${qvx_debian_dir}/copyright @ONLY)
  foreach(component TOOLS RUNTIME DEV)
    string(TOLOWER ${component} lower)
    install(FILES ${qvx_debian_dir}/copyright ${qvx_debian_dir}/changelog.Debian.gz ${qvx_debian_dir}/changelog.gz
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME} COMPONENT ${lower})
  endforeach()
endif()

configure_file(packaging/rpm/qvx.spec.in packaging/qvx.spec @ONLY)
configure_file(packaging/arch/PKGBUILD.in packaging/PKGBUILD @ONLY)

include(CPack)
