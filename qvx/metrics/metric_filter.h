// Which metrics are stored.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace qvx::metrics {

// Exact names and patterns; a metric that matches any of them is accepted. Names and patterns may be added
// while another thread fills a store through the filter; the changes-only flag is set before.
class MetricFilter {
 public:
  // How a pattern's text is compared; a pattern of any other kind never matches.
  enum MatchKind : int { kEqual = 0, kPrefix = 1, kSuffix = 2, kContains = 3 };

  void add_name(std::string_view name);
  void add_pattern(std::string_view text, int kind);

  // Whether a value equal to the last one of its series is left out.
  void set_changes_only(bool changes_only) { changes_only_ = changes_only; }
  bool changes_only() const { return changes_only_; }

  bool accepts(std::string_view name) const;

 private:
  struct Pattern {
    std::string text;
    int kind;
  };
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
  };

  // Holds the mutex, but only when the process runs with threads.
  std::unique_lock<std::mutex> lock() const;
  static bool matches(const Pattern& pattern, std::string_view name);

  mutable std::mutex mutex_;
  std::unordered_set<std::string, NameHash, std::equal_to<>> names_;
  std::vector<Pattern> patterns_;
  bool has_patterns_ = false;
  bool changes_only_ = false;
};

}  // namespace qvx::metrics
