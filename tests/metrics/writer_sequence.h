// A writer of metrics blocks beside one that keeps nothing: whatever came before, each block gives the text
// and the messages that it gives a writer of its own.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "qvx/metrics/metrics_output.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/metrics/recording_target.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::test {

using Format = metrics::MetricsRecordTarget::Format;

// Everything that comes of a block.
struct Outcome {
  std::string text;
  int records = 0;
  std::vector<std::string> file_errors;
  std::vector<LogMessage> messages;

  bool operator==(const Outcome&) const = default;
};

inline void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << outcome.records << " records: " << outcome.text << '\n';
  for (const std::string& text : outcome.file_errors)
    *out << "file error: " << text << '\n';
  for (const LogMessage& message : outcome.messages) {
    PrintTo(message, out);
    *out << '\n';
  }
}

using Print = std::function<void(metrics::MetricsRecordTarget&, Bytes)>;

// The block's bytes are gone afterwards, so that nothing kept may refer to them.
inline Outcome outcome_of(const Print& print, std::string_view block, Format format, std::uint32_t level) {
  const GuardedBuffer buffer(block);
  RecordingTarget target(format);
  LogCapture log(level);
  print(target, buffer.bytes());
  return {target.text(), target.records, target.file_errors, log.messages()};
}

// Prints blocks one after the other, each also with a writer of its own.
class Sequence {
 public:
  explicit Sequence(Format format = Format::ndjson, std::uint32_t level = QVX_LOG_INFO)
      : format_(format), level_(level) {}

  void set_format(Format format) { format_ = format; }
  void set_level(std::uint32_t level) { level_ = level; }

  // The text.
  std::string print(std::string_view block) {
    const Outcome kept = outcome_of([this](metrics::MetricsRecordTarget& target,
                                           Bytes bytes) { writer_.output_metrics_block(target, bytes); },
                                    block, format_, level_);
    const Outcome fresh = outcome_of([](metrics::MetricsRecordTarget& target,
                                        Bytes bytes) { metrics::output_metrics_block(target, bytes); },
                                     block, format_, level_);
    EXPECT_EQ(kept, fresh);
    return kept.text;
  }
  std::string print(const TestBlock& block) { return print(block.bytes()); }

 private:
  metrics::MetricsWriter writer_;
  Format format_;
  std::uint32_t level_;
};

}  // namespace qvx::test
