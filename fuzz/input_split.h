// Fuzz inputs of two parts: a text that ends at the first NUL, and the bytes behind it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "qvx/support/bytes.h"
#include "qvx/support/log.h"

namespace qvx::fuzz {

struct SplitInput {
  std::string text;
  Bytes bytes;
};

inline SplitInput split_input(const std::uint8_t* data, std::size_t size) {
  const auto* const end = std::find(data, data + size, 0);
  SplitInput input{{data, end}, {}};
  if (end != data + size) input.bytes = std::as_bytes(std::span(end + 1, data + size));
  return input;
}

inline void check(bool holds) {
  if (!holds) __builtin_trap();
}

// Every message is made, so that the code behind debug messages runs, too; none is shown.
inline void drop_messages() {
  struct Drop {
    __attribute__((format(printf, 2, 3))) static void message(std::uint32_t, const char*, ...) {}
  };
  static_cast<void>(QVX_LOG_IS_ENABLED(QVX_LOG_ERROR));
  qvx_logger_set_level(QVX_LOG_DEBUG);
  qvx_logger_register_callback(Drop::message, QVX_LOG_DEBUG);
}

}  // namespace qvx::fuzz
