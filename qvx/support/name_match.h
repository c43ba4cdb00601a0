// Which names a list of patterns selects: of counters, event types and providers. No function throws; arrays
// returned belong to the caller.
#pragma once

#include "qvx/support/string_array.h"

namespace qvx {

enum class MatchMode : int {
  kUnknown = -1,  // closes the table of modes
  kExact = 0,     // the name equals the pattern
  kWildcard = 1,  // shell pattern in any case; a pattern also selects the names that continue it after a dot
  kNothing = 2,   // matches no name
  kContains = 3,  // the pattern occurs in the name
};

}  // namespace qvx

// "exact", "wildcard", "regexp" (the same as "exact") and "contains"; kUnknown for any other name or null.
qvx::MatchMode qvx_match_mode_from_name(const char* name) noexcept;

// The first name of the mode, null when it has none.
const char* qvx_match_mode_name(qvx::MatchMode mode) noexcept;

// True when any of the patterns matches the name. A null array matches nothing.
bool qvx_name_matches(const char* name, const qvx_string_array* patterns, qvx::MatchMode mode) noexcept;

// The names, in order, for which qvx_name_matches gives `wanted`; null on failure and for null names.
qvx_string_array* qvx_names_filter(const qvx_string_array* names, const qvx_string_array* patterns,
                                   qvx::MatchMode mode, bool wanted) noexcept;

// The sorted names that match `include` and do not match `exclude`, together with the mandatory names, which
// may be null. With mandatory names duplicates are dropped. Null on failure and for null names.
qvx_string_array* qvx_select_counter_names(const qvx_string_array* names, const qvx_string_array* include,
                                           const qvx_string_array* exclude, const qvx_string_array* mandatory,
                                           qvx::MatchMode mode) noexcept;

// True when the name wildcard-matches `enable` and does not wildcard-match `disable`, or when both are null.
bool qvx_provider_is_enabled(const char* name, const qvx_string_array* enable,
                             const qvx_string_array* disable) noexcept;

// True when the name wildcard-matches `enable` or contains one of its patterns, and contains no pattern of
// `disable`.
bool qvx_name_is_enabled(const char* name, const qvx_string_array* enable,
                         const qvx_string_array* disable) noexcept;

// True when the part before the last dot of one of the file names occurs in the text. File names without a
// dot are skipped.
bool qvx_text_names_component(const char* text, const qvx_string_array* file_names) noexcept;
