# Installation, in the parts that packages are made of: the program ("tools"), the shared library ("runtime") and what
# programs on the library are built with ("dev"). Nothing in it knows the prefix.
include(CMakePackageConfigHelpers)

set(qvx_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qvx)
set(qvx_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(QVX_ZSH_COMPLETIONS_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING "Folder of the zsh completion")

install(TARGETS qvx_read RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(TARGETS qvx qvx_shared EXPORT qvx-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

foreach(header IN LISTS QVX_PUBLIC_HEADERS)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder} COMPONENT dev)
endforeach()

install(EXPORT qvx-targets NAMESPACE qvx:: DESTINATION ${qvx_package_dir} COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qvx-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/qvx-config.cmake ${PROJECT_BINARY_DIR}/qvx-config-version.cmake
  DESTINATION ${qvx_package_dir} COMPONENT dev)

file(RELATIVE_PATH qvx_prefix_from_pc /prefix/${qvx_pkgconfig_dir} /prefix)
configure_file(cmake/qvx.pc.in qvx.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvx.pc DESTINATION ${qvx_pkgconfig_dir} COMPONENT dev)

configure_file(docs/man/qvx_read.1.in qvx_read.1 @ONLY)
configure_file(docs/man/qvx.5.in qvx.5 @ONLY)
if(NOT QVX_DEBIAN_FILES)
  install(FILES ${PROJECT_BINARY_DIR}/qvx_read.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${PROJECT_BINARY_DIR}/qvx.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT tools)
  install(FILES LICENSE NOTICE DESTINATION ${CMAKE_INSTALL_DATADIR}/licenses/qvx COMPONENT dev)
endif()

# The completions share one script, which finds event types. Its remarks do not go with it.
file(READ completions/event_types.sh QVX_EVENT_TYPES)
string(REGEX REPLACE "^(#[^\n]*\n)+" "" QVX_EVENT_TYPES "${QVX_EVENT_TYPES}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS completions/event_types.sh)
configure_file(completions/qvx_read.bash.in completions/qvx_read @ONLY)
configure_file(completions/_qvx_read.in completions/_qvx_read @ONLY)
configure_file(completions/qvx_read.fish.in completions/qvx_read.fish @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/completions/qvx_read
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
install(FILES ${PROJECT_BINARY_DIR}/completions/_qvx_read DESTINATION ${QVX_ZSH_COMPLETIONS_DIR} COMPONENT tools)
install(FILES ${PROJECT_BINARY_DIR}/completions/qvx_read.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
