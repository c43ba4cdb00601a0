// Access to file bytes: little-endian loads and stores at any alignment, and a bounds-checked cursor. Nothing
// else in the library interprets bytes of a file.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

namespace qvx {

using Bytes = std::span<const std::byte>;

template <typename T>
concept Scalar = std::integral<T> || std::floating_point<T>;

namespace detail {
template <std::size_t kSize>
using UnsignedOfSize =
    std::conditional_t<kSize == 1, std::uint8_t,
                       std::conditional_t<kSize == 2, std::uint16_t,
                                          std::conditional_t<kSize == 4, std::uint32_t, std::uint64_t>>>;
}  // namespace detail

// The value stored little-endian at `from`, which needs no alignment. The caller has checked the bounds.
template <Scalar T>
T load_le(const void* from) {
  using Unsigned = detail::UnsignedOfSize<sizeof(T)>;
  Unsigned bits;
  std::memcpy(&bits, from, sizeof bits);
  if constexpr (std::endian::native == std::endian::big && sizeof(T) > 1) {
    Unsigned swapped = 0;
    for (std::size_t i = 0; i < sizeof bits; ++i)
      swapped = static_cast<Unsigned>(
          swapped | static_cast<Unsigned>((bits >> (8 * i) & 0xFF) << (8 * (sizeof bits - 1 - i))));
    bits = swapped;
  }
  return std::bit_cast<T>(bits);
}

template <Scalar T>
void store_le(void* to, T value) {
  using Unsigned = detail::UnsignedOfSize<sizeof(T)>;
  const auto bits = std::bit_cast<Unsigned>(value);
  const auto stored = load_le<Unsigned>(&bits);
  std::memcpy(to, &stored, sizeof stored);
}

inline std::string_view as_text(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline Bytes as_bytes(std::string_view text) {
  return {reinterpret_cast<const std::byte*>(text.data()), text.size()};
}

// Reads forward through bytes that may end anywhere. A read that does not fit returns false and moves
// nothing.
class Cursor {
 public:
  explicit Cursor(Bytes bytes) : bytes_(bytes) {}

  std::size_t left() const { return bytes_.size(); }
  Bytes rest() const { return bytes_; }

  template <Scalar T>
  [[nodiscard]] bool read(T& value) {
    if (sizeof(T) > left()) return false;
    value = load_le<T>(bytes_.data());
    bytes_ = bytes_.subspan(sizeof(T));
    return true;
  }

  [[nodiscard]] bool read_bytes(std::size_t count, Bytes& out) {
    if (count > left()) return false;
    out = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return true;
  }

  [[nodiscard]] bool skip(std::size_t count) {
    if (count > left()) return false;
    bytes_ = bytes_.subspan(count);
    return true;
  }

 private:
  Bytes bytes_;
};

}  // namespace qvx
