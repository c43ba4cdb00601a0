#include "qvx/reader/print_visitor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qvx/scan/unit_walk.h"
#include "tests/reader/reader_files.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::counters_line;
using test::LogCapture;
using test::ReaderFiles;
using test::usual_counters;
using test::usual_events;
using test::usual_page;
using test::usual_schemas;

// Prints what a walk over bytes that end at a guarded page hands out, with the usual schemas loaded.
class PrintVisitorTest : public testing::Test {
 protected:
  bool chain(const std::string& bytes, bool in_page = false) {
    return print(bytes, [in_page](TypesInForce& types, Bytes data) {
      return ChainWalk(types, data, Place{0, in_page, 0});
    });
  }
  bool pages(const std::string& bytes) {
    return print(bytes,
                 [this](TypesInForce& types, Bytes data) { return UnitWalk(types, decompressor_, data, 0); });
  }

  template <typename MakeWalk>
  bool print(const std::string& bytes, MakeWalk make_walk) {
    const test::GuardedBuffer guarded(bytes);
    out_.clear();
    OutputSink sink(out_);
    qvx::Run run(options_, sink);
    const std::string path = files_.path("a.bin");
    PrintVisitor visitor(run, path.c_str());
    qvx_schema_id events;
    TypesInForce types{run.types, {}, {}};
    EXPECT_TRUE(schema_id_parse(std::string(test::kEventsId).c_str(), events));
    EXPECT_TRUE(schema_id_parse(std::string(test::kCountersId).c_str(), types.counters_schema));
    EXPECT_TRUE(run.types.load({&events, 1}, types.counters_schema, types.types));
    log_.clear();
    testing::internal::CaptureStderr();
    auto walk = make_walk(types, guarded.bytes());
    WalkStep step = WalkStep::block;
    while (step == WalkStep::block)
      step = walk.next(visitor);
    err_ = testing::internal::GetCapturedStderr();
    records_written_ = visitor.records_written();
    EXPECT_TRUE(sink.flush());
    return step == WalkStep::end;
  }

  std::vector<std::string> errors() const { return log_.texts(QVX_LOG_ERROR); }

  const ReaderFiles files_;
  ReaderOptions options_ = files_.options();
  Decompressor decompressor_;
  LogCapture log_;
  std::string out_;
  std::string err_;
  std::uint32_t records_written_ = 0;
};

using Texts = std::vector<std::string>;

TEST_F(PrintVisitorTest, OnlyTheFirstCountersBlockOfAChainIsRead) {
  EXPECT_TRUE(chain(usual_counters(1) + usual_counters(2)));
  EXPECT_EQ(out_, counters_line(1));
  EXPECT_EQ(records_written_, 1u);
}

TEST_F(PrintVisitorTest, SkippedCountersBlockStillCounts) {
  options_.timestamp_lt = test::kStart - 1;
  EXPECT_TRUE(chain(usual_counters(1)));
  EXPECT_EQ(out_, "");
  EXPECT_EQ(records_written_, 1u);
}

TEST_F(PrintVisitorTest, BothEndsOfTheRangeAreTaken) {
  options_.timestamp_gt = options_.timestamp_lt = test::kStart;
  EXPECT_TRUE(chain(usual_counters(1)));
  EXPECT_EQ(out_, counters_line(1));
  EXPECT_TRUE(chain(usual_counters(1, test::kStart - 1)));
  EXPECT_EQ(out_, "");
  EXPECT_TRUE(chain(usual_counters(1, test::kStart + 1)));
  EXPECT_EQ(out_, "");
}

TEST_F(PrintVisitorTest, KindIsToldByTheFourthByteAlone) {
  EXPECT_TRUE(chain("???E" + usual_events({1}).substr(4)));
  EXPECT_EQ(out_, "{\"v\":1}\n");
}

