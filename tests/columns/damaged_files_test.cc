// Files that are cut, damaged or lie: the good part comes out, faults are told, nothing is printed.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "qvx/columns/survey.h"
#include "tests/columns/column_files.h"
#include "tests/metrics/cntx_builder.h"

namespace qvx {
namespace {

using columns::DataFault;
using columns::Query;
using test::job_row;
using test::jobs_block;
using test::kNoon;
using test::loads_block;

class DamagedFilesTest : public testing::Test {
 protected:
  void SetUp() override { testing::internal::CaptureStderr(); }
  void TearDown() override { EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); }

  std::vector<DataFault> faults(const std::vector<std::string>& paths, const Query& query) {
    const auto data = test::open(paths);
    rows_ = test::read(data, query).rows;
    return data->faults().list();
  }

  test::ColumnFiles files_;
  std::vector<std::string> rows_;
};

TEST_F(DamagedFilesTest, UnreadableFilesAreToldAndTheOthersRead) {
  const std::string good = files_.write("b.bin", {jobs_block(1, 1)});
  const std::string bad = files_.write_bytes("a.bin", std::string(256, 'x'));
  const std::vector<DataFault> found =
      faults({bad, "/no/such/file", good}, {.table = "job", .columns = {"id"}});
  EXPECT_EQ(rows_, std::vector<std::string>{R"({"id":1})"});
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].file, "/no/such/file");
  EXPECT_EQ(found[0].kind, "open_failed");
  EXPECT_EQ(found[0].words, "Failed to open data file /no/such/file: No such file or directory");
  EXPECT_EQ(found[1].kind, "header_invalid");
  EXPECT_EQ(found[1].words, "Invalid data file header: Wrong data page magic number.");
}

TEST_F(DamagedFilesTest, DamagedPageEndsItsFileAndIsToldWithItsOffset) {
  const std::string page = test::page_block({}, jobs_block(1, 2));
  const std::string bad = test::page_block_of_payload({}, "no gzip at all");
  const std::vector<DataFault> found =
      faults({files_.write("a.bin", {page, page + bad, page})}, {.table = "job", .columns = {"id"}});
  EXPECT_EQ(rows_.size(), 4u);
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found[0].kind, "page_damaged");
  EXPECT_EQ(found[0].offset, 256 + 512 + page.size());
  EXPECT_EQ(found[0].page_offset, std::nullopt);
}

TEST_F(DamagedFilesTest, BlocksThatStateMoreThanIsThereGiveWhatIsThere) {
  const std::string lying =
      test::events_block({.type_index = 1, .num_events = 200}, {test::job(1), test::job(2)});
  std::string bytes = test::sample_file(files_.header(), {lying});
  bytes.resize(256 + lying.size());
  const std::vector<DataFault> found =
      faults({files_.write_bytes("a.bin", bytes)}, {.table = "job", .columns = {"id"}});
  EXPECT_EQ(rows_, (std::vector<std::string>{R"({"id":1})", R"({"id":2})"}));
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].kind, "events_cut");
  EXPECT_EQ(found[0].words, "2 of 200 records are there");
}

TEST_F(DamagedFilesTest, FaultsInsideAPageHaveTheirPlaceInIt) {
  const std::string lying = test::events_block({.type_index = 1, .num_events = 200}, {test::job(3)});
  const std::string unknown = test::events_block({.type_index = 99, .num_events = 1}, {test::job(4)});
  const std::string first = test::page_block({}, jobs_block(1, 2) + lying);
  const std::string second = test::page_block({}, jobs_block(5, 1) + unknown);
  const std::vector<DataFault> found = faults({files_.write("a.bin", {first, second})}, {.table = "job"});
  EXPECT_EQ(rows_.size(), 4u);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0].kind, "events_cut");
  EXPECT_EQ(found[0].offset, 256u);
  EXPECT_EQ(found[0].page_offset, jobs_block(1, 2).size());
  EXPECT_EQ(found[1].kind, "block_failed");
  EXPECT_EQ(found[2].kind, "unknown_type");
  EXPECT_EQ(found[2].offset, 256u + 512);
  EXPECT_EQ(found[2].page_offset, jobs_block(5, 1).size());
}

TEST_F(DamagedFilesTest, CountersBlockThatIsTooShortIsLeftOut) {
  const std::string whole = loads_block(1, "n", 2);
  std::string bytes = test::sample_file(files_.header(64), {whole, whole});
  bytes.resize(256 + 64 + whole.size() - 1);
  const std::vector<DataFault> found = faults({files_.write_bytes("a.bin", bytes)}, {.table = "counters"});
  EXPECT_EQ(rows_.size(), 3u);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].offset, 320u);
  EXPECT_EQ(found[0].words, "Counters block of 35 bytes, its values take 36");
}

// Small schemas for those files that are read thousands of times.
class SmallFiles {
 public:
  explicit SmallFiles(const test::ColumnFiles& files) {
    files.add_schema(events_);
    files.add_schema(counters_);
  }

  test::FileHeader header() const {
    test::FileHeader header;
    header.block_size = 128;
    header.event_schema_ids = {test::md5_id(events_)};
    header.counters_schema_id = test::md5_id(counters_);
    return header;
  }

  static std::string ticks(std::uint64_t first, std::uint64_t count) {
    std::vector<std::string> records;
    for (std::uint64_t number = first; number < first + count; ++number)
      records.push_back(test::le(number));
    return test::events_block({}, records);
  }

