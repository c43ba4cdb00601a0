#include "qvx/support/version.h"

#include <cstdio>

namespace qvx {

const char* version_text(std::uint32_t version) noexcept {
  static char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u", unsigned{version_major(version)},
                unsigned{version_minor(version)}, unsigned{version_patch(version)});
  return text;
}

std::uint32_t parse_version(const char* text) noexcept {
  if (text == nullptr) return 0;
  unsigned char major = 0;
  unsigned char minor = 0;
  unsigned short patch = 0;
  // The blank lets white space stand before the second dot.
  const int numbers = std::sscanf(text, "%hhu.%hhu .%hu", &major, &minor, &patch);  // NOLINT(cert-err34-c)
  return numbers < 2 ? 0 : pack_version(major, minor, patch);
}

}  // namespace qvx
