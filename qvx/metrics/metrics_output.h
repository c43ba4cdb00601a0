// Metrics blocks as JSON records, for the program that prints data files.
#pragma once

#include <memory>

#include "qvx/support/bytes.h"
#include "qvx/support/output_sink.h"

namespace qvx::metrics {

// Where records go and who hears of refused blocks; implemented by whoever frames the records.
class MetricsRecordTarget {
 public:
  enum class Format { json, ndjson, csv, influx, other };

  virtual ~MetricsRecordTarget() = default;

  virtual Format format() const = 0;

  // Writes what stands before a record and returns the sink that takes the record itself.
  virtual OutputSink& begin_record() = 0;

  // Writes what stands behind it, and counts the record.
  virtual void end_record() = 0;

  // Prints an error of the file that is being read. The text has no line end.
  virtual void file_error(const char* text) = 0;
};

// Decodes blocks and writes each as one object: pretty for Format::json, compact for Format::ndjson, refused
// by a file error for the others. A later batch's members take the place of an earlier one's. A block with a
// fault is logged and writes nothing; true, unless that fault is a want of memory. Throws nothing.
//
// Keeps the tables of the last block, their names escaped and the text of its labels, which are the same in
// most blocks of a file, and its working memory: a few MiB at most besides what one block needs.
class MetricsWriter {
 public:
  MetricsWriter();  // throws std::bad_alloc
  ~MetricsWriter();
  MetricsWriter(const MetricsWriter&) = delete;
  MetricsWriter& operator=(const MetricsWriter&) = delete;

  // The block begins at the first byte and ends, at the latest, with the last.
  bool output_metrics_block(MetricsRecordTarget& target, Bytes block);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The same for a single block.
bool output_metrics_block(MetricsRecordTarget& target, Bytes block);

}  // namespace qvx::metrics
