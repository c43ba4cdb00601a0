// The command line: arguments that are separated by NULs. Options that look at the file system are left out,
// since there a run's cost depends on the machine.
#include <getopt.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/reader_fuzz.h"
#include "qvx/reader/options.h"

namespace {

using namespace qvx;

constexpr std::size_t kMostArguments = 64;

// -d and its long forms, also abbreviated, and clusters of letters that end in it.
bool names_a_data_folder(std::string_view argument) {
  if (!argument.starts_with('-')) return false;
  return argument.starts_with("--") ? argument.starts_with("--d")
                                    : argument.find('d') != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (fuzz::quiet_reader(), true);
  static_cast<void>(quiet);
  std::vector<std::string> texts{"qvx_read", "-s/"};
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (!rest.empty() && texts.size() < kMostArguments) {
    const std::size_t end = std::min(rest.find('\0'), rest.size());
    if (!names_a_data_folder(rest.substr(0, end))) texts.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  std::vector<char*> arguments;
  for (std::string& text : texts)
    arguments.push_back(text.data());
  arguments.push_back(nullptr);
  optind = 0;
  ReaderOptions options;
  if (reader_options_parse(options, static_cast<int>(texts.size()), arguments.data()) != ParseResult::ok)
    return 0;
  fuzz::check(options.verbosity <= 7);
  fuzz::check(options.include_counters->count != 0);
  fuzz::check(options.input_files->count < texts.size());
  fuzz::check(!options.sort_order || (options.sort_files && !options.sort_order->empty()));
  return 0;
}
