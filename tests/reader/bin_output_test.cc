#include "qvx/reader/bin_output.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
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
#include "tests/support/env_guard.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::counters_block;
using test::events_block;
using test::gzip;
using test::id_of_byte;
using test::le;
using test::LogCapture;
using test::page_block;
using test::PageBlockHeader;
using test::read_file;
using test::sample_file;
using test::TempDir;
using Texts = std::vector<std::string>;

// 2023-11-14 22:13:20 UTC.
constexpr std::uint64_t kStart = 1700000000000000;

const qvx_schema_id kEvents = id_of_byte(0xE1);
const qvx_schema_id kOtherEvents = id_of_byte(0xE2);
const qvx_schema_id kCounters = id_of_byte(0xC1);

std::string events_schema(std::string_view field) {
  return R"({"qvx_version":"1.5.0","provider_name":"p","provider_version":"1.0.0","types":[{"name":"sample",)"
         R"("size":2,"fields":[{"field_name":")" +
         std::string(field) +
         R"(","description":"","type_name":"uint16_t","counting_mode":"ABSOLUTE","offset":0,"type_size":2,)"
         R"("index":0}]}]})";
}

constexpr std::string_view kCountersSchema =
    R"({"version":"1.5.0","counter_groups":[{"granularity":"NODE","name":"g","num_counters":1,)"
    R"("num_counter_sets":1,"counters":[{"name":"c","description":"","units":"","data_type":"UINT64",)"
    R"("counting_type":"ABSOLUTE"}]}]})";

// A block of events that count up from a number; 16 bytes and two for each.
std::string events(std::uint16_t first, std::size_t count, std::uint8_t schema_index = 0) {
  std::vector<std::string> records;
  for (std::size_t i = 0; i < count; ++i)
    records.push_back(le(static_cast<std::uint16_t>(first + i)));
  return events_block({.schema_index = schema_index}, records);
}

