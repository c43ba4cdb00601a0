// What the fuzz targets of the reader share. The first byte of an input chooses how it is read, and the
// schemas are those of the folder schema/ beside the targets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string_view>

#include "fuzz/quiet_log.h"
#include "qvx/reader/options.h"
#include "qvx/support/json_parse.h"
#include "tests/support/file_in_memory.h"

namespace qvx::fuzz {

// Larger pages cost time and show nothing new.
inline constexpr std::uint64_t kLargestPage = 1 << 18;

inline constexpr std::uint8_t kHeaders = 8;
inline constexpr std::uint8_t kTimeRange = 16;
inline constexpr std::uint8_t kFree = 32;  // means something to one target only
inline constexpr std::uint8_t kAllChoices = 63;

inline void check(bool holds) {
  if (!holds) __builtin_trap();
}

// The messages of single files go to standard error past the logger.
inline void quiet_reader() {
  quiet_log();
  qvx_logger_set_level(QVX_LOG_INFO);
  std::FILE* const nowhere = std::fopen("/dev/null", "w");
  check(nowhere != nullptr);
  stderr = nowhere;
}

inline ReaderOptions reader_options(std::uint8_t choice) {
  constexpr std::array kFormats = {OutputFormat::ndjson, OutputFormat::json, OutputFormat::txt,
                                   OutputFormat::influx, OutputFormat::csv,  OutputFormat::ndjson,
                                   OutputFormat::ndjson, OutputFormat::json};
  ReaderOptions options = test::reader_options(kFormats[choice & 7U], QVX_FUZZ_SCHEMA_DIR);
  options.print_headers = (choice & kHeaders) != 0;
  if ((choice & kTimeRange) != 0) options.timestamp_gt = 1'700'000'000'000'000;
  return options;
}

// The reader that a choice stands for; it is kept.
inline test::FilesInMemory& reader_of(std::uint8_t choice) {
  static std::map<std::uint8_t, test::FilesInMemory> readers;
  const auto known = readers.find(choice);
  if (known != readers.end()) return known->second;
  return readers.try_emplace(choice, reader_options(choice), kLargestPage).first->second;
}

// Every line of newline-delimited JSON must be a document.
inline void check_output(const ReaderOptions& options, std::string_view out) {
  if (options.format != OutputFormat::ndjson || options.print_headers) return;
  while (!out.empty()) {
    const std::size_t end = out.find('\n');
    check(end != std::string_view::npos);
    check(json::parse(out.substr(0, end)).has_value());
    out.remove_prefix(end + 1);
  }
}

}  // namespace qvx::fuzz
