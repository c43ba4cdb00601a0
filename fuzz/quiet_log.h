// Formats every message of the logger and drops the text, so that a message's arguments are read as well.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "qvx/support/log.h"

namespace qvx::fuzz {

__attribute__((format(printf, 2, 3))) inline void drop_message(std::uint32_t, const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
}

inline void quiet_log() {
  qvx_logger_register_callback(drop_message, QVX_LOG_DEBUG);
}

}  // namespace qvx::fuzz
