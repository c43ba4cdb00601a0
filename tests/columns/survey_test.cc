// What a survey and a table say of the same blocks: records whose fields lie behind them, blocks that hold no
// table's rows, types without a time.
#include "qvx/columns/survey.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/columns/column_files.h"
#include "tests/metrics/cntx_builder.h"

namespace qvx {
namespace {

using columns::DataFault;
using columns::FileSurvey;
using columns::Query;
using columns::Survey;
using test::event_field;
using test::event_schema;
using test::event_type;
using test::jobs_block;
using test::kNoon;
using test::le;
using test::loads_block;
using test::open;
using test::read;

class SurveyTest : public testing::Test {
 protected:
  void SetUp() override { testing::internal::CaptureStderr(); }
  void TearDown() override { EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); }

  test::ColumnFiles files_;
};

// Records of four bytes, each of which shows the number of the one two behind it.
std::string ahead() {
  return event_schema(
      "batch", event_type("ahead", 4,
                          event_field("n", "uint32_t", 0, 4) + "," + event_field("next", "uint32_t", 8, 4)));
}

std::string numbers(std::uint32_t count) {
  std::vector<std::string> records;
  for (std::uint32_t number = 1; number <= count; ++number)
    records.push_back(le(number));
  return test::events_block({}, records);
}

TEST_F(SurveyTest, RecordsWhoseFieldsLieBehindThePageAreLeftOutAndTold) {
  const auto data = open({files_.write("a.bin", {test::page_block({}, numbers(5))}, ahead())});
  const Survey survey = columns::survey(*data);
  ASSERT_EQ(survey.tables.size(), 1u);
  EXPECT_EQ(survey.tables[0].rows, 3u);
  EXPECT_EQ(survey.files[0].records_lost, 2u);
  const std::vector<DataFault> faults = data->faults().list();
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].kind, "block_failed");
  EXPECT_EQ(faults[0].offset, 256u);
  EXPECT_EQ(faults[0].page_offset, 0u);
  EXPECT_EQ(faults[0].words, "2 of 5 records have fields outside the bytes at hand");

  EXPECT_EQ(read(data, {.table = "ahead"}).rows,
            (std::vector<std::string>{R"({"n":1,"next":3})", R"({"n":2,"next":4})", R"({"n":3,"next":5})"}));
  EXPECT_EQ(data->faults().list().size(), 1u);  // the same one
}

TEST_F(SurveyTest, BlockOfWhichNoRecordIsWholeHasNoRows) {
  for (const std::uint32_t count : {1u, 2u}) {
    const auto data = open({files_.write("a.bin", {test::page_block({}, numbers(count))}, ahead())});
    const Survey survey = columns::survey(*data);
    EXPECT_TRUE(survey.tables.empty());
    EXPECT_EQ(survey.files[0].rows, 0u);
    EXPECT_EQ(survey.files[0].records_lost, count);
    EXPECT_GT(survey.files[0].times.first, survey.files[0].times.last);  // no time
    EXPECT_TRUE(read(data, {.table = "ahead"}).rows.empty());
    const std::vector<DataFault> faults = data->faults().list();
    ASSERT_EQ(faults.size(), 1u);
    const std::string n = std::to_string(count);
    EXPECT_EQ(faults[0].words, n + " of " + n + " records have fields outside the bytes at hand");
  }
}

TEST_F(SurveyTest, FieldsBehindTheirRecordsAreReadWhereThereAreBytes) {
  // In a data block the padding is at hand.
  const auto data = open({files_.write("a.bin", {numbers(2)}, ahead())});
  EXPECT_EQ(columns::survey(*data).tables[0].rows, 2u);
  EXPECT_EQ(read(data, {.table = "ahead"}).rows,
            (std::vector<std::string>{R"({"n":1,"next":0})", R"({"n":2,"next":0})"}));
  EXPECT_TRUE(data->faults().list().empty());
}

