// The one-shot digest interface allocates and may be refused by a provider's policy; these calls cannot fail.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "qvx/support/md5.h"

#include <openssl/md5.h>

namespace qvx {

std::array<std::byte, 16> md5(std::string_view bytes) noexcept {
  std::array<std::byte, 16> digest;
  static_assert(digest.size() == MD5_DIGEST_LENGTH);
  MD5_CTX context;
  MD5_Init(&context);
  MD5_Update(&context, bytes.data(), bytes.size());
  MD5_Final(reinterpret_cast<unsigned char*>(digest.data()), &context);
  return digest;
}

}  // namespace qvx
