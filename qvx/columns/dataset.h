// A set of data files as tables: one for each event type, "counters" and "metrics".
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qvx/columns/column_type.h"
#include "qvx/columns/faults.h"
#include "qvx/scan/type_cache.h"

namespace qvx::columns {

enum class TableKind : std::uint8_t { events, counters, metrics };

// Schemas that define a type of one provider and name make one table, with the columns of all of them; a
// column that a later one has with values of another type is a column of its own, "name@" and the first eight
// digits of that schema's identifier.
struct Table {
  std::string name;  // of the type; "provider.type" when other providers have one of that name
  TableKind kind = TableKind::events;
  std::string provider;
  std::string type;
  std::vector<ColumnType> columns;
  std::vector<std::string> schemas;  // identifiers, 32 digits each
};

// Columns that every table has besides its own, and that are read only when they are asked for by name.
enum class ExtraColumn : std::uint8_t { file, source_id, source_tag, block, time };
const std::vector<ColumnType>& extra_columns();  // in the order of the enumeration; names begin with "_"

// Adds the columns that are not there so far. Throws std::bad_alloc.
void merge_columns(std::vector<ColumnType>& into, const std::vector<ColumnType>& more,
                   const std::string& schema_id);
// The place of a column of a schema in those of a table that was merged with it; none when it is not there.
std::optional<std::size_t> find_merged(const std::vector<ColumnType>& columns, const ColumnType& column,
                                       const std::string& schema_id);

// The columns of one counters row before the counters, and all of a metrics row.
const std::vector<ColumnType>& counters_row_columns();  // timestamp, set
const std::vector<ColumnType>& metrics_columns();

// The header of a file that can be read.
struct FileInfo {
  std::string path;
  std::uint64_t size = 0;  // bytes on disk
  bool readable = false;   // otherwise the fault is in the list
  std::string source_id;
  std::string source_tag;
  std::uint64_t first_timestamp = 0;  // microseconds, as the header states
  std::uint64_t last_timestamp = 0;
  std::uint32_t block_size = 0;
};

// Any thread may use it, once it is made.
class Dataset {
 public:
  // Reads the headers of the files and the schemas that they name. Without a schema folder each file's is
  // searched for beside it and up to four folders above. Throws std::bad_alloc only.
  explicit Dataset(std::vector<std::string> paths, std::string schema_folder = {});

  const std::vector<FileInfo>& files() const { return files_; }
  const std::string& schema_folder_of(std::size_t file) const { return folders_[file]; }

  // Of the schemas that are known, in the order of their names. A schemas block inside a file may name
  // others, which are known once the file was walked through; see survey.h.
  std::vector<Table> tables() const;
  std::optional<Table> find(const std::string& name) const;

  // Makes the types of schemas known. Throws std::bad_alloc.
  void learn(const TypeSet& types, const std::string& file);

  FaultList& faults() const { return faults_; }

 private:
  using TableKey = std::pair<std::string, std::string>;  // provider and type

  std::vector<FileInfo> files_;
  std::vector<std::string> folders_;
  mutable FaultList faults_;
  mutable std::mutex mutex_;
  std::map<TableKey, Table> events_;
  Table counters_;
  std::set<std::string> known_;  // schema identifiers, of events and counters
};

}  // namespace qvx::columns