 private:
  const std::string events_ =
      test::event_schema("batch", test::event_type("tick", 8, test::event_field("n", "uint64_t", 0, 8)));
  const std::string counters_ =
      test::counters_schema(test::counter_group("cpu", 3, test::counter_of("load", "FP64")));
};

TEST_F(DamagedFilesTest, EveryTruncationGivesAPrefixOfTheRowsOfEachTable) {
  test::TestBlock metrics;
  const SmallFiles small(files_);
  const std::string bytes = test::sample_file(
      small.header(), {small.ticks(0, 2), test::counters_block(kNoon, test::le(0.5)), metrics.bytes(),
                       test::page_block({}, small.ticks(2, 3)), small.ticks(5, 1)});
  ASSERT_EQ(bytes.size(), 256u + 5 * 128);
  const std::string path = files_.write_bytes("a.bin", bytes);
  const char* const tables[] = {"tick", "counters", "metrics"};
  std::vector<std::string> all[3];
  for (int i = 0; i < 3; ++i)
    all[i] = test::rows({path}, {.table = tables[i]});
  EXPECT_EQ(all[0].size(), 6u);
  EXPECT_EQ(all[1].size(), 3u);
  EXPECT_EQ(all[2].size(), 1u);
  std::size_t longest[3] = {};
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    const std::string cut = files_.write_bytes("cut.bin", std::string_view(bytes).substr(0, size));
    const auto data = test::open({cut});
    if (!data->find("tick")) {
      EXPECT_LT(size, 256u);
      continue;
    }
    for (int i = 0; i < 3; ++i) {
      const std::vector<std::string> some = test::read(data, {.table = tables[i]}).rows;
      ASSERT_LE(some.size(), all[i].size());
      ASSERT_TRUE(std::equal(some.begin(), some.end(), all[i].begin())) << tables[i] << " cut to " << size;
      ASSERT_GE(some.size(), longest[i]) << tables[i] << " cut to " << size;
      longest[i] = some.size();
    }
  }
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(longest[i], all[i].size());
}

TEST_F(DamagedFilesTest, AnyBitOfASmallFileMayBeWrong) {
  const SmallFiles small(files_);
  const std::string bytes =
      test::sample_file(small.header(), {small.ticks(0, 2), test::page_block({}, small.ticks(2, 1))});
  std::size_t with_rows = 0;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    std::string wrong = bytes;
    wrong[at] = static_cast<char>(wrong[at] ^ (1 << (at % 8)));
    const auto data = test::open({files_.write_bytes("wrong.bin", wrong)});
    columns::survey(*data);
    if (data->find("tick") && !test::read(data, {.table = "tick"}).rows.empty()) ++with_rows;
  }
  EXPECT_GT(with_rows, bytes.size() / 2);
}

TEST_F(DamagedFilesTest, SurveyCountsRowsSourcesPagesAndWhatIsLost) {
  const std::string page = test::page_block({.source_id = "host-2"}, jobs_block(3, 4));
  const std::string bad = test::page_block_of_payload({}, "no gzip");
  const auto data = test::open({files_.write("a.bin", {jobs_block(1, 2), page, bad, jobs_block(9, 1)})});
  const columns::Survey survey = columns::survey(*data);
  ASSERT_EQ(survey.tables.size(), 1u);
  EXPECT_EQ(survey.tables[0].name, "job");
  EXPECT_EQ(survey.tables[0].rows, 6u);
  EXPECT_EQ(survey.tables[0].blocks, 2u);
  EXPECT_EQ(survey.tables[0].times.first, kNoon + 1);
  EXPECT_EQ(survey.tables[0].times.last, kNoon + 6);
  ASSERT_EQ(survey.sources.size(), 2u);
  EXPECT_EQ(survey.sources[0].id, "host-1");
  EXPECT_EQ(survey.sources[1].id, "host-2");
  EXPECT_EQ(survey.sources[1].rows, 4u);
  EXPECT_TRUE(survey.files[0].failed);
  EXPECT_EQ(survey.files[0].pages, 2u);
  EXPECT_EQ(survey.files[0].unpacked_bytes, 16 + 4 * 37u);
  EXPECT_EQ(survey.files[0].bytes_lost, 2 * 512u);
}

TEST_F(DamagedFilesTest, SurveyEndsWhenItIsAskedToStop) {
  const auto data =
      test::open({files_.write("a.bin", {jobs_block(1, 2)}), files_.write("b.bin", {jobs_block(3, 2)})});
  std::stop_source stop;
  EXPECT_EQ(columns::survey(*data, 2, stop.get_token()).tables.size(), 1u);
  stop.request_stop();
  EXPECT_TRUE(columns::survey(*data, 2, stop.get_token()).tables.empty());
}

TEST_F(DamagedFilesTest, SchemasBlocksMakeTablesKnownToASurvey) {
  test::FileHeader header = files_.header();
  header.event_schema_ids = {};
  const std::string unit = test::schemas_block({test::md5_id(test::kJobs)}) + jobs_block(1, 1);
  const auto data = test::open({files_.write("a.bin", {unit}, header)});
  EXPECT_FALSE(data->find("job"));
  EXPECT_EQ(columns::survey(*data).tables.size(), 1u);
  EXPECT_EQ(test::read(data, {.table = "job"}).rows, std::vector<std::string>{job_row(1)});
}

}  // namespace
}  // namespace qvx
