// What reading one file needs, what all files of a run share, and the opening of files.
#pragma once

#include <zlib.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <optional>

#include "qvx/data/file_header.h"
#include "qvx/metrics/metrics_output.h"
#include "qvx/reader/bin_output.h"
#include "qvx/reader/loaded_types.h"
#include "qvx/reader/options.h"
#include "qvx/support/clock.h"
#include "qvx/support/output_sink.h"

namespace qvx {

// Lives from the first file to the last.
struct Run {
  explicit Run(const ReaderOptions& reader_options, OutputSink& output)
      : options(reader_options), sink(output), types(reader_options) {}

  const ReaderOptions& options;
  OutputSink& sink;
  TypeCache types;
  LocalTimeText clock;
  metrics::MetricsWriter metrics;
};

struct CloseGzip {
  void operator()(gzFile file) const { gzclose(file); }
};
using GzipFile = std::unique_ptr<gzFile_s, CloseGzip>;

// One file being read. Plain files are read through the same interface as gzip files.
struct ReaderContext {
  ReaderContext(Run& shared, const char* file_path) : run(shared), path(file_path) {}

  Run& run;
  GzipFile file;
  std::optional<sigset_t> held_signals;  // see read_gzip
  const char* path;                      // not owned
  qvx_data_file_header header;
  std::shared_ptr<LoadedTypes> types;
  std::unique_ptr<BinOutput> bin;  // for the output format bin, else null
  std::uint32_t records_written =
      0;  // records, counters and metrics blocks handled; 0: the next record is the first
};

// Opens the file; null on failure, which is logged.
std::unique_ptr<ReaderContext> create_reader_context(Run& run, const char* path);

// Reads up to `size` bytes, fewer only at the end of the file. -1 when reading failed; errno tells why.
//
// zlib drops what a call has already read when a later part of it is interrupted. Where that can happen, on
// anything but a regular file, signals whose handlers interrupt a read therefore wait until the call is done.
int read_gzip(ReaderContext& context, void* to, unsigned size);

// Reads and validates the header of a file and closes it again; faults are logged.
bool read_file_header(const char* path, Run& run, qvx_data_file_header& header);

// Writes "Failed processing file <path>: ", the message and a line end to standard error, after everything
// that was decoded so far.
void file_error(ReaderContext& context, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace qvx
