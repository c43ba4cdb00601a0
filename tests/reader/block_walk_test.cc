#include "qvx/reader/block_walk.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/reader/reader_files.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::counters_block;
using test::counters_line;
using test::events_block;
using test::gzipped;
using test::LogCapture;
using test::page_block;
using test::ReaderFiles;
using test::schemas_block;
using test::snappied;

// Walks over bytes that end at a guarded page, with the usual schemas loaded.
class BlockWalkTest : public testing::Test {
 protected:
  bool chain(const std::string& bytes, bool in_page = false) {
    return walk(bytes, [in_page](ReaderContext& context, Bytes data) {
      return walk_block_chain(context, data, in_page);
    });
  }
  bool pages(const std::string& bytes) {
    return walk(bytes, [](ReaderContext& context, Bytes data) { return walk_page_blocks(context, data); });
  }

  template <typename Walk>
  bool walk(const std::string& bytes, Walk way) {
    const test::GuardedBuffer guarded(bytes);
    out_.clear();
    OutputSink sink(out_);
    qvx::Run run(options_, sink);
    const std::string path = files_.write("a.bin", "");
    const std::unique_ptr<ReaderContext> context = create_reader_context(run, path.c_str());
    qvx_schema_id events;
    EXPECT_TRUE(schema_id_parse(std::string(test::kEventsId).c_str(), events));
    EXPECT_TRUE(schema_id_parse(std::string(test::kCountersId).c_str(), context->header.counters_schema_id));
    context->types = run.types.load({&events, 1}, context->header.counters_schema_id);
    log_.clear();
    testing::internal::CaptureStderr();
    const bool ok = way(*context, guarded.bytes());
    err_ = testing::internal::GetCapturedStderr();
    records_written_ = context->records_written;
    sink.flush();
    return ok;
  }

  std::vector<std::string> errors() const { return log_.texts(QVX_LOG_ERROR); }

  const ReaderFiles files_;
  ReaderOptions options_ = files_.options();
  LogCapture log_;
  std::string out_;
  std::string err_;
  std::uint32_t records_written_ = 0;
};

using Texts = std::vector<std::string>;

TEST_F(BlockWalkTest, OnlyTheFirstCountersBlockOfAChainIsRead) {
  EXPECT_TRUE(chain(counters_block(1) + counters_block(2)));
  EXPECT_EQ(out_, counters_line(1));
  EXPECT_EQ(records_written_, 1u);
}

TEST_F(BlockWalkTest, SkippedCountersBlockStillCounts) {
  options_.timestamp_lt = test::kStart - 1;
  EXPECT_TRUE(chain(counters_block(1)));
  EXPECT_EQ(out_, "");
  EXPECT_EQ(records_written_, 1u);
}

TEST_F(BlockWalkTest, BothEndsOfTheRangeAreTaken) {
  options_.timestamp_gt = options_.timestamp_lt = test::kStart;
  EXPECT_TRUE(chain(counters_block(1)));
  EXPECT_EQ(out_, counters_line(1));
  EXPECT_TRUE(chain(counters_block(1, test::kStart - 1)));
  EXPECT_EQ(out_, "");
  EXPECT_TRUE(chain(counters_block(1, test::kStart + 1)));
  EXPECT_EQ(out_, "");
}

TEST_F(BlockWalkTest, KindIsToldByTheFourthByteAlone) {
  EXPECT_TRUE(chain("???E" + events_block({1}).substr(4)));
  EXPECT_EQ(out_, "{\"v\":1}\n");
}

TEST_F(BlockWalkTest, BlobsPagesAndUnknownBlocksFailWithTheirMagic) {
  EXPECT_FALSE(chain("QVXB    "));
  EXPECT_EQ(errors(), Texts{"Reached unknown block type 3 . Magic value 'QVXB'"});
  EXPECT_FALSE(chain("QVXP    ", true));
  EXPECT_EQ(errors(), Texts{"Reached unknown block type 5 in compressed data block. Magic value 'QVXP'"});
  EXPECT_FALSE(chain("QVXC    "));
  EXPECT_EQ(errors(), Texts{"Reached unknown block type 4 . Magic value 'QVXC'"});
  EXPECT_FALSE(chain("QVX", true));
  EXPECT_EQ(errors(), Texts{"Reached unknown block type 4 in compressed data block. Magic value 'QVX'"});
  EXPECT_FALSE(chain("", true));
  EXPECT_EQ(errors(), Texts{"Reached unknown block type 4 in compressed data block. Magic value ''"});
}

