#include "qvx/columns/dataset.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <unordered_map>

#include "qvx/columns/counters_columns.h"
#include "qvx/columns/event_columns.h"
#include "qvx/columns/fault_recorder.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/scan/file_scan.h"
#include "qvx/scan/schema_folder.h"
#include "qvx/support/text.h"

namespace qvx::columns {
namespace {

ColumnType column(const char* name, ColumnKind kind, const char* description) {
  return {name, kind, 0, {}, {{"description", description}}};
}

std::string name_with_schema(const ColumnType& column, const std::string& schema_id) {
  return column.name + "@" + schema_id.substr(0, 8);
}

class HeaderVisitor final : public ScanVisitor {
 public:
  explicit HeaderVisitor(FaultRecorder& recorder) : recorder_(recorder) {}
  void on_fault(const Fault& fault) override { recorder_.fault(fault); }

 private:
  FaultRecorder& recorder_;
};

}  // namespace

const std::vector<ColumnType>& extra_columns() {
  static const std::vector<ColumnType> kColumns{
      column("_file", ColumnKind::dictionary, "path of the data file"),
      column("_source_id", ColumnKind::dictionary, "identity of the source"),
      column("_source_tag", ColumnKind::dictionary, "tag of the source"),
      column("_block", ColumnKind::u64, "number of the data block in its file, from 0"),
      column("_time", ColumnKind::timestamp, "time of the row: of its first time field, else of its block"),
  };
  return kColumns;
}

const std::vector<ColumnType>& counters_row_columns() {
  static const std::vector<ColumnType> kColumns{
      column("timestamp", ColumnKind::timestamp, "time of the sample"),
      column("set", ColumnKind::u32, "number of the counter set, from 0"),
  };
  return kColumns;
}

const std::vector<ColumnType>& metrics_columns() {
  static const std::vector<ColumnType> kColumns = [] {
    ColumnType labels = column("labels", ColumnKind::labels, "names and values of the labels");
    ColumnType entries{"entries", ColumnKind::record, 0, {}, {}};
    entries.children.push_back({"key", ColumnKind::text, 0, {}, {}});
    entries.children.push_back({"value", ColumnKind::dictionary, 0, {}, {}});
    labels.children.push_back(std::move(entries));
    return std::vector<ColumnType>{
        column("timestamp", ColumnKind::timestamp, "time of the sample"),
        column("metric", ColumnKind::dictionary, "name of the metric"),
        column("kind", ColumnKind::dictionary, "counter or gauge"),
        std::move(labels),
        column("value", ColumnKind::f64, "the value, whatever its type; integers beyond 2^53 are rounded"),
        column("value_u64", ColumnKind::u64, "the exact value of an unsigned integer, else null"),
        column("value_i64", ColumnKind::i64, "the exact value of a signed integer, else null"),
    };
  }();
  return kColumns;
}

void merge_columns(std::vector<ColumnType>& into, const std::vector<ColumnType>& more,
                   const std::string& schema_id) {
  std::unordered_map<std::string, std::size_t> places;
  for (std::size_t i = 0; i < into.size(); ++i)
    places.try_emplace(into[i].name, i);
  for (const ColumnType& column : more) {
    const auto found = places.find(column.name);
    if (found != places.end() && have_same_values(into[found->second], column)) {
      into[found->second].count = std::max(into[found->second].count, column.count);
      continue;
    }
    ColumnType added = column;
    if (found != places.end()) added.name = name_with_schema(column, schema_id);
    if (places.try_emplace(added.name, into.size()).second) into.push_back(std::move(added));
  }
}

std::optional<std::size_t> find_merged(const std::vector<ColumnType>& columns, const ColumnType& column,
                                       const std::string& schema_id) {
  const std::string other = name_with_schema(column, schema_id);
  for (const std::string& name : {column.name, other}) {
    const auto found = std::find_if(columns.begin(), columns.end(), [&](const ColumnType& candidate) {
      return candidate.name == name && have_same_values(candidate, column);
    });
    if (found != columns.end()) return static_cast<std::size_t>(found - columns.begin());
  }
  return std::nullopt;
}

Dataset::Dataset(std::vector<std::string> paths, std::string schema_folder) {
  counters_.name = "counters";
  counters_.kind = TableKind::counters;
  counters_.columns = counters_row_columns();
  std::map<std::string, std::unique_ptr<TypeCache>> caches;
  for (std::string& path : paths) {
    std::string folder = schema_folder;
    if (folder.empty()) folder = find_schema_folder(path.c_str()).value_or("schema");
    std::unique_ptr<TypeCache>& cache = caches[folder];
    if (cache == nullptr) cache = std::make_unique<TypeCache>(folder);
    FileInfo& info = files_.emplace_back();
    info.path = std::move(path);
    struct stat status {};
    if (stat(info.path.c_str(), &status) == 0) info.size = static_cast<std::uint64_t>(status.st_size);
    FaultRecorder recorder(faults_, info.path);
    HeaderVisitor visitor(recorder);
    FileScan scan(*cache);
    info.readable =
        scan.open(info.path.c_str(), visitor) && scan.read_header(visitor) && scan.load_types(visitor);
    if (info.readable) {
      const qvx_data_file_header& header = scan.header();
      info.source_id = utf8_text(field_text(header.source_id));
      info.source_tag = utf8_text(field_text(header.source_tag));
      info.first_timestamp = header.first_timestamp;
      info.last_timestamp = header.last_timestamp;
      info.block_size = header.block_size;
      learn(scan.types().types, info.path);
    }
    recorder.finish(Place{});
    folders_.push_back(std::move(folder));
  }
}

void Dataset::learn(const TypeSet& types, const std::string& file) {
  const std::lock_guard lock(mutex_);
  std::string why_not;
  for (const auto& loaded : types.events) {
    const std::string id = id_text(loaded->id);
    if (!known_.insert("e" + id).second) continue;
    const std::string provider = utf8_text(loaded->events->name.value_or(""));
    for (const auto& type : loaded->events->types) {
      const auto columns = compile_event_columns(*type, id, why_not);
      const std::string name = utf8_text(type->name);
      if (!columns) {
        faults_.add(
            {file, 0, "type_refused", "Type " + name + " of schema " + id + " has no columns: " + why_not});
        continue;
      }
      Table& table = events_[{provider, name}];
      table.provider = provider;
      table.type = name;
      merge_columns(table.columns, columns->types, id);
      table.schemas.push_back(id);
    }
  }
  const std::string id = id_text(types.counters->id);
  if (types.counters->counters->groups.empty() || !known_.insert("c" + id).second) return;
  if (const auto columns = compile_counters_columns(*types.counters->counters, id, why_not)) {
    merge_columns(counters_.columns, columns->types, id);
    counters_.schemas.push_back(id);
  } else {
    faults_.add({file, 0, "type_refused", "Counters schema " + id + " has no columns: " + why_not});
  }
}

std::vector<Table> Dataset::tables() const {
  const std::lock_guard lock(mutex_);
  std::map<std::string, int> uses{{"counters", 1}, {"metrics", 1}};
  for (const auto& [key, table] : events_)
    ++uses[table.type];
  std::vector<Table> all;
  for (const auto& [key, table] : events_) {
    all.push_back(table);
    all.back().name = uses[table.type] > 1 ? table.provider + "." + table.type : table.type;
  }
  all.push_back(counters_);
  all.push_back({"metrics", TableKind::metrics, {}, {}, metrics_columns(), {}});
  std::sort(all.begin(), all.end(), [](const Table& a, const Table& b) { return a.name < b.name; });
  return all;
}

std::optional<Table> Dataset::find(const std::string& name) const {
  std::vector<Table> all = tables();
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const Table& table) { return table.name == name; });
  if (found == all.end()) return std::nullopt;
  return std::move(*found);
}

}  // namespace qvx::columns
