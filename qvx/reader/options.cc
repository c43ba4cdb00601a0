#include "qvx/reader/options.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qvx/reader/build_info.h"
#include "qvx/reader/input_files.h"
#include "qvx/scan/schema_folder.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"
#include "qvx/support/number_parse.h"
#include "qvx/support/text.h"
#include "qvx/support/version.h"

namespace qvx {
namespace {

constexpr std::uint32_t kMaxVerbosity = 7;
constexpr const char* kDefaultsFailed = "Failed to initialize options default values";

// Only the long form sets the output folder: 'o' is, deliberately, no short option, although the usage text
// lists it, and the usage text's "--print-headers" is "--print-page-info".
constexpr const char* kShortOptions = "hVv:s:g:l:i:e:f:pd:S::";

const option kLongOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {"verbose", required_argument, nullptr, 'v'},
    {"schema-path", required_argument, nullptr, 's'},
    {"output-dir", required_argument, nullptr, 'o'},
    {"timestamp-gt", required_argument, nullptr, 'g'},
    {"timestamp-lt", required_argument, nullptr, 'l'},
    {"include-counters", required_argument, nullptr, 'i'},
    {"exclude-counters", required_argument, nullptr, 'e'},
    {"format", required_argument, nullptr, 'f'},
    {"print-page-info", no_argument, nullptr, 'p'},
    {"data-dir", required_argument, nullptr, 'd'},
    {"sort-files", optional_argument, nullptr, 'S'},
    {nullptr, 0, nullptr, 0},
};

// Complaints about the command line go straight to standard error: the logger is not set up yet.
__attribute__((format(printf, 1, 2))) bool complain(const char* format, ...) {
  std::string text;
  va_list args;
  va_start(args, format);
  append_vformat(text, format, args);
  va_end(args);
  write_diagnostic(stderr, text.data(), text.size());
  return false;
}

bool set_verbosity(ReaderOptions& options, const char* argument) {
  long value = 0;
  if (!long_from_text(argument, &value) || value < 0 || value > static_cast<long>(kMaxVerbosity)) {
    return complain("Verbosity level is a number between 0 and %d, %s is given.",
                    static_cast<int>(kMaxVerbosity), argument);
  }
  options.verbosity = static_cast<std::uint32_t>(value);
  return true;
}

bool set_timestamp(std::uint64_t& timestamp, const char* argument) {
  if (uint64_from_text(argument, &timestamp)) return true;
  return complain("Timestamp must be a number, %s is given.", argument);
}

bool set_format(ReaderOptions& options, const char* argument) {
  const std::int32_t value = output_format_from_name(argument);
  if (value < 0) return complain("Unsupported output format %s", argument);
  options.format = static_cast<OutputFormat>(value);
  return true;
}

bool append_to(StringArrayPtr& list, const char* text) {
  if (append(list, text)) return true;
  return complain("Failed appending '%s' to the list of counters: %s", text, std::strerror(errno));
}

ParseResult parse_options(ReaderOptions& options, int argc, char** argv) {
  for (;;) {
    const int letter = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr);
    bool ok = true;
    switch (letter) {
      case -1:
        return ParseResult::ok;
      case 'h':
        return ParseResult::show_usage;
      case 'V':
        return ParseResult::show_version;
      case 'v':
        ok = set_verbosity(options, optarg);
        break;
      case 's':
        options.schema_path = optarg;
        break;
      case 'o':
        options.output_dir = optarg;
        break;
      case 'g':
        ok = set_timestamp(options.timestamp_gt, optarg);
        break;
      case 'l':
        ok = set_timestamp(options.timestamp_lt, optarg);
        break;
      case 'i':
        ok = append_to(options.include_counters, optarg);
        break;
      case 'e':
        ok = append_to(options.exclude_counters, optarg);
        break;
      case 'f':
        ok = set_format(options, optarg);
        break;
      case 'p':
        options.print_headers = true;
        break;
      case 'd':
        options.data_dir = optarg;
        break;
      case 'S':
        options.sort_files = true;
        options.sort_order.reset();
        if (optarg != nullptr && *optarg != '\0') options.sort_order = optarg;
        break;
      default:
        // getopt has said what it did not understand; parsing goes on.
        break;
    }
    if (!ok) return ParseResult::failed;
  }
}

