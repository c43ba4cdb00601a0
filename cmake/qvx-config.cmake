# find_package(qvx): the library as the target qvx::qvx.
include(CMakeFindDependencyMacro)
find_dependency(ZLIB)
find_dependency(OpenSSL COMPONENTS Crypto)
find_dependency(Boost 1.74 COMPONENTS filesystem date_time)

include("${CMAKE_CURRENT_LIST_DIR}/qvx-targets.cmake")
