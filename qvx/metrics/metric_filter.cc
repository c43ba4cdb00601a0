#include "qvx/metrics/metric_filter.h"

#include <sys/single_threaded.h>

#include <algorithm>

namespace qvx::metrics {

std::unique_lock<std::mutex> MetricFilter::lock() const {
  if (__libc_single_threaded) return {};
  return std::unique_lock(mutex_);
}

void MetricFilter::add_name(std::string_view name) {
  const auto guard = lock();
  names_.emplace(name);
}

void MetricFilter::add_pattern(std::string_view text, int kind) {
  const auto guard = lock();
  patterns_.push_back({std::string(text), kind});
  has_patterns_ = true;
}

bool MetricFilter::accepts(std::string_view name) const {
  const auto guard = lock();
  if (names_.contains(name)) return true;
  if (!has_patterns_) return false;
  return std::any_of(patterns_.begin(), patterns_.end(),
                     [name](const Pattern& pattern) { return matches(pattern, name); });
}

bool MetricFilter::matches(const Pattern& pattern, std::string_view name) {
  switch (pattern.kind) {
    case kEqual:
      return name == pattern.text;
    case kPrefix:
      return name.starts_with(pattern.text);
    case kSuffix:
      return name.ends_with(pattern.text);
    case kContains:
      return name.find(pattern.text) != std::string_view::npos;
    default:
      return false;
  }
}

}  // namespace qvx::metrics
