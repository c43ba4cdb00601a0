#include "qvx/support/env.h"

#include <cstdlib>
#include <cstring>

#include "qvx/support/log.h"

const char* qvx_getenv(const char* name) noexcept {
  constexpr const char* kRoutine = "qvx_getenv";
  constexpr const char* kPrefix = "QVX_";
  const char* const alias = name + std::strlen(kPrefix);
  const char* const value = std::getenv(name);
  const char* const alias_value = std::getenv(alias);
  if (value != nullptr && alias_value != nullptr && std::strcmp(value, alias_value) != 0) {
    QVX_LOG(QVX_LOG_WARNING, "[%s] Environment variables conflict - %s=%s and %s=%s. Using %s", kRoutine,
            name, value, alias, alias_value, name);
  }
  if (value != nullptr) {
    QVX_LOG(QVX_LOG_DEBUG, "[%s] Using '%s'='%s'", kRoutine, name, value);
    return value;
  }
  if (alias_value != nullptr) {
    QVX_LOG(QVX_LOG_DEBUG, "[%s] Using '%s'='%s'", kRoutine, alias, alias_value);
    return alias_value;
  }
  QVX_LOG(QVX_LOG_DEBUG, "[%s] No value for '%s' or '%s'", kRoutine, name, alias);
  return nullptr;
}

namespace qvx {

bool is_true_switch(const char* value) {
  if (value == nullptr) return false;
  switch (*value) {
    case '1':
    case 't':
    case 'T':
    case 'y':
    case 'Y':
      return true;
    default:
      return false;
  }
}

}  // namespace qvx