TEST_F(BlockWalkTest, ChainOfFewerThanFiveBytesIsDone) {
  EXPECT_TRUE(chain("QVXE"));
  EXPECT_TRUE(chain("QVXS"));
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(BlockWalkTest, FewerThanFiveBytesBehindABlockAreDone) {
  EXPECT_TRUE(chain(events_block({1}) + "QVXB"));
  EXPECT_TRUE(log_.messages().empty());
  EXPECT_TRUE(chain(events_block({1}) + "QVXB."));
  EXPECT_EQ(log_.texts(QVX_LOG_DEBUG), Texts{"Unexpected block type 3 at offset 18"});
}

TEST_F(BlockWalkTest, RecordsAreWalkedAlsoWhenTheyAreNotSelected) {
  options_.exclude_counters = make_string_array({"*"});
  EXPECT_TRUE(chain(events_block({1, 2}) + events_block({3}, 0, 0)));
  EXPECT_EQ(out_, "");
  EXPECT_EQ(records_written_, 0u);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(BlockWalkTest, BlockWithoutRecordsIsItsHeader) {
  EXPECT_TRUE(chain(events_block({}) + events_block({7})));
  EXPECT_EQ(out_, "{\"v\":7}\n");
}

TEST_F(BlockWalkTest, RecordsThatAreNotWhollyThereAreLeftOut) {
  std::string block = events_block({1, 2, 3});
  block.pop_back();
  EXPECT_TRUE(chain(block));
  EXPECT_EQ(out_, "{\"v\":1}\n{\"v\":2}\n");
}

TEST_F(BlockWalkTest, MissingTypeFailsAtItsBlock) {
  EXPECT_FALSE(chain(events_block({1}) + events_block({2}, 0, 300)));
  EXPECT_EQ(errors(),
            (Texts{"Type definition 0:300 not found", "Failed to process block of type 1 at offset 18"}));
  EXPECT_EQ(out_, "{\"v\":1}\n");
  EXPECT_FALSE(chain(events_block({}, 9)));
  EXPECT_EQ(errors(),
            (Texts{"Type definition 9:0 not found", "Failed to process block of type 1 at offset 0"}));
}

TEST_F(BlockWalkTest, SchemasBlockReplacesTheTypes) {
  constexpr std::string_view kOther = "e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2";
  files_.write_schema(kOther, test::events_schema_with_field("w"));
  EXPECT_TRUE(chain(events_block({1}) + schemas_block(kOther) + events_block({2})));
  EXPECT_EQ(out_, "{\"v\":1}\n{\"w\":2}\n");
}

TEST_F(BlockWalkTest, SchemasBlockOfSize0EndsInsteadOfRunningForever) {
  std::string block = schemas_block(test::kEventsId);
  block[4] = block[5] = '\0';
  EXPECT_FALSE(chain(block));
  EXPECT_EQ(errors(), Texts{"Failed to process block of type 2 at offset 0"});
}

TEST_F(BlockWalkTest, SchemasBlockSmallerThanItsIdentifiersIsSteppedByItsSize) {
  std::string block = schemas_block(test::kEventsId);
  block[4] = '\x10';
  block[5] = '\0';
  EXPECT_TRUE(chain(block));
  EXPECT_EQ(log_.texts(QVX_LOG_DEBUG).back(), "Unexpected block type 4 at offset 16");
}

TEST_F(BlockWalkTest, PagesAreReadOneAfterTheOther) {
  EXPECT_TRUE(pages(page_block('G', gzipped(events_block({1}))) +
                    page_block('S', snappied(counters_block(2))) + std::string(20, '\0')));
  EXPECT_EQ(out_, "{\"v\":1}\n" + counters_line(2));
}

TEST_F(BlockWalkTest, PageThatDoesNotFitEndsTheWalkWithoutFailure) {
  const std::string good = page_block('G', gzipped(events_block({1})));
  EXPECT_TRUE(pages(good + good.substr(0, good.size() - 1)));
  EXPECT_EQ(out_, "{\"v\":1}\n");
  std::string wrong = good;
  wrong.back() = 'P';
  EXPECT_TRUE(pages(good + wrong + good));
  EXPECT_EQ(out_, "{\"v\":1}\n");
}

TEST_F(BlockWalkTest, FailedPageEndsTheWalkBeforeTheNextOne) {
  const std::string good = page_block('G', gzipped(events_block({1})));
  EXPECT_FALSE(pages(page_block('Z', "x") + good));
  EXPECT_EQ(out_, "");
  EXPECT_TRUE(errors().empty());
  EXPECT_FALSE(pages(good + page_block('Z', "x")));
  EXPECT_EQ(out_, "{\"v\":1}\n");
}

// What a cut chain prints is what the whole one prints, up to some point.
TEST_F(BlockWalkTest, EveryTruncationPrintsABeginning) {
  const std::string events = events_block({1, 2}) + schemas_block(test::kEventsId) + events_block({3});
  const std::string whole_events = "{\"v\":1}\n{\"v\":2}\n{\"v\":3}\n";
  for (std::size_t size = 0; size < events.size(); ++size) {
    chain(events.substr(0, size));
    ASSERT_TRUE(whole_events.starts_with(out_)) << size;
    ASSERT_LE(log_.messages().size(), 20u);
  }
  const std::string counters = counters_block(1);
  for (std::size_t size = 0; size < counters.size(); ++size) {
    EXPECT_FALSE(chain(counters.substr(0, size))) << size;
    EXPECT_EQ(out_, "") << size;
  }
  const std::string packed =
      page_block('G', gzipped(events_block({1}))) + page_block('S', snappied(events_block({2})));
  for (std::size_t size = 0; size < packed.size(); ++size) {
    EXPECT_TRUE(pages(packed.substr(0, size))) << size;
    ASSERT_TRUE(std::string("{\"v\":1}\n{\"v\":2}\n").starts_with(out_)) << size;
  }
}

TEST_F(BlockWalkTest, RefusedFormatsTellSoAndGoOn) {
  options_.format = OutputFormat::csv;
  EXPECT_TRUE(chain(events_block({1, 2})));
  const std::string line =
      "Failed processing file " + files_.path("a.bin") + ": CSV output is not supported yet\n";
  EXPECT_EQ(err_, line + line);
  EXPECT_EQ(records_written_, 2u);
  options_.format = OutputFormat::influx;
  EXPECT_TRUE(chain(counters_block(1)));
  EXPECT_EQ(err_, "Failed processing file " + files_.path("a.bin") +
                      ": Influx line API output is not yet supported for counters data\n");
}

}  // namespace
}  // namespace qvx