TEST_F(PrintVisitorTest, BlobsPagesAndUnknownBlocksFailWithTheirMagic) {
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

TEST_F(PrintVisitorTest, ChainOfFewerThanFiveBytesIsDone) {
  EXPECT_TRUE(chain("QVXE"));
  EXPECT_TRUE(chain("QVXS"));
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PrintVisitorTest, FewerThanFiveBytesBehindABlockAreDone) {
  EXPECT_TRUE(chain(usual_events({1}) + "QVXB"));
  EXPECT_TRUE(log_.messages().empty());
  EXPECT_TRUE(chain(usual_events({1}) + "QVXB."));
  EXPECT_EQ(log_.texts(QVX_LOG_DEBUG), Texts{"Unexpected block type 3 at offset 18"});
}

TEST_F(PrintVisitorTest, RecordsAreWalkedAlsoWhenTheyAreNotSelected) {
  options_.exclude_counters = make_string_array({"*"});
  EXPECT_TRUE(chain(usual_events({1, 2}) + usual_events({3}, 0, 0)));
  EXPECT_EQ(out_, "");
  EXPECT_EQ(records_written_, 0u);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PrintVisitorTest, BlockWithoutRecordsIsItsHeader) {
  EXPECT_TRUE(chain(usual_events({}) + usual_events({7})));
  EXPECT_EQ(out_, "{\"v\":7}\n");
}

TEST_F(PrintVisitorTest, RecordsThatAreNotWhollyThereAreLeftOut) {
  std::string block = usual_events({1, 2, 3});
  block.pop_back();
  EXPECT_TRUE(chain(block));
  EXPECT_EQ(out_, "{\"v\":1}\n{\"v\":2}\n");
}

TEST_F(PrintVisitorTest, MissingTypeFailsAtItsBlock) {
  EXPECT_FALSE(chain(usual_events({1}) + usual_events({2}, 0, 300)));
  EXPECT_EQ(errors(),
            (Texts{"Type definition 0:300 not found", "Failed to process block of type 1 at offset 18"}));
  EXPECT_EQ(out_, "{\"v\":1}\n");
  EXPECT_FALSE(chain(usual_events({}, 9)));
  EXPECT_EQ(errors(),
            (Texts{"Type definition 9:0 not found", "Failed to process block of type 1 at offset 0"}));
}

TEST_F(PrintVisitorTest, SchemasBlockReplacesTheTypes) {
  constexpr const char* kOther = "e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2";
  files_.write_schema(kOther, test::events_schema_with_field("w"));
  EXPECT_TRUE(chain(usual_events({1}) + usual_schemas(kOther) + usual_events({2})));
  EXPECT_EQ(out_, "{\"v\":1}\n{\"w\":2}\n");
}

TEST_F(PrintVisitorTest, SchemasBlockOfSize0EndsInsteadOfRunningForever) {
  std::string block = usual_schemas(test::kEventsId);
  block[4] = block[5] = '\0';
  EXPECT_FALSE(chain(block));
  EXPECT_EQ(errors(), Texts{"Failed to process block of type 2 at offset 0"});
}

TEST_F(PrintVisitorTest, SchemasBlockSmallerThanItsIdentifiersIsSteppedByItsSize) {
  std::string block = usual_schemas(test::kEventsId);
  block[4] = '\x10';
  block[5] = '\0';
  EXPECT_TRUE(chain(block));
  EXPECT_EQ(log_.texts(QVX_LOG_DEBUG).back(), "Unexpected block type 4 at offset 16");
}

TEST_F(PrintVisitorTest, PagesAreReadOneAfterTheOther) {
  EXPECT_TRUE(
      pages(usual_page('G', usual_events({1})) + usual_page('S', usual_counters(2)) + std::string(20, '\0')));
  EXPECT_EQ(out_, "{\"v\":1}\n" + counters_line(2));
}

TEST_F(PrintVisitorTest, PageThatDoesNotFitEndsTheWalkWithoutFailure) {
  const std::string good = usual_page('G', usual_events({1}));
  EXPECT_TRUE(pages(good + good.substr(0, good.size() - 1)));
  EXPECT_EQ(out_, "{\"v\":1}\n");
  std::string wrong = good;
  wrong.back() = 'P';
  EXPECT_TRUE(pages(good + wrong + good));
  EXPECT_EQ(out_, "{\"v\":1}\n");
}

TEST_F(PrintVisitorTest, FailedPageEndsTheWalkBeforeTheNextOne) {
  const std::string good = usual_page('G', usual_events({1}));
  EXPECT_FALSE(pages(test::page_block_of_payload(test::usual_page_header('Z'), "x") + good));
  EXPECT_EQ(out_, "");
  EXPECT_TRUE(errors().empty());
  EXPECT_FALSE(pages(good + test::page_block_of_payload(test::usual_page_header('Z'), "x")));
  EXPECT_EQ(out_, "{\"v\":1}\n");
}

// Of a cut chain the records that are wholly there are printed, and nothing of any other.
TEST_F(PrintVisitorTest, EveryTruncationPrintsTheRecordsBeforeIt) {
  const std::string events = usual_events({1, 2}) + usual_schemas(test::kEventsId) + usual_events({3});
  for (std::size_t size = 0; size < events.size(); ++size) {
    chain(events.substr(0, size));
    std::string expected;
    if (size >= 18) expected += "{\"v\":1}\n";
    if (size >= 20) expected += "{\"v\":2}\n";
    ASSERT_EQ(out_, expected) << size;
    ASSERT_LE(log_.messages().size(), 20u);
  }
  EXPECT_TRUE(chain(events));
  EXPECT_EQ(events.size(), 294u);
  EXPECT_EQ(out_, "{\"v\":1}\n{\"v\":2}\n{\"v\":3}\n");
  const std::string counters = usual_counters(1);
  for (std::size_t size = 0; size < counters.size(); ++size) {
    EXPECT_FALSE(chain(counters.substr(0, size))) << size;
    EXPECT_EQ(out_, "") << size;
  }
  const std::string first = usual_page('G', usual_events({1}));
  const std::string packed = first + usual_page('S', usual_events({2}));
  for (std::size_t size = 4; size < packed.size(); ++size) {
    EXPECT_TRUE(pages(packed.substr(0, size))) << size;
    ASSERT_EQ(out_, size >= first.size() ? "{\"v\":1}\n" : "") << size;
  }
}

TEST_F(PrintVisitorTest, PatternsSelectTypesByName) {
  options_.exclude_counters = make_string_array({"SAMPLE"});
  EXPECT_TRUE(chain(usual_events({1})));
  EXPECT_EQ(out_, "");
  options_.exclude_counters = make_string_array();
  options_.include_counters = make_string_array({"other", "sam*"});
  EXPECT_TRUE(chain(usual_events({1})));
  EXPECT_EQ(out_, "{\"v\":1}\n");
}

TEST_F(PrintVisitorTest, RefusedFormatsTellSoAndGoOn) {
  options_.format = OutputFormat::csv;
  EXPECT_TRUE(chain(usual_events({1, 2})));
  const std::string line =
      "Failed processing file " + files_.path("a.bin") + ": CSV output is not supported yet\n";
  EXPECT_EQ(err_, line + line);
  EXPECT_EQ(records_written_, 2u);
  options_.format = OutputFormat::influx;
  EXPECT_TRUE(chain(usual_counters(1)));
  EXPECT_EQ(err_, "Failed processing file " + files_.path("a.bin") +
                      ": Influx line API output is not yet supported for counters data\n");
}

}  // namespace
}  // namespace qvx
