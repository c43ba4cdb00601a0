# find_package(qvx): the library as the targets qvx::qvx, which is shared, and qvx::qvx_static.
include(CMakeFindDependencyMacro)
find_dependency(ZLIB)
find_dependency(Boost 1.74)

include("${CMAKE_CURRENT_LIST_DIR}/qvx-targets.cmake")
