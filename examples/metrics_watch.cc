// Keeps the metrics of data files in memory and prints what it has of each metric and label set.
//
//   metrics_watch file...
#include <charconv>
#include <cstdio>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "examples/data_blocks.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/metrics/metrics_parser.h"

using namespace qvx;
using namespace qvx::metrics;

// By the text of a label set, a store of its own: within a store, a metric has one series for all labels.
using Stores = std::map<std::string, MetricsStore>;

std::string text_of(const LabelMap& labels) {
  std::string text;
  for (const auto& [name, value] : labels)
    text.append(text.empty() ? "{" : ", ").append(name).append("=").append(value);
  return text.empty() ? text : text + "}";
}

// Hands each record to the store of its labels, in a block with that record alone.
void store_block(Bytes block, Stores& stores) {
  // With a size of 0, process_cntx_blocks would not end. The counting pass finds that out and always ends.
  std::unordered_set<std::string> names;
  const std::byte* const end = block.data() + block.size();
  if (!QvxMetricsParser::count_metrics_from_cntx_blocks(block.data(), end, names))
    throw std::runtime_error("a metrics block has an impossible size");
  block = block.first(std::min<std::size_t>(QvxMetricsParser::total_size(block.data(), end), block.size()));
  MetricsBlockTables tables;
  read_block_tables(block, HistogramUse::check, tables);
  const MetricsDataSection section = find_data_section(block, has_full_trailer);
  MetricsBatch batch;
  for (std::size_t at = kFirstRecordAt, length = 0; at < section.end; at += length) {
    const std::byte* const record = section.area + at;
    const MetricsRecordHeader header = read_record_header(record, section.block_end);
    length = read_record_labels(section, record, header, "metrics_watch", batch);
    LabelMap labels = tables.constant_labels;  // what all records of the block have in common
    if (const StringTable* const label_names = tables.label_names.find(batch.label_set_id))
      set_labels(*label_names, decode_label_values(batch.label_values, tables.label_values), labels);
    std::string single(as_text(Bytes(block.data(), section.area + kFirstRecordAt)));
    single.append(as_text(Bytes(record, length))).append(wire::kTrailer);
    store_le(single.data() + wire::kTotalSizeAt, static_cast<std::uint32_t>(single.size()));
    const std::byte* const begin = as_bytes(single).data();
    MetricsStore& store = stores[text_of(labels)];
    QvxMetricsParser::process_cntx_blocks(begin, begin + single.size(), nullptr, store);
  }
}

// Adds a line for each series of the type.
template <typename T>
void add_lines(const std::string& labels, const MetricsStore& store, std::set<std::string>& lines) {
  store.for_each_series<T>([&](std::uint64_t symbol, const TimeSeries<T>& series) {
    std::array<char, 32> last{};
    if constexpr (std::is_same_v<T, Bit64>)
      std::snprintf(last.data(), last.size(), "0x%lx", static_cast<std::uint64_t>(series.last_value()));
    else
      std::to_chars(last.begin(), last.end(), series.last_value());
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
  Stores stores;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    const auto visit = [&](Bytes block) {  // a fault costs no more than its block
      if (as_text(block).starts_with(wire::kBlockMarker))
        ok &= attempt(argv[i], [&] { store_block(block, stores); });
    };
    ok &= attempt(argv[i], [&] { examples::for_each_block(argv[i], visit); });
  }
  std::set<std::string> lines;  // sorted by metric
  for (const auto& [labels, store] : stores) {
    add_lines<std::uint64_t>(labels, store, lines);
    add_lines<double>(labels, store, lines);
    add_lines<Bit64>(labels, store, lines);
    add_lines<std::int64_t>(labels, store, lines);
  }
  for (const std::string& line : lines)
    std::puts(line.c_str());
  return ok ? 0 : 1;
}
