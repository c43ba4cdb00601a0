// Every allocation of reading a table, a survey and a list fails, alone and with all behind it: no row is
// missing unless that is told.
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvx/columns/survey.h"
#include "tests/columns/column_files.h"
#include "tests/support/allocation_sweep.h"

namespace qvx::columns {
namespace {

using test::event_field;
using test::kNoon;
using test::le;
using test::sweep_allocations;

// As small as can be, since everything is read again for each of its allocations: a time, a text, a list and
// a record; a text, and a group with more sets than the other.
std::string events_schema() {
  return test::event_schema("batch", test::event_type("at", 2, event_field("x", "uint16_t", 0, 2)) + "," +
                                         test::event_type("job", 22,
                                                          event_field("time", "timestamp", 0, 8) + "," +
                                                              event_field("user", "char", 8, 1, 8) + "," +
                                                              event_field("nodes", "int16_t", 16, 2, 2) +
                                                              "," + event_field("at", "at", 20, 2)));
}
std::string counters_schema() {
  return test::counters_schema(
      test::counter_group(
          "node", 1,
          R"({"name":"name","description":"","units":"","data_type":"STRING","length":4,"counting_type":"ABSOLUTE"})") +
      "," + test::counter_group("cpu", 3, test::counter_of("load", "FP64")));
}

std::string jobs_block(std::uint64_t first, std::uint64_t count) {
  std::vector<std::string> records;
  for (std::uint64_t number = first; number < first + count; ++number)
    records.push_back(le(kNoon + number) + test::field("ann", 8) + le(std::int16_t{-1}) +
                      le(std::int16_t{7}) + le(static_cast<std::uint16_t>(number)));
  return test::events_block({.type_index = 1}, records);
}
std::string loads_block(std::string_view name, double load) {
  return test::counters_block(kNoon, test::field(name, 4) + le(load));
}

// Nothing when memory was too short for an answer, and that was told.
template <typename Ask>
auto ask(const std::vector<std::string>& paths, Ask ask_for) {
  using Result = decltype(ask_for(std::declval<const std::shared_ptr<Dataset>&>()));
  try {
    const std::shared_ptr<Dataset> dataset = test::open(paths);
    Result result = ask_for(dataset);
    if (!dataset->faults().list().empty()) return std::optional<Result>();
    return std::optional<Result>(std::move(result));
  } catch (const std::bad_alloc&) {
    return std::optional<Result>();
  }
}

class ColumnsShortMemory : public testing::Test {
 protected:
  static void sweep(const std::vector<std::string>& paths, const Query& query, std::size_t count) {
    const auto rows = [&] {
      return ask(paths,
                 [&](const std::shared_ptr<Dataset>& dataset) { return test::read(dataset, query).rows; });
    };
    const auto whole = rows();
    ASSERT_TRUE(whole);
    ASSERT_EQ(whole->size(), count);
    sweep_allocations(rows, [&](const auto& made) { return made == whole; });
  }

  test::ColumnFiles files_;
  const std::string events_ = events_schema();
  const std::string counters_ = counters_schema();
  std::vector<std::string> event_paths_{files_.write("a.bin", {jobs_block(1, 3)}, events_),
                                        files_.write("b.bin", {jobs_block(4, 2)}, events_)};
  std::vector<std::string> counter_paths_{files_.write("c.bin", {loads_block("ann", 0.5)}, "", counters_),
                                          files_.write("d.bin", {loads_block("bob", 1.5)}, "", counters_)};
  std::vector<std::string> paths_{event_paths_[0], counter_paths_[0]};
};

TEST_F(ColumnsShortMemory, OfEventsLosesNoRow) {
  sweep(event_paths_, {.table = "job"}, 5);
}

TEST_F(ColumnsShortMemory, OfCountersLosesNoRow) {
  sweep(counter_paths_, {.table = "counters"}, 6);
}

TEST_F(ColumnsShortMemory, OfColumnsByNameLosesNone) {
  sweep(event_paths_,
        {.table = "job",
         .columns = {"us*", "_time", "_file"},
         .where = {{"_file", {"*b.bin"}}},
         .batch_rows = 1},
        2);
}

TEST_F(ColumnsShortMemory, OfTablesLosesNone) {
  const auto tables = [&] {
    return ask(paths_, [](const std::shared_ptr<Dataset>& dataset) {
      std::vector<std::string> names;
      for (const Table& table : dataset->tables())
        names.push_back(table.name + " " + std::to_string(table.columns.size()) + " " +
                        (table.schemas.empty() ? "" : table.schemas[0]));
      return names;
    });
  };
  const auto whole = tables();
  ASSERT_TRUE(whole);
  ASSERT_EQ(whole->size(), 4U);
  sweep_allocations(tables, [&](const auto& made) { return made == whole; });
}

TEST_F(ColumnsShortMemory, OfASurveyCountsAll) {
  const auto counts = [&] {
    return ask(paths_, [](const std::shared_ptr<Dataset>& dataset) {
      std::vector<std::pair<std::string, std::uint64_t>> rows;
      const Survey found = survey(*dataset);
      for (const TableSurvey& table : found.tables)
        rows.emplace_back(table.name, table.rows);
      for (const FileSurvey& file : found.files)
        rows.emplace_back(file.path, file.rows);
      return rows;
    });
  };
  const auto whole = counts();
  ASSERT_TRUE(whole);
  sweep_allocations(counts, [&](const auto& made) { return made == whole; });
}

}  // namespace
}  // namespace qvx::columns
