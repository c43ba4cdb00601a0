// Keeps the metrics of data files in memory and prints what it has of each metric and label set.
//
//   metrics_watch file...
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <set>
#include <stdexcept>
#include <string>

#include "examples/data_blocks.h"
#include "qvx/metrics/metrics_parser.h"
#include "qvx/metrics/wire.h"

using namespace qvx;
using namespace qvx::metrics;

std::string text_of(const LabelSet& labels) {
  std::string text;
  for (const auto& [name, value] : labels)
    text.append(text.empty() ? "{" : ", ").append(name).append("=").append(value);
  return text.empty() ? text : text + "}";
}

void store_block(Bytes block, MetricsStore& store) {
  const std::byte* const begin = block.data();
  const std::size_t size = QvxMetricsParser::total_size(begin, begin + block.size());
  if (size == 0) throw std::runtime_error("a metrics block has an impossible size");
  QvxMetricsParser::parse_metrics(begin, begin + std::min(size, block.size()), nullptr, store);
}

// Adds a line for each series of the type.
template <typename T>
void add_lines(const MetricsStore& store, std::set<std::string>& lines) {
  store.for_each_series<T>([&](std::uint64_t symbol, std::uint64_t label_set, const TimeSeries<T>& series) {
    std::array<char, 32> last{};
    if constexpr (std::is_same_v<T, Bit64>)
      std::snprintf(last.data(), last.size(), "0x%lx", static_cast<std::uint64_t>(series.last_value()));
    else
      std::to_chars(last.begin(), last.end(), series.last_value());
    const std::string labels = text_of(store.label_sets().find(label_set)->label_set);
    lines.insert(store.symbols().name_of(symbol) + labels + ": " + std::to_string(series.size()) +
                 " points, last " + last.data());
  });
}

// Prints what went wrong; true when nothing did.
bool attempt(const char* path, const auto& action) try {
  action();
  return true;
} catch (const std::exception& fault) {
  std::fprintf(stderr, "metrics_watch: %s: %s\n", path, fault.what());
  return false;
}

int main(int argc, char** argv) {
  MetricsStore store;
  store.set_series_per_label_set(true);
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    const auto visit = [&](Bytes block) {  // a fault costs no more than its block
      if (as_text(block).starts_with(wire::kBlockMarker))
        ok &= attempt(argv[i], [&] { store_block(block, store); });
    };
    ok &= attempt(argv[i], [&] { examples::for_each_block(argv[i], visit); });
  }
  std::set<std::string> lines;  // sorted by metric
  add_lines<std::uint64_t>(store, lines);
  add_lines<double>(store, lines);
  add_lines<Bit64>(store, lines);
  add_lines<std::int64_t>(store, lines);
  for (const std::string& line : lines)
    std::puts(line.c_str());
  return ok ? 0 : 1;
}
