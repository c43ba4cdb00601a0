// What is asked of a table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvx/columns/column_type.h"
#include "qvx/columns/dataset.h"

namespace qvx::columns {

struct Query {
  static constexpr std::uint64_t kNoEnd = std::numeric_limits<std::uint64_t>::max();

  std::string table = {};
  // Names, or shell patterns as of qvx_name_matches; in this order. Empty: all columns of the table, without
  // the extra ones.
  std::vector<std::string> columns = {};
  // Rows whose time lies in the range, whose ends both belong to it; microseconds since 1970.
  std::uint64_t since = 0;
  std::uint64_t until = kNoEnd;
  // Rows of which each of these columns matches one of its patterns. Columns: "metric" of metrics, "_file",
  // "_source_id" and "_source_tag" of all tables.
  std::vector<std::pair<std::string, std::vector<std::string>>> where = {};
  std::uint64_t limit = kNoEnd;    // rows
  std::size_t batch_rows = 65536;  // of every batch but the last of a file; fewer when rows are very long
  unsigned threads = 1;            // that decode; each reads whole files
  bool in_order = true;            // batches come in the order of the files, not as they are ready
  // What finished batches may take, roughly, while they wait for their turn; two of each file always may.
  std::size_t read_ahead_bytes = std::size_t{64} << 20;
  // A page whose header states times outside the range is passed over without being unpacked.
  bool trust_page_times = true;
};

// A query against one table.
struct ResolvedQuery {
  Query query;
  Table table;
  std::vector<ColumnType> columns;  // of the result

  // Where a column of the result comes from: one of the table's columns or an extra one.
  struct Source {
    bool is_extra = false;
    std::size_t index = 0;
  };
  std::vector<Source> sources;  // of each column

  // The place in the result of a column of the table, if it was asked for.
  std::optional<std::size_t> place_of(std::size_t table_column) const { return places_[table_column]; }
  std::optional<std::size_t> place_of(ExtraColumn column) const {
    return extra_places_[static_cast<std::size_t>(column)];
  }

  const std::vector<std::string>* patterns_for(const std::string& column) const;

  std::vector<std::optional<std::size_t>> places_;
  std::vector<std::optional<std::size_t>> extra_places_;
};

// Throws std::invalid_argument for a table, a column or a condition that does not exist; the words list what
// there is.
ResolvedQuery resolve(const Dataset& dataset, const Query& query);

// Whether one of the shell patterns matches the text, in any case.
bool matches_any(const std::string& text, const std::vector<std::string>& patterns);

}  // namespace qvx::columns
