#include "qvx/reader/bin_output.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/reader/bin_output_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::counters_block;
using test::events;
using test::gzip;
using test::kCounters;
using test::kEvents;
using test::kOtherEvents;
using test::kStart;
using test::le;
using test::LogCapture;
using test::page_at;
using test::page_block;
using test::read_file;
using test::sample_file;
using Texts = std::vector<std::string>;

class BinOutputTest : public test::BinOutputFiles {};

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

class RoundTrip : public test::BinOutputFiles {
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

}  // namespace
}  // namespace qvx
