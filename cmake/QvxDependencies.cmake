# Everything the library is built from, found once for all folders.

find_package(ZLIB REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(Boost 1.74 REQUIRED COMPONENTS filesystem date_time)
find_package(RapidJSON REQUIRED)
find_library(QVX_SNAPPY_LIBRARY snappy REQUIRED)
find_path(QVX_SNAPPY_INCLUDE_DIR snappy.h REQUIRED)
find_library(QVX_DEFLATE_LIBRARY deflate REQUIRED)
find_path(QVX_DEFLATE_INCLUDE_DIR libdeflate.h REQUIRED)
