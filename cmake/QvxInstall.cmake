# Installation: the program, the library with its headers, and the package configuration that find_package
# reads. The reader's own headers stay behind: they belong to the program.
include(CMakePackageConfigHelpers)

set(qvx_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qvx)

install(TARGETS qvx_read RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS qvx EXPORT qvx-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY qvx DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h" PATTERN "reader" EXCLUDE)

install(EXPORT qvx-targets NAMESPACE qvx:: DESTINATION ${qvx_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qvx-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/qvx-config.cmake ${PROJECT_BINARY_DIR}/qvx-config-version.cmake
  DESTINATION ${qvx_package_dir})
