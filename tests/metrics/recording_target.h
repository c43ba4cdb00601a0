// A record target that keeps what it is given.
#pragma once

#include <string>
#include <vector>

#include "qvx/metrics/metrics_output.h"

namespace qvx::test {

class RecordingTarget : public metrics::MetricsRecordTarget {
 public:
  // The text's memory is had in advance, so that taking a record of usual size allocates nothing.
  explicit RecordingTarget(Format format) : format_(format) { text_.reserve(16 * 1024); }

  Format format() const override { return format_; }
  OutputSink& begin_record() override { return sink_; }
  void end_record() override {
    ++records;
    if (format_ == Format::ndjson) sink_.write("\n");
  }
  void file_error(const char* text) override { file_errors.emplace_back(text); }

  const std::string& text() {
    static_cast<void>(sink_.flush());  // a text takes everything
    return text_;
  }

  int records = 0;
  std::vector<std::string> file_errors;

 private:
  Format format_;
  std::string text_;
  OutputSink sink_{text_};
};

}  // namespace qvx::test