PageBlockHeader page_at(std::uint64_t time, std::string source = "node1", std::string tag = "",
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
class BinOutputTest : public testing::Test {
 protected:
  BinOutputTest() {
    temp_.write_file("schema/" + test::schema_file_name(kEvents), events_schema("v"));
    temp_.write_file("schema/" + test::schema_file_name(kOtherEvents), events_schema("w"));
    temp_.write_file("schema/" + test::schema_file_name(kCounters), kCountersSchema);
    fs::create_directories(output());
  }

  fs::path output() const { return temp_.path() / "output"; }

  // The header of input files: both kinds of schemas, and blocks of this size.
  static test::FileHeader header(std::uint32_t block_size = 4096) {
    test::FileHeader header;
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
  std::string run(OutputFormat format, const Texts& files) {
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
    testing::internal::CaptureStderr();
    failures_ = process_files(options, sink);
    errors_ = testing::internal::GetCapturedStderr();
    sink.flush();
    return text;
  }

  // Re-saves the files, which must work.
  void resave(const Texts& files) {
    EXPECT_EQ(run(OutputFormat::bin, files), "");
    EXPECT_EQ(failures_, 0) << errors_;
  }

  // The records of the files, sorted: a source's files hold them in order, but not all files together.
  Texts records(const Texts& files) {
    std::istringstream text(run(OutputFormat::ndjson, files));
    EXPECT_EQ(failures_, 0) << errors_;
    Texts lines;
    for (std::string line; std::getline(text, line);)
      lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  // The paths of the files that were written, without node information.
  Texts written() const {
    Texts found;
    for (const auto& entry : fs::recursive_directory_iterator(output())) {
      if (entry.is_regular_file() && entry.path().extension() == ".bin") found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  TempDir temp_;
  int failures_ = 0;
  std::string errors_;
  const test::EnvGuard host_{"QVX_HOST_NAME", "host7"};
  LogCapture log_{QVX_LOG_WARNING};
};

// -- What is written

TEST_F(BinOutputTest, PageIsWrittenAsOneBlockWithTheSchemasOfItsFile) {
  resave({write_input(page_block(page_at(0, "node1", "t"), events(7, 3)))});
  test::FileHeader expected;
  expected.file_size = 256 + 22;
  expected.source_id = "node1";
  expected.source_tag = "t";
  expected.first_timestamp = kStart;
  expected.last_timestamp = kStart;
  expected.block_size = 22;
  expected.counters_schema_id = kCounters;
  expected.event_schema_ids = {kEvents};
  EXPECT_EQ(read_file(output() / "2023/1114/node1/t_1700000000000000.bin"),
            test::file_header(expected) + events(7, 3));
  EXPECT_TRUE(fs::exists(output() / "2023/1114/node1/nodeinfo.json"));
}

TEST_F(BinOutputTest, WriterPageIsReusedWhileTheSizeStaysTheSame) {
  const std::string in =
      write_input(page_block(page_at(0), events(1, 3)) + page_block(page_at(1), events(2, 3)) +
                  page_block(page_at(2), events(3, 4)) + page_block(page_at(3), events(4, 4)) +
                  page_block(page_at(4), events(5, 3)));
  Texts allocations;
  {
    LogCapture log;
    resave({in});
    for (const std::string& text : log.texts(QVX_LOG_DEBUG)) {
      if (text.starts_with("Allocating regular_page")) allocations.push_back(text.substr(0, 34));
    }
  }
  EXPECT_EQ(allocations, (Texts{"Allocating regular_page: size: 742", "Allocating regular_page: size: 744",
                                "Allocating regular_page: size: 742"}));
  EXPECT_EQ(records(written()), records({in}));
}

TEST_F(BinOutputTest, ShorterStreamInAReusedPageLeavesNothingOfTheOneBefore) {
  const std::string first = events(1, 40);
  const std::string second = events(0x4141, 3);
  ASSERT_EQ(first.size(), 96u);
  const std::string joined = test::with_trailer(gzip(second) + std::string(4, 'x'), 96);
  resave({write_input(page_block(page_at(0), first) + test::page_block_of_payload(page_at(1), joined))});
  EXPECT_EQ(read_file(output() / "2023/1114/node1/1700000000000000.bin").substr(256),
            first + second + std::string(96 - second.size(), '\0'));
}

TEST_F(BinOutputTest, ClaimedSizeIsNotWrittenOut) {
  const std::string claim = test::with_trailer(gzip(events(1, 3)) + std::string(4, 'x'), 64 << 20);
  resave({write_input(test::page_block_of_payload(page_at(0), claim))});
  const Texts files = written();
  ASSERT_EQ(files.size(), 1u);
  struct stat status {};
  ASSERT_EQ(stat(files[0].c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 256 + (64 << 20));
  EXPECT_LT(status.st_blocks, 1000);
}

TEST_F(BinOutputTest, EmptyPagesAreDropped) {
  resave({write_input(page_block(page_at(0), "") + page_block(page_at(0, "n", "", 'S'), ""))});
  EXPECT_EQ(written(), Texts{});
}

TEST_F(BinOutputTest, UncompressedBlocksDoNotReachTheWriter) {
  const std::string text =
      run(OutputFormat::bin, {write_input(counters_block(kStart, le(std::uint64_t{1})))});
  EXPECT_NE(text, "");
  EXPECT_EQ(failures_, 0);
  const std::string bad = write_input(events(1, 1));
  run(OutputFormat::bin, {bad});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(errors_, "Failed processing file " + bad + ": Unknown output format 5\nFailed processing file " +
                         bad + ": Failed to process data file " + bad + "\n");
  EXPECT_EQ(written(), Texts{});
}

TEST_F(BinOutputTest, HeadersOfFilesAreCompleteAtTheEndOfARun) {
  resave({write_input(page_block(page_at(0), events(1, 3)) + page_block(page_at(5), events(2, 3)) +
                      page_block(page_at(9, "b"), events(2, 3)))});
  ASSERT_EQ(written().size(), 2u);
  for (const std::string& path : written()) {
    const std::string bytes = read_file(path);
    const qvx_data_file_header found = file_header_decode(Bytes(as_bytes(bytes)).first<256>());
    EXPECT_EQ(found.file_size, bytes.size()) << path;
    EXPECT_EQ(found.last_timestamp, kStart + (path.find("/b/") != std::string::npos ? 9 : 5)) << path;
  }
}

// -- The round trip

class RoundTrip : public BinOutputTest {
 protected:
  // Several sources and tags, both kinds of blocks, one or several pages in a unit.
  std::string many_sources(std::uint32_t block_size, char encoding, std::uint64_t start) {
    std::vector<std::string> units;
    std::uint16_t number = 0;
    for (std::uint64_t time = 0; time < 20; ++time) {
      std::string unit;
      for (const char* source : {"alpha", "beta"}) {
        for (const char* tag : {"", "t1", "t2"}) {
          const bool is_counters = time % 4 == 3;
          const std::string page =
              is_counters ? counters_block(kStart + number, le(std::uint64_t{number})) : events(number, 4);
          const std::string block = page_block(page_at(start + time, source, tag, encoding), page);
          if (unit.size() + block.size() > block_size) units.push_back(std::exchange(unit, ""));
          unit += block;
          number = static_cast<std::uint16_t>(number + 10);
        }
      }
      units.push_back(unit);
    }
    return sample_file(header(block_size), units);
  }

  // Schemas that change on the way, at the start of a page and in a file's header.
  std::string changing_schemas(char encoding) {
    test::FileHeader file = header(2048);
    file.event_schema_ids = {kOtherEvents, kEvents};
    const std::vector<std::string> pages = {
        events(100, 3, 1),
        events(110, 3, 0),
        test::schemas_block({kEvents}) + events(120, 5),
        events(130, 5),
        test::schemas_block({kOtherEvents}) + events(140, 5),
        test::schemas_block({kOtherEvents}) + events(150, 5),
        test::schemas_block({kOtherEvents, kEvents}) + events(160, 5, 1),
    };
    std::vector<std::string> units;
    for (std::size_t i = 0; i < pages.size(); ++i)
      units.push_back(page_block(page_at(1000 + i, "gamma", "", encoding), pages[i]));
    return sample_file(file, units);
  }

  // Pages of many sizes, and so blocks of many sizes.
  std::string changing_sizes(char encoding) {
    std::vector<std::string> units;
    for (std::uint16_t i = 0; i < 40; ++i) {
      std::string page;
      for (int block = 0; block <= i % 7; ++block)
        page += events(static_cast<std::uint16_t>(1000 * i + 100 * block), 1 + i % 5);
      units.push_back(page_block(page_at(2000u + i, "delta", "t", encoding), page));
    }
    return sample_file(header(1024), units);
  }

  Texts write_all() {
    Texts files;
    for (const std::string& content : {many_sources(512, 'G', 0), many_sources(8192, 'S', 500),
                                       changing_schemas('G'), changing_sizes('S')})
      files.push_back(temp_.write_file("in" + std::to_string(files.size()) + ".bin", content));
    return files;
  }
};

TEST_F(RoundTrip, WrittenFilesHoldTheSameRecords) {
  const Texts files = write_all();
  const Texts expected = records(files);
  ASSERT_EQ(expected.size(), 1286u);
  resave(files);
  EXPECT_GT(written().size(), 10u);
  EXPECT_EQ(records(written()), expected);
}

TEST_F(RoundTrip, BothEncodingsGiveTheSameFiles) {
  const auto all_bytes = [this] {
    Texts found;
    for (const std::string& path : written())
      found.push_back(path + read_file(path));
    return found;
  };
  resave({temp_.write_file("in.bin", changing_schemas('G'))});
  const Texts first = all_bytes();
  fs::remove_all(output());
  fs::create_directories(output());
  resave({temp_.write_file("in.bin", changing_schemas('S'))});
  EXPECT_GT(first.size(), 3u);
  EXPECT_EQ(all_bytes(), first);
}

TEST_F(RoundTrip, FilesThatExistHoldTheRecordsTwiceAfterASecondRun) {
  const Texts files = write_all();
  const Texts once = records(files);
  resave(files);
  const Texts names = written();
  resave(files);
  EXPECT_EQ(written(), names);
  Texts twice;
  for (const std::string& record : once)
    twice.insert(twice.end(), 2, record);
  EXPECT_EQ(records(written()), twice);
}

TEST_F(RoundTrip, WorksForInputThatIsCompressedWhole) {
  const std::string in = temp_.write_file("in.bin.gz", gzip(many_sources(512, 'G', 0)));
  const Texts expected = records({in});
  EXPECT_EQ(expected.size(), 390u);
  resave({in});
  EXPECT_EQ(records(written()), expected);
}

// -- Failures

TEST_F(BinOutputTest, PageThatCannotBeSavedDoesNotStopTheOthersAndFailsItsFile) {
  temp_.write_file("output/2023/1114/blocked", "a file in the way");
  const std::string in =
      temp_.write_file("in.bin", sample_file(header(), {page_block(page_at(0, "a"), events(1, 3)) +
                                                            page_block(page_at(1, "blocked"), events(2, 3)) +
                                                            page_block(page_at(2, "b"), events(3, 3)),
                                                        page_block(page_at(3, "a"), events(4, 3))}));
  const std::string good =
      temp_.write_file("good.bin", sample_file(header(), {page_block(page_at(9, "c"), events(5, 3))}));
  run(OutputFormat::bin, {in, good});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(errors_, "Failed processing file " + in + ": Failed to process data file " + in + "\n");
  const std::string folder = output() / "2023/1114/blocked";
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), (Texts{"[data_file] Failed to create data file " + folder +
                                              "/1700000000000001.bin: Inaccessible data path " + folder}));
  EXPECT_EQ(records(written()).size(), 12u);
}

TEST_F(BinOutputTest, PageOfAnUnknownKindFailsItsFile) {
  // The last holds nothing but zeros, from a stream that yields no byte of them.
  const std::string nothing = test::with_trailer(gzip("") + std::string(4, 'x'), 64);
  for (const std::string& unit :
       {page_block(page_at(0), std::string(64, '\0')),
        page_block(page_at(0), test::blob_block(kStart, "blob")), page_block(page_at(0), "QV"),
        test::page_block_of_payload(page_at(0), nothing)}) {
    log_.clear();
    run(OutputFormat::bin, {write_input(unit)});
    EXPECT_EQ(failures_, 1);
    EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
              (Texts{"[data_writer] Unrecognized type of data page. Cannot save to file."}));
  }
  EXPECT_EQ(written(), Texts{});
}

TEST_F(BinOutputTest, PageThatCannotBeUnpackedEndsItsFile) {
  const std::string in = temp_.write_file(
      "in.bin", sample_file(header(), {page_block(page_at(0, "a"), events(1, 3)) +
                                           test::page_block_of_payload(page_at(1), "\x1f\x8b broken") +
                                           page_block(page_at(2, "b"), events(3, 3)),
                                       page_block(page_at(3, "c"), events(4, 3))}));
  run(OutputFormat::bin, {in});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(written(), (Texts{(output() / "2023/1114/a/1700000000000000.bin").string()}));
}

TEST_F(BinOutputTest, PageTooLargeForAnyReaderIsNotSaved) {
  const std::string claim = test::with_trailer(gzip(events(1, 3)) + std::string(4, 'x'), 0x08000000);
  run(OutputFormat::bin, {write_input(test::page_block_of_payload(page_at(0), claim))});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
            (Texts{"[data_writer] Blocks of 134217728 bytes could not be read. Cannot save to file."}));
  EXPECT_EQ(written(), Texts{});
}

TEST_F(BinOutputTest, SourceNamesOfAnyLengthStayBelowTheOutputFolder) {
  const std::vector<std::pair<std::string, std::string>> names = {
      {"../../../../../../../../../../../../../../../../../../../../../x", ""},
      {std::string(64, 'i'), std::string(16, 't')},
      {std::string(90, 'j'), std::string(40, 'u')},
      {"node1", "../../../../x"},
      {"a\nb", "\x1b[2J"},
      {"%H", "%%"},
      {std::string("nul\0after", 9), ""},
  };
  std::string unit;
  for (const auto& [id, tag] : names)
    unit += page_block(page_at(0, id, tag), events(1, 3));
  run(OutputFormat::bin, {write_input(unit)});
  EXPECT_EQ(failures_, 1);
  const std::string top = output() / "2023/1114/";
  const std::string file = "_1700000000000000.bin";
  EXPECT_EQ(written(), (Texts{top + "22/%" + file, top + "a\nb/\x1b[2J" + file,
                              top + std::string(64, 'i') + "/" + std::string(16, 't') + file,
                              top + std::string(64, 'j') + "/" + std::string(16, 'u') + file,
                              top + "nul/1700000000000000.bin"}));
  EXPECT_EQ(std::distance(fs::directory_iterator(temp_.path()), {}), 3);
}

// What was written to a disk that became full can be read, and none of it is a part of a block.
class FullDisk : public BinOutputTest {
 protected:
  // 64 pages of 4 KiB for each of two sources.
  std::string write_pages() {
    std::vector<std::string> units;
    for (std::uint64_t time = 0; time < 64; ++time) {
      for (const char* source : {"a", "b"}) {
        std::string page;
        for (int block = 0; block < 16; ++block)
          page += events(static_cast<std::uint16_t>(time * 100), 120);
        units.push_back(page_block(page_at(time, source), page));
      }
    }
    return temp_.write_file("in.bin", sample_file(header(8192), units));
  }

  void expect_whole_blocks_only() {
    EXPECT_EQ(failures_, 1);
    const Texts files = written();
    EXPECT_FALSE(files.empty());
    for (const std::string& file : files)
      EXPECT_EQ((fs::file_size(file) - 256) % 4096, 0u) << file;
    EXPECT_GT(records(files).size(), 1920u);
  }
};

TEST_F(FullDisk, UnderAFileSizeLimit) {
  const std::string in = write_pages();
  void (*const handler)(int) = std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limit{50000, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  run(OutputFormat::bin, {in});
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  ASSERT_FALSE(log_.texts(QVX_LOG_ERROR).empty());
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR)[0], "[data_file] Failed appending data file " +
                                              (output() / "2023/1114/a/1700000000000000.bin").string() +
                                              ": File too large");
  expect_whole_blocks_only();
}

TEST_F(FullDisk, OnASmallFileSystem) {
  const std::string in = write_pages();
  if (mount("qvx_test", output().c_str(), "tmpfs", 0, "size=100k") != 0)
    GTEST_SKIP() << "mounting a file system needs privileges";
  run(OutputFormat::bin, {in});
  const Texts messages = log_.texts(QVX_LOG_ERROR);
  expect_whole_blocks_only();
  EXPECT_EQ(umount2(output().c_str(), MNT_DETACH), 0);
  ASSERT_FALSE(messages.empty());
  EXPECT_TRUE(messages[0].starts_with("[data_file] Failed appending data file ")) << messages[0];
  EXPECT_TRUE(messages[0].ends_with(": No space left on device")) << messages[0];
}

// -- Interruption

// The bytes of a file from an offset on, at most so many.
std::string read_from(const fs::path& path, std::size_t offset, std::size_t most) {
  std::string bytes(most, '\0');
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(bytes.data(), static_cast<std::streamsize>(most));
  bytes.resize(static_cast<std::size_t>(in.gcount()));
  return bytes;
}

// Killed at any moment, the program leaves files that have their header and whole blocks, and at most a part
// of one block at their end; a later run onto the same files takes that away.
TEST_F(BinOutputTest, KilledAtAnyMomentEveryFileCanBeReadUpToItsLastWholeBlock) {
  constexpr int kRounds = 200;
  constexpr int kRoundsPerFolder = 10;
  constexpr std::size_t kBlockSize = 48 * 256;
  std::vector<std::string> units;
  std::set<std::string> blocks;
  for (std::uint64_t time = 0; time < 4; ++time) {
    for (int source = 0; source < 6; ++source) {
      std::string page;
      for (int block = 0; block < 48; ++block)
        page += events(static_cast<std::uint16_t>(source * 1000 + static_cast<int>(time)), 120);
      blocks.insert(page);
      units.push_back(page_block(page_at(time, "s" + std::to_string(source)), page));
    }
  }
  const std::string in = temp_.write_file("in.bin", sample_file(header(8192), units));
  std::mt19937 random(20231114);
  int killed = 0;
  std::size_t whole = 0;
  std::size_t parts = 0;
  std::map<fs::path, std::size_t> seen_of;
  for (int round = 0; round < kRounds; ++round) {
    if (round % kRoundsPerFolder == 0) {
      fs::remove_all(output());
      fs::create_directories(output());
      seen_of.clear();
    }
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      qvx_logger_set_level(0);
      while (true)
        run(OutputFormat::bin, {in});
    }
    usleep(static_cast<useconds_t>(500 + random() % 5000));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status)) ++killed;
    for (const auto& entry : fs::recursive_directory_iterator(output())) {
      if (!entry.is_regular_file() || entry.path().extension() == ".json") continue;
      // What an earlier round has seen is only ever appended to.
      std::size_t& seen = seen_of[entry.path()];
      const std::string head = read_from(entry.path(), 0, 256);
      ASSERT_EQ(head.size(), 256u) << entry.path();
      const qvx_data_file_header found = file_header_decode(Bytes(as_bytes(head)).first<256>());
      ASSERT_TRUE(validate_header(found)) << entry.path();
      ASSERT_EQ(found.block_size, kBlockSize);
      const std::string bytes = read_from(entry.path(), 256 + seen, fs::file_size(entry.path()));
      std::size_t at = 0;
      for (; bytes.size() - at >= kBlockSize; at += kBlockSize, ++whole)
        ASSERT_TRUE(blocks.contains(bytes.substr(at, kBlockSize))) << entry.path() << " at " << seen + at;
      if (at != bytes.size()) ++parts;
      seen += at;
    }
  }
  EXPECT_EQ(killed, kRounds);
  EXPECT_GT(whole, 100u);
  RecordProperty("files_with_a_part_of_a_block", static_cast<int>(parts));
  resave({in});
  for (const std::string& file : written())
    EXPECT_EQ((fs::file_size(file) - 256) % kBlockSize, 0u) << file;
}

}  // namespace
}  // namespace qvx
