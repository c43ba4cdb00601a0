#include <getopt.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "qvx/reader/options.h"
#include "qvx/support/bytes.h"
#include "tests/reader/reader_files.h"
#include "tests/support/allocation_sweep.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/file_in_memory.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

// Whatever allocation fails while a file is read, the next file of the run prints as if nothing had happened.
TEST(ShortMemory, FileThatRanOutOfMemoryLeavesNothingBehindForTheNext) {
  const test::ReaderFiles files;
  const std::string file =
      test::file_header(test::usual_header()) + test::padded(test::usual_events({7, 8}), 256);
  for (const OutputFormat format : {OutputFormat::ndjson, OutputFormat::influx}) {
    const std::string expected = format == OutputFormat::ndjson ? "{\"v\":7}\n{\"v\":8}\n" : "v=7i\nv=8i\n";
    for (std::size_t successes = 0;; ++successes) {
      test::FilesInMemory reader(test::reader_options(format, files.path("schema")));
      bool any_failed = false;
      {
        const test::FailingAllocations failing(successes);
        try {
          static_cast<void>(reader.read(as_bytes(file)));
        } catch (const std::bad_alloc&) {
        }
        any_failed = failing.any_failed();
      }
      EXPECT_EQ(reader.read(as_bytes(file)).out, expected) << successes;
      if (!any_failed) break;
    }
  }
}

// The command line is refused with a reason, or is as it was written.
TEST(ShortMemory, CommandLineIsWholeOrRefusedWithAReason) {
  const test::TempDir folder;
  for (const char* const name : {"d/one.bin", "d/e/two.bin"})
    folder.write_file(name, "");
  folder.write_file("schema/x", "");
  const std::string data = folder.file("d");
  const std::string schemas = folder.file("schema");
  const std::string output = folder.path();
  const auto outcome = [&](std::vector<std::string> texts, const ReaderOptions& options) {
    for (const auto* const list :
         {&options.input_files, &options.include_counters, &options.exclude_counters})
      for (const char* const text : strings(*list))
        texts.emplace_back(text);
    texts.insert(texts.end(), {options.schema_path, options.output_dir, options.data_dir.value_or("-"),
                               options.sort_order.value_or("-")});
    return texts;
  };
  const auto parsed = [&]() -> std::optional<std::vector<std::string>> {
    try {
      std::vector<std::string> words{"qvx_read", "-d", data,   "-s", schemas, "-i",           "a*",  "-e",
                                     "b*",       "-S", "file", "-f", "bin",   "--output-dir", output};
      std::vector<char*> argv;
      for (std::string& word : words)
        argv.push_back(word.data());
      argv.push_back(nullptr);
      optind = 0;
      ReaderOptions options;
      if (reader_options_parse(options, static_cast<int>(words.size()), argv.data()) != ParseResult::ok)
        return std::nullopt;
      return outcome({"parsed"}, options);
    } catch (const std::bad_alloc&) {
      return std::nullopt;
    }
  };
  const auto whole = parsed();
  ASSERT_TRUE(whole);
  ASSERT_EQ(whole->size(), 10u);
  EXPECT_EQ((*whole)[1], "file");
  testing::internal::CaptureStderr();
  test::sweep_allocations(parsed, [&](const auto& made) { return made == whole; });
  const std::string said = testing::internal::GetCapturedStderr();
  for (const char* const words : {"Failed appending 'a*' to the list of counters: Cannot allocate memory",
                                  "Failed appending 'file' to the list of counters: Cannot allocate memory"})
    EXPECT_NE(said.find(words), said.npos) << words;
}

// Without -i every type is asked for, and that takes memory as well.
TEST(ShortMemory, DefaultOfTypeNamesIsThereOrMissed) {
  const auto parsed = []() -> std::optional<std::string> {
    char program[] = "qvx_read", option[] = "-s", here[] = ".";
    char* argv[] = {program, option, here, nullptr};
    optind = 0;
    try {
      ReaderOptions options;
      if (reader_options_parse(options, 3, argv) != ParseResult::ok) return std::nullopt;
      return strings(options.include_counters)[0];
    } catch (const std::bad_alloc&) {
      return std::nullopt;
    }
  };
  ASSERT_EQ(parsed(), "*");
  testing::internal::CaptureStderr();
  test::sweep_allocations(parsed, [](const auto& made) { return made == "*"; });
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Failed setting default list of type names: Cannot allocate memory"),
            std::string::npos);
}

TEST(ShortMemory, UsageIsWholeOrMissing) {
  const auto usage = []() -> std::optional<std::string> {
    try {
      return usage_text();
    } catch (const std::bad_alloc&) {
      return std::nullopt;
    }
  };
  const auto whole = usage();
  ASSERT_TRUE(whole);
  test::sweep_allocations(usage, [&](const auto& made) { return made == whole; });
}

}  // namespace
}  // namespace qvx
