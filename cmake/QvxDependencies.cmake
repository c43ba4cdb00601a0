# Everything the library is built from, found once for all folders.

find_package(ZLIB REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(Boost 1.74 REQUIRED)
find_package(RapidJSON REQUIRED)
find_path(QVX_SNAPPY_INCLUDE_DIR snappy.h REQUIRED)
find_path(QVX_DEFLATE_INCLUDE_DIR libdeflate.h REQUIRED)
find_library(QVX_SNAPPY_LIBRARY snappy REQUIRED)
find_library(QVX_DEFLATE_LIBRARY deflate REQUIRED)

# What starts slowly is linked statically where there is such a library. Of libcrypto, the MD5 digest is a few
# hundred instructions and the rest half a millisecond of relocations at each start; the shared snappy library would
# bring the shared C++ library along into the program.
find_library(QVX_CRYPTO_LIBRARY NAMES libcrypto.a crypto REQUIRED)
find_library(QVX_SNAPPY_STATIC_LIBRARY NAMES libsnappy.a snappy REQUIRED)