bool choose_schema_folder(ReaderOptions& options) {
  if (access(options.schema_path.c_str(), F_OK) == 0 || options.input_files->count == 0) return true;
  const char* const first_file = strings(options.input_files)[0];
  std::optional<std::string> folder = find_schema_folder(first_file);
  if (!folder) {
    return complain("Schema folder not found within %d levels of %s\n", kSchemaSearchLevels, first_file);
  }
  options.schema_path = std::move(*folder);
  return true;
}

}  // namespace

bool reader_options_set_defaults(ReaderOptions& options) noexcept {
  options.input_files = make_string_array();
  options.include_counters = make_string_array();
  options.exclude_counters = make_string_array();
  return options.input_files != nullptr && options.include_counters != nullptr &&
         options.exclude_counters != nullptr;
}

ParseResult reader_options_parse(ReaderOptions& options, int argc, char** argv) {
  if (!reader_options_set_defaults(options)) {
    QVX_LOG(QVX_LOG_ERROR, "%s", kDefaultsFailed);
    return ParseResult::failed;
  }
  const ParseResult result = parse_options(options, argc, argv);
  if (result != ParseResult::ok) return result;
  for (int i = optind; i < argc; ++i)
    if (!append_to(options.input_files, argv[i])) return ParseResult::failed;
  if (options.data_dir && !collect_input_files(options, options.data_dir->c_str()))
    return ParseResult::failed;
  if (options.include_counters->count == 0 && !append(options.include_counters, "*")) {
    complain("Failed setting default list of type names: %s", std::strerror(errno));
    return ParseResult::failed;
  }
  if (!choose_schema_folder(options)) return ParseResult::failed;
  if (options.format == OutputFormat::bin && access(options.output_dir.c_str(), F_OK) != 0) {
    complain("Output folder '%s' does not exits\n", options.output_dir.c_str());
    return ParseResult::failed;
  }
  return ParseResult::ok;
}

std::optional<std::string> usage_text() {
  ReaderOptions defaults;
  if (!reader_options_set_defaults(defaults)) {
    QVX_LOG(QVX_LOG_ERROR, "%s", kDefaultsFailed);
    return std::nullopt;
  }
  return format_text(
      "\nQuorvex export collected binary data as text or JSON.\n\n"
      "Usage: qvx_read --schema-path ./schema data1.bin [data2.bin...]\n\n"
      "General options:\n"
      "  -h, --help                        Print this message.\n"
      "  -V, --version                     Print Quorvex version number.\n"
      "  -v, --verbose level               Level of verbosity 0-7 (%d).\n"
      "  -p, --print-headers               Print data headers (%s).\n"
      "\nInput options:\n"
      "  -s, --schema-path dir             Path to the schema files (%s).\n"
      "\nFiltering options:\n"
      "  -g, --timestamp-gt value          Take data with timestamp greater than value.\n"
      "  -l, --timestamp-lt value          Take data with timestamp less than value.\n"
      "  -i, --include-counters pattern    Take counters that match pattern.\n"
      "  -e, --exclude-counters pattern    Do not take counters that match pattern.\n"
      "  -o, --output-dir dir              Specifies location for .bin files output (%s)\n"
      "\nOutput format:\n"
      "  -f, --format [json|ndjson|txt|csv|influx|bin] Output format (%s).\n"
      "\n",
      static_cast<int>(defaults.verbosity), bool_to_text(defaults.print_headers),
      defaults.schema_path.c_str(), defaults.output_dir.c_str(),
      output_format_name(static_cast<std::int32_t>(defaults.format)));
}

std::string version_output() {
  return format_text("Quorvex binary data reader %s\nQuorvex build info: %s\n", kProgramVersionText,
                     build_info_text().c_str());
}

}  // namespace qvx
