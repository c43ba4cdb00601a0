#include "qvx/columns/query.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "qvx/support/name_match.h"
#include "qvx/support/string_array.h"

namespace qvx::columns {
namespace {

template <typename Named>
std::string names_of(const std::vector<Named>& named) {
  std::string names;
  for (const Named& one : named)
    names += (names.empty() ? "" : ", ") + one.name;
  return names;
}

bool is_pattern(const std::string& text) {
  return text.find_first_of("*?[") != text.npos;
}

class Resolver {
 public:
  explicit Resolver(ResolvedQuery& to) : to_(to) {
    to_.places_.resize(to_.table.columns.size());
    to_.extra_places_.resize(extra_columns().size());
  }

  void add_all() {
    for (std::size_t i = 0; i < to_.table.columns.size(); ++i)
      add(i);
  }

  void add_named(const std::string& name) {
    for (std::size_t i = 0; i < to_.table.columns.size(); ++i)
      if (to_.table.columns[i].name == name) return add(i);
    for (std::size_t i = 0; i < extra_columns().size(); ++i)
      if (extra_columns()[i].name == name) return add_extra(i);
    bool any = false;
    if (is_pattern(name)) {
      for (std::size_t i = 0; i < to_.table.columns.size(); ++i) {
        if (!matches_any(to_.table.columns[i].name, {name})) continue;
        add(i);
        any = true;
      }
    }
    if (!any)
      throw std::invalid_argument("no column \"" + name + "\" in table \"" + to_.table.name +
                                  "\", which has: " + names_of(to_.table.columns) + ", " +
                                  names_of(extra_columns()));
  }

 private:
  void add(std::size_t index) {
    if (to_.places_[index]) return;
    to_.places_[index] = to_.columns.size();
    to_.columns.push_back(to_.table.columns[index]);
    to_.sources.push_back({false, index});
  }

  void add_extra(std::size_t index) {
    if (to_.extra_places_[index]) return;
    to_.extra_places_[index] = to_.columns.size();
    to_.columns.push_back(extra_columns()[index]);
    to_.sources.push_back({true, index});
  }

  ResolvedQuery& to_;
};

void check_conditions(const ResolvedQuery& resolved) {
  std::vector<std::string> known{"_file", "_source_id", "_source_tag"};
  if (resolved.table.kind == TableKind::metrics) known.insert(known.begin(), "metric");
  for (const auto& [column, patterns] : resolved.query.where) {
    if (std::find(known.begin(), known.end(), column) != known.end()) continue;
    std::string names;
    for (const std::string& name : known)
      names += (names.empty() ? "" : ", ") + name;
    throw std::invalid_argument("no condition on \"" + column + "\" in table \"" + resolved.table.name +
                                "\", which has conditions on: " + names);
  }
}

}  // namespace

const std::vector<std::string>* ResolvedQuery::patterns_for(const std::string& column) const {
  for (const auto& [name, patterns] : query.where)
    if (name == column) return &patterns;
  return nullptr;
}

ResolvedQuery resolve(const Dataset& dataset, const Query& query) {
  ResolvedQuery resolved;
  resolved.query = query;
  std::optional<Table> table = dataset.find(query.table);
  if (!table)
    throw std::invalid_argument("no table \"" + query.table + "\"; there are: " + names_of(dataset.tables()));
  resolved.table = std::move(*table);
  Resolver resolver(resolved);
  if (query.columns.empty()) resolver.add_all();
  for (const std::string& name : query.columns)
    resolver.add_named(name);
  check_conditions(resolved);
  return resolved;
}

bool matches_any(const std::string& text, const std::vector<std::string>& patterns) {
  StringArrayPtr array = make_string_array();
  for (const std::string& pattern : patterns)
    if (!append(array, pattern.c_str())) throw std::bad_alloc();
  return qvx_name_matches(text.c_str(), array.get(), MatchMode::kWildcard);
}

}  // namespace qvx::columns
