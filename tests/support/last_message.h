// The last message of the logger, kept without any memory of its own: for code that has none left.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "qvx/support/log.h"
#include "tests/support/log_capture.h"

namespace qvx::test {

class LastMessage {
 public:
  LastMessage() { qvx_logger_register_callback(record, QVX_LOG_DEBUG); }

  LogMessage get() const { return {level_, text_}; }

 private:
  __attribute__((format(printf, 2, 3))) static void record(std::uint32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(text_, sizeof text_, format, args);
    va_end(args);
    level_ = level;
  }

  static inline std::uint32_t level_ = 0;
  static inline char text_[256] = {};

  LogCapture restores_the_logger_;
};

}  // namespace qvx::test
