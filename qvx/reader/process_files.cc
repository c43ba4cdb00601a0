#include "qvx/reader/process_files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/block.h"
#include "qvx/reader/block_walk.h"
#include "qvx/reader/input_files.h"
#include "qvx/reader/reader_context.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

struct FreeBytes {
  void operator()(std::byte* bytes) const { std::free(bytes); }
};

// The four conditions together are the rule; with an ordinary range they never skip a file.
bool is_out_of_date_range(const ReaderOptions& options, const qvx_data_file_header& header) {
  return header.first_timestamp < options.timestamp_gt && header.last_timestamp < options.timestamp_gt &&
         header.first_timestamp > options.timestamp_lt && header.last_timestamp > options.timestamp_lt;
}

// Reads data block after data block; a short last one at the end of the file is accepted.
bool process_data_blocks(ReaderContext& context) {
  if (is_out_of_date_range(context.run.options, context.header)) {
    QVX_LOG(QVX_LOG_DEBUG, "File content is out of date range");
    return true;
  }
  const std::uint32_t block_size = context.header.block_size;
  // Not touched before it is read into: a small file may claim a large block size.
  const std::unique_ptr<std::byte, FreeBytes> buffer(static_cast<std::byte*>(std::malloc(block_size)));
  if (buffer == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate data block of size %u: %s", block_size, std::strerror(errno));
    return false;
  }
  gzFile const file = context.file.get();
  int count = 0;
  while ((count = read_gzip(context, buffer.get(), block_size)) != 0) {
    if (count < static_cast<int>(kMagicSize)) {
      QVX_LOG(QVX_LOG_ERROR, "No data block header read from the file %s", context.path);
      return false;
    }
    if (static_cast<std::uint32_t>(count) < block_size && gzeof(file) == 0) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to read data file %s: %s", context.path, std::strerror(errno));
      return false;
    }
    const Bytes unit(buffer.get(), static_cast<std::size_t>(count));
    const bool ok = block_type_of(unit) == QVX_PAGE_BLOCK ? walk_page_blocks(context, unit)
                                                          : walk_block_chain(context, unit, false);
    if (!ok) return false;
    if (context.run.sink.error() != 0) return true;
  }
  if (gzeof(file) != 0) return context.bin == nullptr || !context.bin->failed();
  QVX_LOG(QVX_LOG_ERROR, "No data block header read from the file %s", context.path);
  return false;
}

// The key of a file in the JSON document: its base name up to the first dot.
std::string_view json_key(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  return path.substr(0, path.find('.'));
}

bool read_header(ReaderContext& context) {
  FileHeaderBytes bytes;
  errno = 0;
  if (read_gzip(context, bytes.data(), kFileHeaderSize) != static_cast<int>(kFileHeaderSize)) {
    file_error(context, "Failed reading data file header: %s", std::strerror(errno));
    return false;
  }
  context.header = file_header_decode(bytes);
  if (context.run.options.print_headers) context.run.sink.write(header_dump(context.header));
  if (!validate_header(context.header)) {
    file_error(context, "Invalid data file header");
    return false;
  }
  const std::uint32_t block_size = context.header.block_size;
  if (block_size < kMinBlockSize || block_size >= kBlockSizeEnd) {
    file_error(context, "Block size %d must be in range between %zu and %d bytes ",
               static_cast<int>(block_size), kMinBlockSize, static_cast<int>(kBlockSizeEnd));
    return false;
  }
  return true;
}

bool process_opened_file(ReaderContext& context, bool is_first_file) {
  if (!read_header(context)) return false;
  context.types = context.run.types.load(context.header.event_schema_ids, context.header.counters_schema_id);
  if (context.types == nullptr) {
    file_error(context, "Failed to load type system");
    return false;
  }
  if (context.bin != nullptr) context.bin->set_header(context.header);
  OutputSink& sink = context.run.sink;
  const bool is_json = context.run.options.format == OutputFormat::json;
  if (is_json) {
    if (!is_first_file) sink.write(",");
    sink.write("\"");
    sink.write(json_key(context.path));
    sink.write("\":[");
  }
  if (!process_data_blocks(context)) {
    file_error(context, "Failed to process data file %s", context.path);
    return false;
  }
  if (is_json) sink.write("]");
  return true;
}

bool process_file(Run& run, const char* path, bool is_first_file) {
  const std::unique_ptr<ReaderContext> context = create_reader_context(run, path);
  if (context == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to initialize reader context");
    return false;
  }
  QVX_LOG(QVX_LOG_DEBUG, "Processing data file %s", path);
  try {
    return process_opened_file(*context, is_first_file);
  } catch (const std::bad_alloc&) {
    file_error(*context, "%s", std::strerror(ENOMEM));
    return false;
  }
}

// The file's text fields end at their first NUL and lose their last byte.
template <std::size_t kSize>
std::string field_text(const std::array<char, kSize>& field) {
  return std::string(field.data(), strnlen(field.data(), kSize - 1));
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
    if (!read_file_header(path, run, header)) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to read file header: %s", path);
      return std::nullopt;
    }
    entries.push_back(
        {field_text(header.source_id), field_text(header.source_tag), header.first_timestamp, path});
  }
  return entries;
}

}  // namespace

int process_files(const ReaderOptions& options, OutputSink& sink) {
  Run run(options, sink);
  const bool is_json = options.format == OutputFormat::json;
  if (is_json) sink.write("{");
  int failures = 0;
  bool is_first_file = true;
  const auto process = [&](const char* path) {
    if (sink.error() != 0) return;
    if (!process_file(run, path, is_first_file)) ++failures;
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
  if (is_json) sink.write("}");
  return failures;
}

}  // namespace qvx
