#include "qvx/scan/file_scan.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/format.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/reader/reader_files.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"

namespace qvx {
namespace {

using test::file_header;
using test::GuardedBuffer;
using test::gzip;
using test::kStart;
using test::le;
using test::padded;
using test::ReaderFiles;
using test::usual_counters;
using test::usual_events;
using test::usual_header;
using test::usual_page;
using test::usual_schemas;

using Lines = std::vector<std::string>;

std::string text_of(const Place& place) {
  std::string text = std::to_string(place.offset);
  if (place.in_page) text += "+" + std::to_string(place.page_offset);
  return text;
}

// Writes down what it is handed, a line each, and answers as it is told to.
class RecordingVisitor : public ScanVisitor {
 public:
  void on_header(const qvx_data_file_header& header) override { add("header %" PRIu32, header.block_size); }
  PageUse on_page(const PageBlock& block, const Place& place) override {
    add("page of %zu at %s", static_cast<std::size_t>(block.total_size), text_of(place).c_str());
    return page_use;
  }
  void on_event_header(const EventHeader& header) override { event_headers += header.num_events; }
  bool on_events(const EventsBlock& block) override {
    std::string values;
    for (std::size_t at = 0; at < block.count; ++at)
      values += ' ' + std::to_string(load_le<std::uint16_t>(block.records.data() + at * block.type.size));
    add("%s%s at %s", block.type.name.c_str(), values.c_str(), text_of(block.place).c_str());
    return accepts;
  }
  bool on_counters(const CountersBlock& block) override {
    add("counters of %zu bytes at %s", block.block.size(), text_of(block.place).c_str());
    return accepts;
  }
  void on_metrics(const MetricsBlock& block) override {
    add("metrics of %zu bytes at %s", block.block.size(), text_of(block.place).c_str());
  }
  void on_schemas(const SchemasBlock& block) override {
    add("%zu schemas at %s", block.ids.size(), text_of(block.place).c_str());
  }
  bool on_blob(const BlobBlock& block) override {
    add("blob of %zu bytes at %s", block.data.size(), text_of(block.place).c_str());
    return accepts_blob;
  }
  void on_fault(const Fault& fault) override {
    faults.push_back(std::string(fault_kind_name(fault.kind)) + " at " + text_of(fault.place) + ": " +
                     fault.words);
  }

  PageUse page_use = PageUse::unpack;
  bool accepts = true;
  bool accepts_blob = true;
  unsigned event_headers = 0;  // records that they state
  Lines blocks;
  Lines faults;

 private:
  template <typename... Arguments>
  void add(const char* format, Arguments... arguments) {
    blocks.push_back(format_text(format, arguments...));
  }
};

class FileScanTest : public testing::Test {
 protected:
  // Scans bytes in memory; gives whether the file is good.
  bool scan(Bytes bytes) {
    FileScan scan(types_);
    scan.open(bytes);
    return go_on(scan);
  }
  bool scan(const std::string& bytes) { return scan(as_bytes(bytes)); }

  bool scan_file(const std::string& path) {
    FileScan scan(types_);
    return scan.open(path.c_str(), visitor_) && go_on(scan);
  }

  // Blocks behind a header with data blocks of that size.
  static std::string file(const std::string& blocks, std::uint32_t block_size = 512) {
    test::FileHeader fields = test::usual_header(block_size);
    return file_header(fields) + blocks;
  }

  const ReaderFiles files_;
  TypeCache types_{files_.path("schema")};
  RecordingVisitor visitor_;
  test::LogCapture log_{QVX_LOG_ERROR};

