// Configuration from the environment: every variable has a QVX_ name and an alias without the prefix.
#pragma once

// Looks up `name`, which must begin with "QVX_", and its alias without the prefix. The prefixed variable
// wins; two different values are reported at level 4, the choice is traced at level 7. The result belongs to
// the environment; null when neither variable is set.
const char* qvx_getenv(const char* name) noexcept;

namespace qvx {
// True when the value is not null, not empty, and its first character is '1', 't' or 'y' in either case.
bool is_true_switch(const char* value);
}  // namespace qvx
