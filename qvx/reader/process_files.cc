#include "qvx/reader/process_files.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/reader/bin_visitor.h"
#include "qvx/reader/input_files.h"
#include "qvx/reader/print_visitor.h"
#include "qvx/reader/progress.h"
#include "qvx/scan/data_input.h"
#include "qvx/scan/file_scan.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

// The four conditions together are the rule; with an ordinary range they never skip a file.
bool is_out_of_date_range(const ReaderOptions& options, const qvx_data_file_header& header) {
  return header.first_timestamp < options.timestamp_gt && header.last_timestamp < options.timestamp_gt &&
         header.first_timestamp > options.timestamp_lt && header.last_timestamp > options.timestamp_lt;
}

// The key of a file in the JSON document: its base name up to the first dot.
std::string_view json_key(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  return path.substr(0, path.find('.'));
}

// Hands every block to the visitor; stops when the output cannot be written.
void process_blocks(Run& run, FileScan& scan, PrintVisitor& visitor) {
  if (is_out_of_date_range(run.options, scan.header())) {
    QVX_LOG(QVX_LOG_DEBUG, "File content is out of date range");
    return;
  }
  Progress& so_far = progress();
  const std::uint64_t bytes = so_far.bytes;
  const std::uint64_t records = so_far.records;
  bool goes_on = true;
  while (goes_on) {
    goes_on = scan.next(visitor) && run.sink.error() == 0;
    so_far.bytes.store(bytes + scan.position(), std::memory_order_relaxed);
    so_far.records.store(records + visitor.records_written(), std::memory_order_relaxed);
  }
}

bool process_opened_file(Run& run, const char* path, bool is_first_file, FileScan& scan,
                         PrintVisitor& visitor) {
  if (!scan.read_header(visitor) || !scan.load_types(visitor)) return false;
  OutputSink& sink = run.sink;
  if (run.format.one_document) {
    if (!is_first_file) sink.write(",");
    sink.write("\"");
    sink.write(json_key(path));
    sink.write("\":[");
  }
  process_blocks(run, scan, visitor);
  if (scan.failed() || !visitor.complete()) {
    visitor.file_error(format_text("Failed to process data file %s", path).c_str());
    return false;
  }
  if (run.format.one_document) sink.write("]");
  return true;
}

// The visitor for the run's format; null on failure, which is logged.
std::unique_ptr<PrintVisitor> make_visitor(Run& run, const char* path, FileScan& scan) {
  if (run.options.format == OutputFormat::bin) return BinVisitor::create(run, path, scan);
  return std::make_unique<PrintVisitor>(run, path);
}

void before_reading(void* sink, int descriptor) noexcept {
  static_cast<OutputSink*>(sink)->before_reading(descriptor);
}

bool process_file(Run& run, const char* path, bool is_first_file) {
  PrintVisitor until_opened(run, path);
  try {
    FileScan scan(run.types);
    scan.set_read_hook({before_reading, &run.sink});
    std::unique_ptr<PrintVisitor> visitor;
    if (scan.open(path, until_opened)) visitor = make_visitor(run, path, scan);
    if (visitor == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to initialize reader context");
      return false;
    }
    QVX_LOG(QVX_LOG_DEBUG, "Processing data file %s", path);
    return process_opened_file(run, path, is_first_file, scan, *visitor);
  } catch (const std::bad_alloc&) {
    until_opened.file_error(std::strerror(ENOMEM));
    return false;
  }
}

// Reads and validates the header of a file and closes it again; faults are logged.
bool read_file_header(const char* path, qvx_data_file_header& header) {
  DataInput input;
  if (!input.open(path)) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to open data file %s: %s", path, std::strerror(errno));
    return false;
  }
  FileHeaderBytes bytes;
  if (input.read(bytes) != bytes.size()) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to read header from file: %s", path);
    return false;
  }
  header = file_header_decode(bytes);
  if (validate_header(header)) return true;
  QVX_LOG(QVX_LOG_ERROR, "Invalid header in file: %s", path);
  return false;
}

// A file's source is compared without the last byte of its fields.
template <std::size_t kSize>
std::string sort_text(const std::array<char, kSize>& field) {
  return std::string(field_text(field).substr(0, kSize - 1));
}

// One entry per input file; nothing when a header cannot be had or memory is short.
std::optional<std::vector<FileEntry>> read_entries(Run& run) {
  std::vector<FileEntry> entries;
  try {
    entries.reserve(run.options.input_files->count);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate memory for file entries");
    return std::nullopt;
  }
  for (const char* const path : strings(run.options.input_files)) {
    qvx_data_file_header header;
    if (!read_file_header(path, header)) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to read file header: %s", path);
      return std::nullopt;
    }
    entries.push_back(
        {sort_text(header.source_id), sort_text(header.source_tag), header.first_timestamp, path});
  }
  return entries;
}

}  // namespace

int process_files(const ReaderOptions& options, OutputSink& sink) {
  Run run(options, sink);
  progress().all_files.fetch_add(options.input_files->count, std::memory_order_relaxed);
  if (run.format.one_document) sink.write("{");
  int failures = 0;
  bool is_first_file = true;
  const auto process = [&](const char* path) {
    if (sink.error() != 0) return;
    if (!process_file(run, path, is_first_file)) ++failures;
    progress().files.fetch_add(1, std::memory_order_relaxed);
    is_first_file = false;
  };
  if (options.sort_files) {
    std::optional<std::vector<FileEntry>> entries = read_entries(run);
    if (!entries) return 1;
    sort_files(*entries, choose_sort_order(options));
    for (const FileEntry& entry : *entries)
      process(entry.path.c_str());
  } else {
    for (const char* const path : strings(options.input_files))
      process(path);
  }
  if (run.format.one_document) sink.write("}");
  return failures;
}

}  // namespace qvx
