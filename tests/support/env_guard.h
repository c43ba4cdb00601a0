// An environment variable with another value for a scope.
#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace qvx::test {

// Sets the variable, or removes it when the value is null; the old state comes back at the end.
class EnvGuard {
 public:
  EnvGuard(const char* name, const char* value) : name_(name) {
    if (const char* const old = std::getenv(name); old != nullptr) old_ = old;
    set(value);
  }
  ~EnvGuard() { set(old_ ? old_->c_str() : nullptr); }

  EnvGuard(const EnvGuard&) = delete;
  EnvGuard& operator=(const EnvGuard&) = delete;

 private:
  void set(const char* value) const {
    if (value != nullptr)
      setenv(name_.c_str(), value, 1);
    else
      unsetenv(name_.c_str());
  }

  std::string name_;
  std::optional<std::string> old_;
};

// The time zone for a scope, in the form of the TZ variable.
class TimeZoneGuard {
 public:
  explicit TimeZoneGuard(const char* zone) : restore_(), variable_("TZ", zone) { tzset(); }

 private:
  struct Restore {
    ~Restore() { tzset(); }
  };
  Restore restore_;  // ends after the variable has its old value
  EnvGuard variable_;
};

}  // namespace qvx::test
