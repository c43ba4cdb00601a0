// The command line: options, their defaults, usage and version texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "qvx/reader/output_format.h"
#include "qvx/support/string_array.h"

namespace qvx {

// One record for the whole run, filled once from the command line.
struct ReaderOptions {
  std::uint32_t verbosity = 6;
  OutputFormat format = OutputFormat::json;
  std::string schema_path = "schema";
  std::string output_dir = "output";
  StringArrayPtr input_files;
  std::uint64_t timestamp_gt = 0;  // microseconds; both ends are included
  std::uint64_t timestamp_lt = ~std::uint64_t{0};
  StringArrayPtr include_counters;  // "*" alone when none was given
  StringArrayPtr exclude_counters;
  bool print_headers = false;
  std::optional<std::string> data_dir;
  bool sort_files = false;
  std::optional<std::string> sort_order;
};

// Creates the three lists; false when memory is short. The other defaults are those above.
bool reader_options_set_defaults(ReaderOptions& options) noexcept;

enum class ParseResult {
  ok,
  failed,        // a message was written to standard error; the usage text is due
  show_usage,    // -h
  show_version,  // -V
};

// Parses the command line, walks the data folder, finds the schema folder and checks the output folder.
// Unknown options are reported by getopt and otherwise ignored.
ParseResult reader_options_parse(ReaderOptions& options, int argc, char** argv);

// The usage text with the built-in defaults; nothing when they cannot be built, which is logged.
std::optional<std::string> usage_text();

// The program's version and what it was built from.
std::string version_output();

}  // namespace qvx
