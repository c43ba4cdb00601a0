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

using test::jobs_block;
using test::loads_block;
using test::sweep_allocations;

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
  std::optional<std::vector<std::string>> rows(const Query& query) const {
    return ask(paths_,
               [&](const std::shared_ptr<Dataset>& dataset) { return test::read(dataset, query).rows; });
  }

  void sweep(const Query& query, std::size_t count) const {
    const auto whole = rows(query);
    ASSERT_TRUE(whole);
    ASSERT_EQ(whole->size(), count);
    sweep_allocations([&] { return rows(query); }, [&](const auto& made) { return made == whole; });
  }

  test::ColumnFiles files_;
  std::vector<std::string> paths_{files_.write("a.bin", {jobs_block(1, 3), loads_block(5, "ann", 0.5)}),
                                  files_.write("b.bin", {jobs_block(4, 2), loads_block(6, "bob", 1.5)})};
};

TEST_F(ColumnsShortMemory, OfEventsLosesNoRow) {
  sweep({.table = "job"}, 5);
}

TEST_F(ColumnsShortMemory, OfCountersLosesNoRow) {
  sweep({.table = "counters"}, 6);
}

TEST_F(ColumnsShortMemory, OfColumnsByNameLosesNone) {
  sweep({.table = "job",
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
