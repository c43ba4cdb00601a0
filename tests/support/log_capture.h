// Every message of the logger with its level, for the life of the object.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "qvx/support/log.h"

namespace qvx::test {

struct LogMessage {
  std::uint32_t level = 0;
  std::string text;

  bool operator==(const LogMessage&) const = default;
};

inline void PrintTo(const LogMessage& message, std::ostream* out) {
  *out << '{' << message.level << ", \"" << message.text << "\"}";
}

// Registers a callback; the logger goes back to what it was, to the outer capture or to standard error at the
// level it had. Captures may be nested, the innermost gets the messages.
class LogCapture {
 public:
  explicit LogCapture(std::uint32_t level = QVX_LOG_DEBUG) : outer_(innermost()) {
    static_cast<void>(QVX_LOG_IS_ENABLED(QVX_LOG_ERROR));  // so that the level to go back to is a real one
    outer_level_ = qvx_logger_set_level(level);
    innermost() = this;
    qvx_logger_register_callback(record, level);
  }

  ~LogCapture() {
    innermost() = outer_;
    if (outer_ != nullptr) {
      qvx_logger_register_callback(record, outer_level_);
      return;
    }
    qvx_logger_register_callback(nullptr, 0);
    qvx_init_stderr_logger(0);  // level 0: its own trace would be noise in the test's output
    qvx_logger_set_level(outer_level_);
  }

  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogMessage>& messages() const { return messages_; }

  // The messages of one level, in order.
  std::vector<std::string> texts(std::uint32_t level) const {
    std::vector<std::string> found;
    for (const LogMessage& message : messages_) {
      if (message.level == level) found.push_back(message.text);
    }
    return found;
  }

  bool has(std::uint32_t level, const std::string& text) const {
    return std::find(messages_.begin(), messages_.end(), LogMessage{level, text}) != messages_.end();
  }

  void clear() { messages_.clear(); }

 private:
  static LogCapture*& innermost() {
    static LogCapture* capture = nullptr;
    return capture;
  }

  __attribute__((format(printf, 2, 3))) static void record(std::uint32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list measured;
    va_copy(measured, args);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string text(length < 0 ? 0 : static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    va_end(args);
    innermost()->messages_.push_back({level, std::move(text)});
  }

  LogCapture* outer_;
  std::uint32_t outer_level_;
  std::vector<LogMessage> messages_;
};

}  // namespace qvx::test
