#include "qvx/support/name_match.h"

#include <fnmatch.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "qvx/support/log.h"

using qvx::MatchMode;
using qvx::StringArrayPtr;

namespace {

struct MatchModeRow {
  MatchMode value;
  const char* name;
};

constexpr MatchModeRow kMatchModes[] = {
    {MatchMode::kExact, "exact"},
    {MatchMode::kWildcard, "wildcard"},
    // Regular expressions are deliberately not supported: the name selects exact matching.
    {MatchMode::kExact, "regexp"},
    {MatchMode::kContains, "contains"},
    {MatchMode::kUnknown, nullptr},
};

bool matches_wildcard(const char* name, const char* pattern) {
  if (fnmatch(pattern, name, FNM_CASEFOLD) == 0) return true;
  try {
    // The name of a group selects the members of the group.
    const std::string members = std::string(pattern) + ".*";
    return fnmatch(members.c_str(), name, FNM_CASEFOLD) == 0;
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "Error: unable to allocate memory for wildcard string search");
    return false;
  }
}

bool matches_pattern(const char* name, const char* pattern, MatchMode mode) {
  switch (mode) {
    case MatchMode::kExact:
      return std::strcmp(name, pattern) == 0;
    case MatchMode::kWildcard:
      return matches_wildcard(name, pattern);
    case MatchMode::kContains:
      return std::strstr(name, pattern) != nullptr;
    case MatchMode::kNothing:
    case MatchMode::kUnknown:
      break;
  }
  return false;
}

int compare_elements(const void* a, const void* b) {
  return std::strcmp(*static_cast<char* const*>(a), *static_cast<char* const*>(b));
}

void sort(const StringArrayPtr& array) {
  const auto all = qvx::strings(array.get());
  std::qsort(all.data(), all.size(), sizeof(char*), compare_elements);
}

bool append_all(StringArrayPtr& array, const qvx_string_array* source) {
  qvx_string_array* grown = array.release();
  const bool done = qvx_string_array_append_all(&grown, source);
  array.reset(grown);
  return done;
}

bool remove_duplicates(StringArrayPtr& array) {
  qvx_string_array* shrunk = array.release();
  const bool done = qvx_string_array_remove_duplicates(&shrunk, true);
  array.reset(shrunk);
  return done;
}

bool join_mandatory(StringArrayPtr& names, const qvx_string_array* mandatory) {
  if (!append_all(names, mandatory)) {
    QVX_LOG(QVX_LOG_ERROR, "could not join mandatory counters properly to names array");
    return false;
  }
  sort(names);
  if (!remove_duplicates(names)) {
    QVX_LOG(QVX_LOG_ERROR, "could not remove duplicates from string array");
    return false;
  }
  return true;
}

void report_conflict(const char* name) {
  QVX_LOG(QVX_LOG_WARNING, "'%s' will not run. specified in disable-provider and in enable-provider.", name);
}

}  // namespace

MatchMode qvx_match_mode_from_name(const char* name) noexcept {
  if (name == nullptr) return MatchMode::kUnknown;
  const MatchModeRow* row = kMatchModes;
  while (row->name != nullptr && std::strcmp(row->name, name) != 0)
    ++row;
  return row->value;
}

const char* qvx_match_mode_name(MatchMode mode) noexcept {
  const MatchModeRow* row = kMatchModes;
  while (row->name != nullptr && row->value != mode)
    ++row;
  return row->name;
}

bool qvx_name_matches(const char* name, const qvx_string_array* patterns, MatchMode mode) noexcept {
  if (name == nullptr) return false;
  for (const char* const pattern : qvx::strings(patterns)) {
    if (matches_pattern(name, pattern, mode)) return true;
  }
  return false;
}

qvx_string_array* qvx_names_filter(const qvx_string_array* names, const qvx_string_array* patterns,
                                   MatchMode mode, bool wanted) noexcept {
  if (names == nullptr) return nullptr;
  StringArrayPtr kept(qvx_string_array_create());
  if (kept == nullptr) return nullptr;
  for (const char* const name : qvx::strings(names)) {
    if (qvx_name_matches(name, patterns, mode) != wanted) continue;
    if (!append(kept, name)) return nullptr;
  }
  return kept.release();
}

qvx_string_array* qvx_select_counter_names(const qvx_string_array* names, const qvx_string_array* include,
                                           const qvx_string_array* exclude, const qvx_string_array* mandatory,
                                           MatchMode mode) noexcept {
  const StringArrayPtr included(qvx_names_filter(names, include, mode, true));
  StringArrayPtr selected(qvx_names_filter(included.get(), exclude, mode, false));
  if (selected == nullptr) return nullptr;
  if (mandatory == nullptr || mandatory->count == 0) {
    sort(selected);
  } else if (!join_mandatory(selected, mandatory)) {
    QVX_LOG(QVX_LOG_ERROR, "failed to match counter names");
    return nullptr;
  }
  return selected.release();
}

bool qvx_provider_is_enabled(const char* name, const qvx_string_array* enable,
                             const qvx_string_array* disable) noexcept {
  if (enable == nullptr && disable == nullptr) return true;
  if (!qvx_name_matches(name, enable, MatchMode::kWildcard)) return false;
  if (!qvx_name_matches(name, disable, MatchMode::kWildcard)) return true;
  report_conflict(name);
  return false;
}

bool qvx_name_is_enabled(const char* name, const qvx_string_array* enable,
                         const qvx_string_array* disable) noexcept {
  const bool enabled = qvx_name_matches(name, enable, MatchMode::kWildcard) ||
                       qvx_name_matches(name, enable, MatchMode::kContains);
  if (!enabled) return false;
  if (!qvx_name_matches(name, disable, MatchMode::kContains)) return true;
  report_conflict(name);
  return false;
}

bool qvx_text_names_component(const char* text, const qvx_string_array* file_names) noexcept {
  if (text == nullptr) return false;
  const std::string_view searched(text);
  for (const char* const file_name : qvx::strings(file_names)) {
    const char* const dot = std::strrchr(file_name, '.');
    if (dot == nullptr) continue;
    const std::string_view component(file_name, static_cast<std::size_t>(dot - file_name));
    if (searched.find(component) != std::string_view::npos) return true;
  }
  return false;
}
