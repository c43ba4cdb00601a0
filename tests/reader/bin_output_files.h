// Input files with compressed pages, runs of the reader over them, and what it wrote.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/reader/options.h"
#include "qvx/reader/process_files.h"
#include "qvx/support/log.h"
#include "qvx/support/output_sink.h"
#include "tests/data/sample_builder.h"
#include "tests/reader/reader_files.h"
#include "tests/support/env_guard.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {

inline const qvx_schema_id kEvents = id_of_byte(0xE1);
inline const qvx_schema_id kOtherEvents = id_of_byte(0xE2);
inline const qvx_schema_id kCounters = id_of_byte(0xC1);

// A block of events that count up from a number; 16 bytes and two for each.
inline std::string events(std::uint16_t first, std::size_t count, std::uint8_t schema_index = 0) {
  std::vector<std::string> records;
  for (std::size_t i = 0; i < count; ++i)
    records.push_back(le(static_cast<std::uint16_t>(first + i)));
  return events_block({.schema_index = schema_index}, records);
}

inline PageBlockHeader page_at(std::uint64_t time, std::string source = "node1", std::string tag = "",
                               char encoding = 'G') {
  PageBlockHeader header;
  header.encoding = encoding;
  header.first_timestamp = kStart + time;
  header.last_timestamp = kStart + time;
  header.source_id = std::move(source);
  header.source_tag = std::move(tag);
  return header;
}

// A folder with schemas, input files and the output folder, and runs over them.
class BinOutputFiles : public ::testing::Test {
 protected:
  BinOutputFiles() {
    temp_.write_file("schema/" + schema_file_name(kEvents), events_schema_with_field("v"));
    temp_.write_file("schema/" + schema_file_name(kOtherEvents), events_schema_with_field("w"));
    temp_.write_file("schema/" + schema_file_name(kCounters), kUsualCounters);
    std::filesystem::create_directories(output());
  }

  std::filesystem::path output() const { return temp_.path() / "output"; }

  // The header of input files: both kinds of schemas, and blocks of this size.
  static FileHeader header(std::uint32_t block_size = 4096) {
    FileHeader header;
    header.block_size = block_size;
    header.counters_schema_id = kCounters;
    header.event_schema_ids = {kEvents};
    return header;
  }

  // An input file with one unit.
  std::string write_input(const std::string& unit) {
    return temp_.write_file("in.bin", sample_file(header(), {unit}));
  }

  // Reads the files; gives what went to standard output, and counts the files that failed.
  std::string run(OutputFormat format, const std::vector<std::string>& files) {
    ReaderOptions options;
    EXPECT_TRUE(reader_options_set_defaults(options));
    EXPECT_TRUE(append(options.include_counters, "*"));
    options.format = format;
    options.schema_path = temp_.file("schema");
    options.output_dir = output();
    for (const std::string& file : files)
      EXPECT_TRUE(append(options.input_files, file.c_str()));
    std::string text;
    OutputSink sink(text);
    ::testing::internal::CaptureStderr();
    failures_ = process_files(options, sink);
    errors_ = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(sink.flush());
    return text;
  }

  // Re-saves the files, which must work.
  void resave(const std::vector<std::string>& files) {
    EXPECT_EQ(run(OutputFormat::bin, files), "");
    EXPECT_EQ(failures_, 0) << errors_;
  }

  // The records of the files, sorted: a source's files hold them in order, but not all files together.
  std::vector<std::string> records(const std::vector<std::string>& files) {
    std::istringstream text(run(OutputFormat::ndjson, files));
    EXPECT_EQ(failures_, 0) << errors_;
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
      lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  // The paths of the files that were written, without node information.
  std::vector<std::string> written() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(output())) {
      if (entry.is_regular_file() && entry.path().extension() == ".bin") found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  TempDir temp_;
  int failures_ = 0;
  std::string errors_;
  const EnvGuard host_{"QVX_HOST_NAME", "host7"};
  LogCapture log_{QVX_LOG_WARNING};
};

}  // namespace qvx::test
