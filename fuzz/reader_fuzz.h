// What the fuzz targets of the reader share. The first byte of an input chooses how it is read, and the
// schemas are those of the folder schema/ beside the targets.
#pragma once

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "fuzz/quiet_log.h"
#include "qvx/reader/options.h"
#include "qvx/support/json_parse.h"

namespace qvx::fuzz {

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
  ReaderOptions options;
  check(reader_options_set_defaults(options) && append(options.include_counters, "*"));
  options.schema_path = QVX_FUZZ_SCHEMA_DIR;
  options.format = kFormats[choice & 7U];
  options.print_headers = (choice & 8U) != 0;
  if ((choice & 16U) != 0) options.timestamp_gt = 1'700'000'000'000'000;
  return options;
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
