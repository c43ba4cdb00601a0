// The one-shot digest interface allocates and may be refused by a provider's policy; these calls cannot fail.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "qvx/support/md5.h"

#include <openssl/md5.h>

#include <new>

namespace qvx {
namespace {

MD5_CTX* context_in(std::array<std::byte, 96>& state) {
  static_assert(sizeof(MD5_CTX) <= sizeof state && alignof(MD5_CTX) <= alignof(std::max_align_t));
  return std::launder(reinterpret_cast<MD5_CTX*>(state.data()));
}

}  // namespace

Md5::Md5() noexcept {
  MD5_Init(new (state_.data()) MD5_CTX);
}

void Md5::add(std::string_view bytes) noexcept {
  MD5_Update(context_in(state_), bytes.data(), bytes.size());
}

std::array<std::byte, 16> Md5::digest() noexcept {
  std::array<std::byte, 16> digest;
  static_assert(digest.size() == MD5_DIGEST_LENGTH);
  MD5_Final(reinterpret_cast<unsigned char*>(digest.data()), context_in(state_));
  return digest;
}

std::array<std::byte, 16> md5(std::string_view bytes) noexcept {
  Md5 md5;
  md5.add(bytes);
  return md5.digest();
}

}  // namespace qvx