TEST_F(SurveyTest, TypeWithoutATimeHasThatOfItsBlocks) {
  const auto block = [](std::uint64_t time, std::uint16_t x) {
    const std::string record = le(x) + le(std::int16_t{-1});
    return test::events_block({.timestamp = time}, {record, record});
  };
  const auto data = open({files_.write("a.bin", {block(kNoon + 5, 1), block(kNoon + 9, 2)})});
  const Survey survey = columns::survey(*data);
  ASSERT_EQ(survey.tables.size(), 1u);
  EXPECT_EQ(survey.tables[0].name, "position");
  EXPECT_EQ(survey.tables[0].rows, 4u);
  EXPECT_EQ(survey.tables[0].times.first, 1714996800000005u);
  EXPECT_EQ(survey.tables[0].times.last, 1714996800000009u);
  const std::string first = R"({"x":1,"_time":1714996800000005})";
  const std::string second = R"({"x":2,"_time":1714996800000009})";
  const Query query{.table = "position", .columns = {"x", "_time"}};
  EXPECT_EQ(read(data, query).rows, (std::vector<std::string>{first, first, second, second}));
  Query late = query;
  late.since = kNoon + 6;
  EXPECT_EQ(read(data, late).rows, (std::vector<std::string>{second, second}));
  Query early = query;
  early.until = kNoon + 8;
  early.batch_rows = 1;
  EXPECT_EQ(read(data, early).rows, (std::vector<std::string>{first, first}));
}

TEST_F(SurveyTest, BlobsHoldNoRowsAndAreCountedWithTheirBytes) {
  const std::string page = test::page_block({}, test::blob_block(kNoon, "a picture"));
  const auto data = open(
      {files_.write("a.bin", {jobs_block(1, 1), test::blob_block(kNoon, "text"), page, jobs_block(2, 1)})});
  const Survey survey = columns::survey(*data);
  ASSERT_EQ(survey.tables.size(), 1u);
  EXPECT_EQ(survey.tables[0].rows, 2u);
  EXPECT_EQ(survey.files[0].pages, 1u);
  EXPECT_EQ(survey.files[0].unpacked_bytes, 29u);  // 20 of the header
  EXPECT_FALSE(survey.files[0].failed);
  EXPECT_EQ(survey.files[0].bytes_lost, 0u);
  EXPECT_EQ(read(data, {.table = "job", .columns = {"id"}}).rows,
            (std::vector<std::string>{R"({"id":1})", R"({"id":2})"}));
  EXPECT_TRUE(data->faults().list().empty());
}

TEST_F(SurveyTest, CountersBlockThatIsTooShortIsToldAndCountedAsLost) {
  const std::string whole = loads_block(1, "n", 2);
  std::string bytes = test::sample_file(files_.header(64), {whole, whole});
  bytes.resize(256 + 64 + whole.size() - 1);
  const auto data = open({files_.write_bytes("a.bin", bytes)});
  const Survey survey = columns::survey(*data);
  ASSERT_EQ(survey.tables.size(), 1u);
  EXPECT_EQ(survey.tables[0].name, "counters");
  EXPECT_EQ(survey.tables[0].rows, 3u);
  EXPECT_EQ(survey.tables[0].blocks, 1u);
  EXPECT_EQ(survey.files[0].records_lost, 1u);
  EXPECT_FALSE(survey.files[0].failed);
  const std::vector<DataFault> faults = data->faults().list();
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].kind, "block_failed");
  EXPECT_EQ(faults[0].offset, 320u);
  EXPECT_EQ(faults[0].words, "Counters block of 35 bytes, its values take 36");
}

TEST_F(SurveyTest, FileThatIsGoneSinceItsHeaderWasReadFailsAndTheOthersAreCounted) {
  const std::string gone = files_.write("a.bin", {jobs_block(1, 3)});
  const auto data = open({gone, files_.write("b.bin", {jobs_block(4, 2)})});
  ASSERT_EQ(std::remove(gone.c_str()), 0);
  const Survey survey = columns::survey(*data);
  ASSERT_EQ(survey.tables.size(), 1u);
  EXPECT_EQ(survey.tables[0].rows, 2u);
  EXPECT_TRUE(survey.files[0].failed);
  EXPECT_EQ(survey.files[0].bytes_lost, 768u);  // all of it
  EXPECT_FALSE(survey.files[1].failed);
  EXPECT_EQ(read(data, {.table = "job", .columns = {"id"}}).rows,
            (std::vector<std::string>{R"({"id":4})", R"({"id":5})"}));
  const std::vector<DataFault> faults = data->faults().list();
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].kind, "open_failed");
  EXPECT_EQ(faults[0].words, "Failed to open data file " + gone + ": No such file or directory");
}

}  // namespace
}  // namespace qvx
