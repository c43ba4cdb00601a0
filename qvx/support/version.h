// Version numbers: the packed 32-bit major.minor.patch and the 16-bit major.minor of a format.
#pragma once

#include <cstdint>

namespace qvx {

// Major in bits 0-7, minor in bits 8-15, patch in bits 16-31. 0 means no version.
constexpr std::uint32_t pack_version(std::uint8_t major, std::uint8_t minor, std::uint16_t patch) {
  return major | static_cast<std::uint32_t>(minor) << 8 | static_cast<std::uint32_t>(patch) << 16;
}
constexpr std::uint8_t version_major(std::uint32_t version) {
  return static_cast<std::uint8_t>(version & 0xFF);
}
constexpr std::uint8_t version_minor(std::uint32_t version) {
  return version >> 8 & 0xFF;
}
constexpr std::uint16_t version_patch(std::uint32_t version) {
  return static_cast<std::uint16_t>(version >> 16);
}

// The version of this program.
inline constexpr const char* kProgramVersionText = "1.22.1";
inline constexpr std::uint32_t kProgramVersion = pack_version(1, 22, 1);
static_assert(kProgramVersion == 71169);

// "%u.%u.%u" in one static buffer, which the next call overwrites.
const char* version_text(std::uint32_t version) noexcept;

// The packed version of a text "major.minor.patch", whose patch may be missing; 0 when there are fewer than
// two numbers. A number too large for its field wraps.
std::uint32_t parse_version(const char* text) noexcept;

// True when both are versions, the majors are equal and the minor of `current` is not below that of
// `version`.
constexpr bool is_compatible_version(std::uint32_t version, std::uint32_t current) {
  return version != 0 && current != 0 && version_major(version) == version_major(current) &&
         version_minor(current) >= version_minor(version);
}

// The difference of the majors, or of the minors when the majors are equal; the patch does not count.
constexpr int compare_versions(std::uint32_t a, std::uint32_t b) {
  const int majors = version_major(a) - version_major(b);
  return majors != 0 ? majors : version_minor(a) - version_minor(b);
}

// Format versions have the major in the low byte and the minor in the high byte.
constexpr std::uint8_t format_version_major(std::uint16_t version) {
  return static_cast<std::uint8_t>(version & 0xFF);
}
constexpr std::uint8_t format_version_minor(std::uint16_t version) {
  return static_cast<std::uint8_t>(version >> 8);
}

// True when the majors are equal and the found minor is not below the required one.
constexpr bool is_compatible_format_version(std::uint16_t required, std::uint16_t found) {
  return format_version_major(required) == format_version_major(found) &&
         format_version_minor(found) >= format_version_minor(required);
}

// The difference of the majors, or of the minors when the majors are equal.
constexpr int compare_format_versions(std::uint16_t a, std::uint16_t b) {
  const int majors = format_version_major(a) - format_version_major(b);
  return majors != 0 ? majors : format_version_minor(a) - format_version_minor(b);
}

}  // namespace qvx
