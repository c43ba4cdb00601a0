#include "qvx/reader/build_info.h"

#include <boost/version.hpp>
#include <libdeflate.h>
#include <openssl/opensslv.h>
#include <rapidjson/rapidjson.h>
#include <snappy-stubs-public.h>
#include <zlib.h>

#include "qvx/support/format.h"

namespace qvx {

std::string build_info_text() {
  return format_text(
      "\n  built from source of %s\n"
      "  zlib %s\n"
      "  libdeflate %s\n"
      "  snappy %d.%d.%d\n"
      "  OpenSSL %s\n"
      "  Boost %d.%d.%d\n"
      "  RapidJSON %s",
      QVX_BUILD_TIME, ZLIB_VERSION, LIBDEFLATE_VERSION_STRING, SNAPPY_MAJOR, SNAPPY_MINOR, SNAPPY_PATCHLEVEL,
      OPENSSL_VERSION_STR, BOOST_VERSION / 100000, BOOST_VERSION / 100 % 1000, BOOST_VERSION % 100,
      RAPIDJSON_VERSION_STRING);
}

}  // namespace qvx