 private:
  bool go_on(FileScan& scan) {
    if (scan.read_header(visitor_) && scan.load_types(visitor_)) {
      while (scan.next(visitor_)) {
      }
    }
    const std::size_t faults = visitor_.faults.size();
    if (scan.failed()) {
      EXPECT_FALSE(scan.next(visitor_));
    }
    EXPECT_EQ(visitor_.faults.size(), faults);
    return !scan.failed();
  }
};

TEST_F(FileScanTest, HandsOverEveryKindOfBlockWithItsPlace) {
  const std::string page = usual_events({4}) + usual_schemas(test::kEventsId) + usual_events({5, 6});
  const std::string first = usual_page('G', page);
  const std::string second = usual_page('S', usual_counters(7));
  EXPECT_TRUE(
      scan(file(padded(usual_events({1, 2}) + usual_events({3}), 512) + padded(usual_counters(1), 512) +
                padded(first + second, 512) + padded("CNTX1234", 512) +
                padded("QVXB" + le(kStart) + le<std::uint64_t>(3) + "abc", 512) +
                usual_schemas(test::kEventsId) + usual_events({8}))));
  EXPECT_EQ(visitor_.faults, Lines{});
  EXPECT_EQ(
      visitor_.blocks,
      (Lines{"header 512", "sample 1 2 at 256", "sample 3 at 276", "counters of 512 bytes at 768",
             format_text("page of %zu at 1280", first.size()), "sample 4 at 1280+0", "1 schemas at 1280+18",
             "sample 5 6 at 1280+274", format_text("page of %zu at %zu", second.size(), 1280 + first.size()),
             format_text("counters of 24 bytes at %zu+0", 1280 + first.size()),
             "metrics of 512 bytes at 1792", "blob of 3 bytes at 2304", "1 schemas at 2816",
             "sample 8 at 3072"}));
}

TEST_F(FileScanTest, OffsetsAreThoseOfTheUnpackedFile) {
  const std::string plain = file(padded(usual_events({1}), 512) + usual_counters(2));
  EXPECT_TRUE(scan_file(files_.write("a.bin", gzip(plain))));
  EXPECT_EQ(visitor_.blocks, (Lines{"header 512", "sample 1 at 256", "counters of 24 bytes at 768"}));
}

TEST_F(FileScanTest, VisitorMayTakeAPageOrRefuseIt) {
  const std::string one = usual_page('S', usual_events({1}));
  const std::string bytes = file(padded(one + one, 512) + padded(usual_events({2}), 512));
  visitor_.page_use = PageUse::done;
  EXPECT_TRUE(scan(bytes));
  EXPECT_EQ(visitor_.blocks.size(), 4u);
  EXPECT_EQ(visitor_.blocks.back(), "sample 2 at 768");
  visitor_.blocks.clear();
  visitor_.page_use = PageUse::failed;
  EXPECT_FALSE(scan(bytes));
  EXPECT_EQ(visitor_.blocks.size(), 2u);
  EXPECT_EQ(visitor_.faults, Lines{});
}

TEST_F(FileScanTest, VisitorThatDoesNotAcceptABlockFailsTheFile) {
  visitor_.accepts = false;
  EXPECT_FALSE(scan(file(padded(usual_events({1}) + usual_events({2}), 512) + usual_counters(3))));
  EXPECT_EQ(visitor_.blocks, (Lines{"header 512", "sample 1 at 256"}));
  EXPECT_EQ(visitor_.faults, Lines{"block_failed at 256: Failed to process block of type 1 at offset 0"});
  visitor_.faults.clear();
  EXPECT_FALSE(scan(file(padded(usual_counters(3), 512) + usual_counters(3))));
  EXPECT_EQ(visitor_.blocks.back(), "counters of 512 bytes at 256");
  EXPECT_EQ(visitor_.faults, Lines{});
}

// Overrides no more than it must.
class FaultsOnly final : public ScanVisitor {
 public:
  void on_fault(const Fault& fault) override { kinds.push_back(fault_kind_name(fault.kind)); }
  Lines kinds;
};

TEST_F(FileScanTest, VisitorThatWantsFaultsOnlyGoesThroughEverythingButBlobs) {
  const auto kinds = [&](const std::string& blocks) {
    const std::string bytes = file(blocks);
    FaultsOnly visitor;
    FileScan scan(types_);
    scan.open(as_bytes(bytes));
    EXPECT_TRUE(scan.read_header(visitor) && scan.load_types(visitor));
    while (scan.next(visitor)) {
    }
    EXPECT_EQ(scan.failed(), !visitor.kinds.empty());
    return visitor.kinds;
  };
  test::TestBlock metrics;
  const std::string every = padded(usual_events({1}) + usual_schemas(test::kEventsId), 512) +
                            padded(usual_counters(3), 512) + padded(metrics.bytes(), 512) +
                            padded(usual_page('G', usual_events({2})), 512);
  EXPECT_EQ(kinds(every), Lines());
  EXPECT_EQ(kinds(every + padded(test::blob_block(kStart, "data"), 512)), Lines{"unknown_block"});
}

TEST_F(FileScanTest, EventHeadersAreToldBeforeTheirTypeIsLookedUp) {
  EXPECT_FALSE(scan(file(usual_events({1, 2}, 9))));
  EXPECT_EQ(visitor_.event_headers, 2u);
}

TEST_F(FileScanTest, ChainEndsWithoutAWordAtSomethingElse) {
  EXPECT_TRUE(
      scan(file(padded(usual_events({1}) + usual_counters(2), 512) + padded(usual_events({3}), 512))));
  EXPECT_EQ(visitor_.blocks, (Lines{"header 512", "sample 1 at 256", "sample 3 at 768"}));
  EXPECT_EQ(visitor_.faults, Lines{});
}

// The faults, one by one.

TEST_F(FileScanTest, FileThatCannotBeOpened) {
  EXPECT_FALSE(scan_file(files_.path("gone.bin")));
  EXPECT_EQ(visitor_.faults, Lines{"open_failed at 0: Failed to open data file " + files_.path("gone.bin") +
                                   ": No such file or directory"});
}

TEST_F(FileScanTest, HeaderThatIsCut) {
  EXPECT_FALSE(scan(file_header(usual_header()).substr(0, 255)));
  EXPECT_EQ(visitor_.faults, Lines{"header_short at 255: Failed reading data file header: Success"});
  EXPECT_EQ(visitor_.blocks, Lines{});
}

TEST_F(FileScanTest, HeaderOfAFolder) {
  EXPECT_FALSE(scan_file(files_.path("schema")));
  EXPECT_EQ(visitor_.faults, Lines{"header_short at 0: Failed reading data file header: Is a directory"});
}

TEST_F(FileScanTest, HeaderThatIsNone) {
  EXPECT_FALSE(scan("XVXF" + file_header(usual_header()).substr(4)));
  EXPECT_EQ(visitor_.faults, Lines{"header_invalid at 256: Invalid data file header"});
  EXPECT_EQ(visitor_.blocks, Lines{"header 256"});
  EXPECT_EQ(log_.messages().size(), 1u);
}

TEST_F(FileScanTest, BlockSizeOutOfRange) {
  EXPECT_FALSE(scan(file("", 15)));
  EXPECT_FALSE(scan(file("", 125829120)));
  EXPECT_EQ(
      visitor_.faults,
      (Lines{"block_size_invalid at 256: Block size 15 must be in range between 16 and 125829120 bytes ",
             "block_size_invalid at 256: Block size 125829120 must be in range between 16 and 125829120 "
             "bytes "}));
}

TEST_F(FileScanTest, TypesThatCannotBeLoaded) {
  test::FileHeader fields = test::usual_header();
  fields.event_schema_ids = {test::id_of("00000000000000000000000000000001")};
  EXPECT_FALSE(scan(file_header(fields)));
  EXPECT_EQ(visitor_.faults, Lines{"types_failed at 256: Failed to load type system"});
  EXPECT_EQ(log_.messages().size(), 2u);
}

TEST_F(FileScanTest, BlockThatCannotBeAllocated) {
  if (!test::MemoryLimit::kSupported) GTEST_SKIP() << "a sanitizer's memory does not fit under a limit";
  const std::string bytes = file(usual_events({1}), 125829119);
  const test::MemoryLimit limit;
  EXPECT_FALSE(scan(bytes));
  EXPECT_EQ(visitor_.faults,
            Lines{"no_memory at 256: Failed to allocate data block of size 125829119: Cannot "
                  "allocate memory"});
}

TEST_F(FileScanTest, EndWithLessThanABlockHeader) {
  const std::string path = files_.write("a.bin", file(padded(usual_events({1}), 512) + "QVX"));
  EXPECT_FALSE(scan_file(path));
  EXPECT_EQ(visitor_.faults,
            Lines{"no_block_header at 771: No data block header read from the file " + path});
  EXPECT_EQ(visitor_.blocks.back(), "sample 1 at 256");
}

TEST_F(FileScanTest, CompressedFileThatIsCut) {
  const std::string packed = gzip(file(padded(usual_events({1}), 512) + padded(usual_events({2}), 512)));
  const std::string path = files_.write("a.bin", packed.substr(0, packed.size() - 8));
  EXPECT_FALSE(scan_file(path));
  EXPECT_EQ(visitor_.blocks, (Lines{"header 512", "sample 1 at 256", "sample 2 at 768"}));
  EXPECT_EQ(visitor_.faults,
            Lines{"read_failed at 1280: Failed to read data file " + path + ": unexpected end of file"});
}

TEST_F(FileScanTest, PageThatCannotBeUnpacked) {
  const std::string bad = test::page_block_of_payload(test::usual_page_header('G'), "no stream");
  const std::string good = usual_page('S', usual_events({1}));
  EXPECT_FALSE(scan(file(padded(good + bad + good, 512) + usual_events({2}))));
  ASSERT_EQ(visitor_.faults.size(), 1u);
  EXPECT_TRUE(
      visitor_.faults[0].starts_with("page_damaged at " + std::to_string(256 + good.size()) + ": A page of "))
      << visitor_.faults[0];
  EXPECT_TRUE(visitor_.faults[0].ends_with(" bytes cannot be unpacked"));
  EXPECT_EQ(visitor_.blocks.size(), 4u);  // header, page, sample, page
}

TEST_F(FileScanTest, BlockOfAnUnknownType) {
  EXPECT_FALSE(scan(file(padded("ABCd", 512) + usual_events({2}))));
  EXPECT_FALSE(scan(file(usual_page('S', "ABCd"))));
  visitor_.accepts_blob = false;
  EXPECT_FALSE(scan(file(padded("QVXB", 512))));
  EXPECT_EQ(
      visitor_.faults,
      (Lines{"unknown_block at 256: Reached unknown block type 4 . Magic value 'ABCd'",
             "unknown_block at 256+0: Reached unknown block type 4 in compressed data block. Magic value "
             "'ABCd'",
             "unknown_block at 256: Reached unknown block type 3 . Magic value 'QVXB'"}));
}

TEST_F(FileScanTest, EventsOfAnUnknownType) {
  EXPECT_FALSE(scan(file(padded(usual_events({1}) + usual_events({2}, 0, 1), 512) + usual_events({3}))));
  EXPECT_FALSE(scan(file(usual_page('S', usual_events({1}) + usual_events({2}, 255, 65535)))));
  EXPECT_EQ(visitor_.faults,
            (Lines{"unknown_type at 274: Type definition 0:1 not found",
                   "block_failed at 274: Failed to process block of type 1 at offset 18",
                   "unknown_type at 256+18: Type definition 255:65535 not found",
                   "block_failed at 256+18: Failed to process block of type 1 at offset 18"}));
}

TEST_F(FileScanTest, SchemasBlockThatIsNone) {
  const std::string good = usual_schemas(test::kEventsId);
  std::string of_size_0 = good, too_long = good, too_many = good;
  of_size_0.replace(4, 2, 2, '\0');
  too_long.replace(4, 2, le<std::uint16_t>(257));
  too_many[6] = '\x0f';
  EXPECT_FALSE(scan(file(good.substr(0, 255))));
  EXPECT_FALSE(scan(file(of_size_0)));
  EXPECT_FALSE(scan(file(too_long)));
  EXPECT_FALSE(scan(file(too_many)));
  const std::string after = "block_failed at 256: Failed to process block of type 2 at offset 0";
  EXPECT_EQ(
      visitor_.faults,
      (Lines{"schemas_block_invalid at 256: Schemas block of 256 bytes with 1 identifiers, 255 bytes left",
             after,
             "schemas_block_invalid at 256: Schemas block of 0 bytes with 1 identifiers, 256 bytes left",
             after,
             "schemas_block_invalid at 256: Schemas block of 257 bytes with 1 identifiers, 256 bytes left",
             after,
             "schemas_block_invalid at 256: Schemas block of 256 bytes with 15 identifiers, 256 bytes left",
             after}));
}

TEST_F(FileScanTest, SchemasThatCannotBeLoaded) {
  EXPECT_FALSE(scan(file(usual_events({1}) + usual_schemas("00000000000000000000000000000001"))));
  EXPECT_EQ(visitor_.faults,
            (Lines{"schemas_failed at 274: Failed to load the schemas that a schemas block names",
                   "block_failed at 274: Failed to process block of type 2 at offset 18"}));
  EXPECT_EQ(visitor_.blocks.back(), "sample 1 at 256");
}

TEST_F(FileScanTest, PageThatIsCutCostsTheRestOfItsDataBlock) {
  const std::string good = usual_page('S', usual_events({1}));
  std::string without_end = good;
  without_end.back() = 'x';
  EXPECT_TRUE(scan(file(padded(good + without_end + good, 512) + usual_events({2}))));
  EXPECT_EQ(visitor_.faults, Lines{"page_cut at " + std::to_string(256 + good.size()) +
                                   ": A page does not fit its data block or has no end magic"});
  EXPECT_EQ(visitor_.blocks.back(), "sample 2 at 768");
}

TEST_F(FileScanTest, FewerRecordsThanStated) {
  EXPECT_TRUE(scan(file(usual_events({1, 2, 3}).substr(0, 21))));
  EXPECT_EQ(visitor_.blocks.back(), "sample 1 2 at 256");
  EXPECT_EQ(visitor_.faults, Lines{"events_cut at 256: 2 of 3 records are there"});
}

// What a file gives that ends at any byte: a header of 256 bytes, two records, counters, a page with a
// record.
TEST_F(FileScanTest, EveryTruncationGivesWhatIsThereAndItsFault) {
  const std::string page = usual_page('S', usual_events({4}));
  ASSERT_EQ(page.size(), 54u);
  const std::string whole = file(padded(usual_events({1, 2}), 64) + padded(usual_counters(3), 64) + page, 64);
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const GuardedBuffer cut(std::string_view(whole).substr(0, size));
    Lines blocks, faults;
    bool good = true;
    const auto fail = [&](const std::string& fault) {
      faults.push_back(fault + " (memory)");
      good = false;
    };
    if (size < 256) {
      faults.push_back("header_short at " + std::to_string(size) +
                       ": Failed reading data file header: Success");
      good = false;
    } else {
      blocks.push_back("header 64");
    }
    if (size >= 276) {
      blocks.push_back("sample 1 2 at 256");
    } else if (size >= 274) {
      blocks.push_back("sample 1 at 256");
      faults.push_back("events_cut at 256: 1 of 2 records are there");
    } else if (size == 272 || size == 273) {
      faults.push_back("events_cut at 256: 0 of 2 records are there");
    }
    if (size >= 324)
      blocks.push_back("counters of " + std::to_string(size < 384 ? size - 320 : 64) + " bytes at 320");
    if (size == 438) {
      blocks.push_back("page of 54 at 384");
      blocks.push_back("sample 4 at 384+0");
    } else if (size >= 388) {
      faults.push_back("page_cut at 384: A page does not fit its data block or has no end magic");
    }
    for (const std::size_t start : {256, 320, 384})
      if (size > start && size < start + 4)
        fail("no_block_header at " + std::to_string(size) + ": No data block header read from the file");
    visitor_ = {};
    ASSERT_EQ(scan(Bytes(cut.bytes())), good) << size;
    ASSERT_EQ(visitor_.blocks, blocks) << size;
    ASSERT_EQ(visitor_.faults, faults) << size;
  }
}

TEST_F(FileScanTest, EveryCutOfAPageGivesABeginningOfItsBlocks) {
  const std::string chain = usual_events({1, 2}) + usual_events({3}) + usual_events({4});
  for (std::size_t size = 4; size <= chain.size(); ++size) {
    visitor_ = {};
    EXPECT_TRUE(scan(file(usual_page('S', chain.substr(0, size)))));
    Lines blocks = visitor_.blocks;
    ASSERT_GE(blocks.size(), 2u);
    blocks.erase(blocks.begin(), blocks.begin() + 2);  // header, page
    Lines expected;
    if (size >= 18) expected.push_back(size < 20 ? "sample 1 at 256+0" : "sample 1 2 at 256+0");
    if (size >= 38) expected.push_back("sample 3 at 256+20");
    if (size >= 56) expected.push_back("sample 4 at 256+38");
    ASSERT_EQ(blocks, expected) << size;
  }
}

}  // namespace
}  // namespace qvx
