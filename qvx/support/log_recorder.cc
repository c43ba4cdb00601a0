#include "qvx/support/log_recorder.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "qvx/support/log_recording.h"

namespace qvx {
namespace {

constexpr std::uint32_t kHighestLevel = 7;

constinit thread_local LogRecorder* innermost = nullptr;

// A formatted message: in place when it is short, on the heap when it is long, cut when memory is short.
class FormattedText {
 public:
  __attribute__((format(printf, 2, 0))) FormattedText(const char* format, va_list args) noexcept {
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(short_text_, sizeof short_text_, format, args);
    if (length > 0) size_ = static_cast<std::size_t>(length);
    if (size_ >= sizeof short_text_) {
      long_text_.reset(new (std::nothrow) char[size_ + 1]);
      is_whole_ = long_text_ != nullptr;
      if (is_whole_)
        std::vsnprintf(long_text_.get(), size_ + 1, format, again);
      else
        size_ = sizeof short_text_ - 1;
    }
    va_end(again);
  }

  bool is_whole() const noexcept { return is_whole_; }
  std::string_view text() const noexcept {
    return {long_text_ != nullptr ? long_text_.get() : short_text_, size_};
  }

 private:
  char short_text_[1024];
  std::unique_ptr<char[]> long_text_;
  std::size_t size_ = 0;
  bool is_whole_ = true;
};

}  // namespace

// What the logger and the recorders know of one another.
struct LogRecorderStack {
  static bool takes(std::uint32_t level) noexcept {
    for (const LogRecorder* recorder = innermost; recorder != nullptr; recorder = recorder->outer_)
      if (level <= recorder->level_) return true;
    return false;
  }

  // True when the message has been taken by a recorder that lets nothing pass.
  static bool record(std::uint32_t level, const FormattedText& message) noexcept {
    for (LogRecorder* recorder = innermost; recorder != nullptr; recorder = recorder->outer_) {
      if (level > recorder->level_) continue;
      if (!message.is_whole()) recorder->is_complete_ = false;
      try {
        recorder->messages_.push_back({level, std::string(message.text())});
      } catch (const std::bad_alloc&) {
        recorder->is_complete_ = false;
      }
      if (recorder->mode_ == LogRecorder::Mode::instead) return true;
    }
    return false;
  }
};

namespace detail {

bool has_recorder() noexcept {
  return innermost != nullptr;
}

bool is_recorded(std::uint32_t level) noexcept {
  return LogRecorderStack::takes(level);
}

void record_message(std::uint32_t level, const char* format, ...) {
  const int caller_errno = errno;
  va_list args;
  va_start(args, format);
  const FormattedText message(format, args);
  va_end(args);
  if (!LogRecorderStack::record(level, message)) log_past_recorders(level, message.text().data());
  errno = caller_errno;
}

}  // namespace detail

LogRecorderLevel::LogRecorderLevel(std::uint32_t level) noexcept : level_(std::min(level, kHighestLevel)) {
  detail::enter_recorder_level(level_);
}

LogRecorderLevel::~LogRecorderLevel() {
  detail::leave_recorder_level(level_);
}

LogRecorder::LogRecorder(std::uint32_t level, Mode mode) noexcept
    : own_level_(std::in_place, level), level_(own_level_->level_), mode_(mode), outer_(innermost) {
  innermost = this;
}

LogRecorder::LogRecorder(const LogRecorderLevel& level, Mode mode) noexcept
    : level_(level.level_), mode_(mode), outer_(innermost) {
  innermost = this;
}

LogRecorder::~LogRecorder() {
  assert(innermost == this);
  innermost = outer_;
}

void LogRecorder::replay() const noexcept {
  LogRecorder* const hidden = innermost;
  innermost = outer_;
  replay_messages(messages_);
  innermost = hidden;
}

void replay_messages(std::span<const LoggedMessage> messages) noexcept {
  for (const LoggedMessage& message : messages)
    QVX_LOG(message.level, "%s", message.text.c_str());
}

}  // namespace qvx
