#include <getopt.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "qvx/reader/options.h"
#include "qvx/reader/process_files.h"
#include "qvx/support/bytes.h"
#include "qvx/support/log.h"
#include "tests/metrics/cntx_builder.h"
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

// Texts of labels that there is no memory to keep are written all the same.
TEST(ShortMemory, MetricsArePrintedWholeOrNotAtAll) {
  const test::ReaderFiles files;
  std::vector<std::string> names;
  for (int i = 0; i < 60; ++i)
    names.push_back(std::to_string(100 + i) + std::string(247, 'n'));
  test::TestBlock block;
  block.label_name_sets = test::label_names(names);
  block.blocksize = 30000;
  block.records = {test::record({.labels = test::labels_l(0, std::vector<std::uint8_t>(60, 0))})};
  const std::string file = test::file_header(test::usual_header(32768)) + test::padded(block.bytes(), 32768);
  std::string expected;
  {
    test::FilesInMemory reader(test::reader_options(OutputFormat::ndjson, files.path("schema")));
    expected = reader.read(as_bytes(file)).out;
  }
  ASSERT_GT(expected.size(), 60u * 250);
  bool has_failed = false;
  bool any_failed = true;
  std::size_t whole = 0;
  testing::internal::CaptureStderr();
  for (std::size_t successes = 0; any_failed && successes < 1000; ++successes) {
    test::FilesInMemory reader(test::reader_options(OutputFormat::ndjson, files.path("schema")));
    std::string out;
    out.reserve(2 * expected.size());
    {
      const test::FailingAllocations failing(successes, test::FailingAllocations::Failing::once);
      try {
        out = reader.read(as_bytes(file)).out;
      } catch (const std::bad_alloc&) {
      }
      any_failed = failing.any_failed();
    }
    EXPECT_TRUE(out == expected || out.empty()) << successes << ": " << out.substr(0, 200);
    whole += any_failed && out == expected;
    has_failed = has_failed || out.empty();
  }
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(any_failed);
  EXPECT_TRUE(has_failed);
  EXPECT_GT(whole, 0u);
}

// A metrics block that there was no memory for fails the file, though the next one is gone on with.
TEST(ShortMemory, LostMetricsAreToldAndTheNextBlockIsPrinted) {
  const test::ReaderFiles files;
  const auto block = [](std::uint64_t timestamp, const std::string& label) {
    test::TestBlock made;
    made.label_name_sets = test::label_names({label});
    made.records = {test::record({.timestamp = timestamp, .labels = test::labels_l(0, {0})})};
    return made.bytes();
  };
  // Other labels in each, so that nothing of the first serves the second.
  const std::string input =
      files.write("a.bin", test::sample_file(test::usual_header(), {block(1, "rack"), block(2, "row")}));
  ReaderOptions options = files.options(OutputFormat::ndjson);
  ASSERT_TRUE(append(options.input_files, input.c_str()));
  std::string out;
  out.reserve(4096);
  const auto failures = [&] {
    out.clear();
    OutputSink sink(out);
    const int failed = process_files(options, sink);
    static_cast<void>(sink.flush());
    return failed;
  };
  ASSERT_EQ(failures(), 0);
  const std::string whole = out;
  const std::string second = whole.substr(whole.find('\n') + 1);
  ASSERT_TRUE(second.starts_with("{\"timestamp\":2,")) << second;
  bool any_failed = true;
  std::size_t gone_on = 0;
  testing::internal::CaptureStderr();
  for (std::size_t successes = 0; any_failed && successes < 1000; ++successes) {
    int failed = 1;
    {
      const test::FailingAllocations failing(successes, test::FailingAllocations::Failing::once);
      try {
        failed = failures();
      } catch (const std::bad_alloc&) {
      }
      any_failed = failing.any_failed();
    }
    if (failed == 0) {
      EXPECT_EQ(out, whole) << successes;
    }
    gone_on += failed != 0 && out == second;
  }
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(any_failed);
  EXPECT_GT(gone_on, 0u);
  EXPECT_NE(said.find("Failed processing file " + input + ": Failed to process data file " + input),
            said.npos);
}

// Whatever allocation fails while pages are saved, the run fails or every file is as it has to be.
TEST(ShortMemory, PagesAreSavedOrTheRunFailsWithAReason) {
  if (!test::FailingAllocations::kFailsMalloc) GTEST_SKIP();
  namespace fs = std::filesystem;
  const test::ReaderFiles files;
  ReaderOptions options = files.options(OutputFormat::bin);
  options.sort_files = true;
  options.output_dir = files.path("output");
  const std::string input = files.write(
      "a.bin", test::sample_file(test::usual_header(), {test::usual_page('G', test::usual_events({1}))}));
  ASSERT_TRUE(append(options.input_files, input.c_str()));
  const auto saved = [&] {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(options.output_dir))
      if (entry.is_regular_file() && entry.path().extension() == ".bin")
        found[entry.path()] = test::read_file(entry.path());
    return found;
  };
  const auto run = [&](std::size_t successes, test::FailingAllocations::Failing failing, bool& any_failed) {
    fs::remove_all(options.output_dir);
    fs::create_directories(options.output_dir);
    std::string text;
    OutputSink sink(text);
    const test::FailingAllocations failures(successes, failing);
    bool ok = false;
    try {
      ok = process_files(options, sink) == 0;
    } catch (const std::bad_alloc&) {
    }
    any_failed = failures.any_failed();
    return ok;
  };
  bool any_failed = false;
  qvx_init_stderr_logger(QVX_LOG_ERROR);
  testing::internal::CaptureStderr();
  ASSERT_TRUE(run(1'000'000, test::FailingAllocations::Failing::once, any_failed));
  const auto whole = saved();
  ASSERT_EQ(whole.size(), 1u);
  for (const auto failing :
       {test::FailingAllocations::Failing::once, test::FailingAllocations::Failing::lasting}) {
    any_failed = true;
    for (std::size_t successes = 0; any_failed && successes < 5000; ++successes) {
      const bool ok = run(successes, failing, any_failed);
      EXPECT_TRUE(ok || any_failed) << successes;
      if (ok) {
        EXPECT_EQ(saved(), whole) << successes;
      }
      if (testing::Test::HasFailure()) break;
    }
    EXPECT_FALSE(any_failed);
  }
  const std::string said = testing::internal::GetCapturedStderr();
  for (const char* const words :
       {"Failed to create client identity: Cannot allocate memory",
        "Failed to create data writer: Cannot allocate memory", "Failed to allocate memory for file entries",
        "Failed to allocate data block of size 18: Cannot allocate memory"})
    EXPECT_NE(said.find(words), said.npos) << words;
}

// The command line is refused with a reason, or is as it was written.
TEST(ShortMemory, CommandLineIsWholeOrRefusedWithAReason) {
  if (!test::FailingAllocations::kFailsMalloc) GTEST_SKIP();
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
  if (!test::FailingAllocations::kFailsMalloc) GTEST_SKIP();
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
  if (!test::FailingAllocations::kFailsMalloc) GTEST_SKIP();
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
