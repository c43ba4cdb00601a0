#include "qvx/reader/options.h"

#include <getopt.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "qvx/scan/schema_folder.h"
#include "tests/reader/reader_files.h"

namespace qvx {
namespace {

using test::ReaderFiles;

struct Parsed {
  ParseResult result{};
  ReaderOptions options;
  std::string err;
};

// Parses in the folder, whose "schema" is there.
class OptionsTest : public testing::Test {
 protected:
  OptionsTest() : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(files_.path("."));
  }
  ~OptionsTest() override { std::filesystem::current_path(before_); }

  static Parsed parse(std::vector<std::string> words) {
    words.insert(words.begin(), "qvx_read");
    std::vector<char*> argv;
    for (std::string& word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    Parsed parsed;
    optind = 0;
    testing::internal::CaptureStderr();
    parsed.result = reader_options_parse(parsed.options, static_cast<int>(words.size()), argv.data());
    parsed.err = testing::internal::GetCapturedStderr();
    return parsed;
  }

  static std::vector<std::string> texts(const StringArrayPtr& array) {
    const auto elements = strings(array);
    return {elements.begin(), elements.end()};
  }

  const ReaderFiles files_;
  const std::filesystem::path before_;
};

using Words = std::vector<std::string>;

TEST_F(OptionsTest, DefaultsAreThoseOfAnEmptyCommandLine) {
  const Parsed parsed = parse({});
  ASSERT_EQ(parsed.result, ParseResult::ok);
  const ReaderOptions& options = parsed.options;
  EXPECT_EQ(options.verbosity, 6u);
  EXPECT_EQ(options.format, OutputFormat::json);
  EXPECT_EQ(options.schema_path, "schema");
  EXPECT_EQ(options.output_dir, "output");
  EXPECT_EQ(texts(options.input_files), Words{});
  EXPECT_EQ(options.timestamp_gt, 0u);
  EXPECT_EQ(options.timestamp_lt, 18446744073709551615u);
  EXPECT_EQ(texts(options.include_counters), Words{"*"});
  EXPECT_EQ(texts(options.exclude_counters), Words{});
  EXPECT_FALSE(options.print_headers);
  EXPECT_EQ(options.data_dir, std::nullopt);
  EXPECT_FALSE(options.sort_files);
  EXPECT_EQ(options.sort_order, std::nullopt);
}

TEST_F(OptionsTest, ShortOptionsFillTheRecord) {
  const Parsed parsed = parse({"-v3", "-s", "schema", "-g", "0x10", "-l", "020", "-i", "a*", "-e", "b",
                               "-fbin", "-p", "-d", "schema", "-Ssource_id", "--output-dir", ".", "x.bin"});
  ASSERT_EQ(parsed.result, ParseResult::ok) << parsed.err;
  const ReaderOptions& options = parsed.options;
  EXPECT_EQ(options.verbosity, 3u);
  EXPECT_EQ(options.timestamp_gt, 16u);
  EXPECT_EQ(options.timestamp_lt, 16u);
  EXPECT_EQ(texts(options.include_counters), Words{"a*"});
  EXPECT_EQ(texts(options.exclude_counters), Words{"b"});
  EXPECT_EQ(options.format, OutputFormat::bin);
  EXPECT_TRUE(options.print_headers);
  EXPECT_EQ(options.data_dir, "schema");
  EXPECT_TRUE(options.sort_files);
  EXPECT_EQ(options.sort_order, "source_id");
  EXPECT_EQ(options.output_dir, ".");
  EXPECT_EQ(texts(options.input_files).front(), "x.bin");
  EXPECT_EQ(texts(options.input_files).size(), 3u);
}

TEST_F(OptionsTest, LongOptionsFillTheRecord) {
  const Parsed parsed = parse({"--verbose=7", "--schema-path=schema", "--timestamp-gt=1", "--timestamp-lt=2",
                               "--include-counters=a", "--exclude-counters=b", "--format=influx",
                               "--print-page-info", "--sort-files=source_tag"});
  ASSERT_EQ(parsed.result, ParseResult::ok) << parsed.err;
  EXPECT_EQ(parsed.options.verbosity, 7u);
  EXPECT_EQ(parsed.options.timestamp_gt, 1u);
  EXPECT_EQ(parsed.options.timestamp_lt, 2u);
  EXPECT_EQ(texts(parsed.options.include_counters), Words{"a"});
  EXPECT_EQ(texts(parsed.options.exclude_counters), Words{"b"});
  EXPECT_EQ(parsed.options.format, OutputFormat::influx);
  EXPECT_TRUE(parsed.options.print_headers);
  EXPECT_EQ(parsed.options.sort_order, "source_tag");
}

TEST_F(OptionsTest, PatternsGivenTwiceAreBothKeptWithoutAStar) {
  EXPECT_EQ(texts(parse({"-i", "a", "-i", "b"}).options.include_counters), (Words{"a", "b"}));
}

TEST_F(OptionsTest, WordBehindShortOutputOptionIsAnInputFile) {
  const Parsed parsed = parse({"-o", "word", "file.bin"});
  EXPECT_EQ(parsed.result, ParseResult::ok);
  EXPECT_EQ(texts(parsed.options.input_files), (Words{"word", "file.bin"}));
  EXPECT_EQ(parsed.options.output_dir, "output");
  EXPECT_EQ(parsed.err, "qvx_read: invalid option -- 'o'\n");
}

TEST_F(OptionsTest, SortingWithoutArgumentTakesAnEarlierOrderAway) {
  for (const char* const word : {"-S", "--sort-files", "--sort-files="}) {
    const Parsed parsed = parse({"-Ssource_id", word});
    EXPECT_TRUE(parsed.options.sort_files) << word;
    EXPECT_EQ(parsed.options.sort_order, std::nullopt) << word;
  }
}

TEST_F(OptionsTest, WrongArgumentsFailWithTheirMessage) {
  const std::vector<std::pair<Words, std::string>> rows = {
      {{"-v", "8"}, "Verbosity level is a number between 0 and 7, 8 is given."},
      {{"-v", "-1"}, "Verbosity level is a number between 0 and 7, -1 is given."},
      {{"-v", "7x"}, "Verbosity level is a number between 0 and 7, 7x is given."},
      {{"-v", "99999999999999999999"},
       "Verbosity level is a number between 0 and 7, 99999999999999999999 is given."},
      {{"-g", "1 "}, "Timestamp must be a number, 1  is given."},
      {{"-l", "99999999999999999999"}, "Timestamp must be a number, 99999999999999999999 is given."},
      {{"-f", "JSON"}, "Unsupported output format JSON"},
      {{"-f", ""}, "Unsupported output format "},
      {{"-f", "bin"}, "Output folder 'output' does not exits\n"},
  };
  for (const auto& [words, message] : rows) {
    const Parsed parsed = parse(words);
    EXPECT_EQ(parsed.result, ParseResult::failed) << words[1];
    EXPECT_EQ(parsed.err, message) << words[1];
  }
}

TEST_F(OptionsTest, FirstFaultEndsTheParse) {
  EXPECT_EQ(parse({"-v", "8", "-f", "JSON", "-h"}).err,
            "Verbosity level is a number between 0 and 7, 8 is given.");
}

TEST_F(OptionsTest, HelpAndVersionEndTheParse) {
  EXPECT_EQ(parse({"--help", "-v", "8"}).result, ParseResult::show_usage);
  EXPECT_EQ(parse({"-V", "-h"}).result, ParseResult::show_version);
}

TEST(OutputFormatTest, NamesAndValuesAreExact) {
  EXPECT_EQ(output_format_from_name("json"), 0);
  EXPECT_EQ(output_format_from_name("bin"), 5);
  EXPECT_EQ(output_format_from_name("Json"), -1);
  EXPECT_EQ(output_format_from_name("jso"), -1);
  EXPECT_STREQ(output_format_name(2), "txt");
  EXPECT_STREQ(output_format_name(4), "influx");
  EXPECT_EQ(output_format_name(6), nullptr);
  EXPECT_EQ(output_format_name(-1), nullptr);
}

TEST_F(OptionsTest, SchemaFolderIsTheNearestOfFive) {
  std::filesystem::create_directories("1/2/3/4/5");
  std::filesystem::create_directories("1/2/schema");
  EXPECT_EQ(find_schema_folder("1/2/3/a.bin"), "1/2/schema");
  EXPECT_EQ(find_schema_folder("1/a.bin"), "./schema");
  EXPECT_EQ(find_schema_folder("a.bin"), "./schema");
  std::filesystem::remove("1/2/schema");
  EXPECT_EQ(find_schema_folder("1/2/3/4/a.bin"), "./schema");
  EXPECT_EQ(find_schema_folder("1/2/3/4/5/a.bin"), std::nullopt);
}

TEST_F(OptionsTest, SchemaFolderSearchTakesAFileOfThatNameToo) {
  files_.write("data/schema", "");
  EXPECT_EQ(find_schema_folder("data/a.bin"), "data/schema");
}

TEST(SchemaFolderTest, RootIsNotReachedFromBelow) {
  if (std::filesystem::exists("/schema")) GTEST_SKIP() << "this machine has a /schema";
  EXPECT_EQ(find_schema_folder("/no/such/folder/a.bin"), std::nullopt);
}

TEST(UsageTest, ShowsTheBuiltInDefaults) {
  const std::optional<std::string> text = usage_text();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("Level of verbosity 0-7 (6).\n"), std::string::npos);
  EXPECT_NE(text->find("Print data headers (false).\n"), std::string::npos);
  EXPECT_TRUE(text->ends_with("Output format (json).\n\n"));
}

TEST(VersionTest, NamesTheProgramAndWhatItIsMadeOf) {
  const std::string text = version_output();
  EXPECT_TRUE(text.starts_with("Quorvex binary data reader 1.22.1\nQuorvex build info: "));
  for (const char* const name : {"zlib ", "snappy ", "OpenSSL ", "Boost ", "RapidJSON "})
    EXPECT_NE(text.find(name), std::string::npos) << name;
  EXPECT_TRUE(text.ends_with("\n"));
}

}  // namespace
}  // namespace qvx
