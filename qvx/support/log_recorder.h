// Collects what a thread logs while it does something: a cache keeps the warnings of what it loaded and says
// them again, a library reader turns the lines of a fault into the words of a result without printing.
//
// While a recorder lives, messages of its thread up to its level go into its list, also those that the level
// of the process suppresses. Other messages go where they went before. Recorders nest; one that is made later
// is asked first. Other threads are not touched.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "qvx/support/log.h"

namespace qvx {

struct LoggedMessage {
  std::uint32_t level = 0;
  std::string text;  // formatted, without time stamp, prefix and line end

  bool operator==(const LoggedMessage&) const = default;
};

// While it lives, no thread drops a message up to its level before it asks its recorders. A recorder does
// this itself, under a lock of the process; who makes one again and again keeps a level instead.
class LogRecorderLevel {
 public:
  // Levels above 7 count as 7.
  explicit LogRecorderLevel(std::uint32_t level) noexcept;
  ~LogRecorderLevel();
  LogRecorderLevel(const LogRecorderLevel&) = delete;
  LogRecorderLevel& operator=(const LogRecorderLevel&) = delete;

 private:
  friend class LogRecorder;

  std::uint32_t level_;
};

class LogRecorder {
 public:
  enum class Mode {
    instead,  // what is recorded goes nowhere else
    besides,  // it also goes on: to the recorder outside, then to the logger at the level of the process
  };

  // Levels above 7 count as 7.
  explicit LogRecorder(std::uint32_t level, Mode mode = Mode::instead) noexcept;
  // At a level that outlives the recorder.
  explicit LogRecorder(const LogRecorderLevel& level, Mode mode = Mode::instead) noexcept;
  // On the thread that made it, and after every recorder that this thread made later.
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  const std::vector<LoggedMessage>& messages() const noexcept { return messages_; }

  // False when memory was too short for a message, which is then missing or cut.
  bool is_complete() const noexcept { return is_complete_; }

  // Says the messages again as if this recorder, and those inside it, were not there.
  void replay() const noexcept;

 private:
  friend struct LogRecorderStack;

  std::optional<LogRecorderLevel> own_level_;  // unless it was given one
  std::uint32_t level_;
  Mode mode_;
  bool is_complete_ = true;
  LogRecorder* outer_;
  std::vector<LoggedMessage> messages_;
};

// Logs messages that were kept from an earlier recording.
void replay_messages(std::span<const LoggedMessage> messages) noexcept;

}  // namespace qvx
