// Prints what a walk over one file hands out, in the format of the options.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "qvx/metrics/metrics_output.h"
#include "qvx/reader/options.h"
#include "qvx/reader/output_format.h"
#include "qvx/scan/type_cache.h"
#include "qvx/scan/visitor.h"
#include "qvx/support/clock.h"
#include "qvx/support/output_sink.h"

namespace qvx {

// What all files of a run share.
struct Run {
  explicit Run(const ReaderOptions& reader_options, OutputSink& output)
      : options(reader_options),
        format(output_format_row(options.format)),
        sink(output),
        types(reader_options.schema_path) {}

  const ReaderOptions& options;
  const OutputFormatRow& format;
  OutputSink& sink;
  TypeCache types;
  LocalTimeText clock;
  metrics::MetricsWriter metrics;
};

class PrintVisitor : public ScanVisitor, private metrics::MetricsRecordTarget {
 public:
  // The path is not owned.
  PrintVisitor(Run& run, const char* path) : run_(run), path_(path) {}

  void on_header(const qvx_data_file_header& header) override;
  void on_event_header(const EventHeader& header) override;
  bool on_events(const EventsBlock& block) override;
  bool on_counters(const CountersBlock& block) override;
  void on_metrics(const MetricsBlock& block) override;
  void on_fault(const Fault& fault) override;

  // Writes "Failed processing file <path>: ", the message and a line end to standard error, after everything
  // that was decoded so far.
  void file_error(const char* message) override;

  // Whether nothing was lost that was passed over meanwhile; the file fails at its end if not.
  virtual bool complete() { return !metrics_lost_; }

  // Records, counters and metrics blocks handled; 0: the next record is the first.
  std::uint32_t records_written() const { return records_written_; }

 protected:
  Run& run_;

 private:
  Format format() const override { return run_.format.metrics; }
  OutputSink& begin_record() override;
  void end_record() override;

  std::string_view before_record() const;
  bool refuse_events(std::size_t count);
  bool print_counters(const CountersBlock& block);

  const char* path_;
  std::uint32_t records_written_ = 0;
  bool metrics_lost_ = false;
};

}  // namespace qvx
