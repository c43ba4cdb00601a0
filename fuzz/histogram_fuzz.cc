// Any bytes as histogram records: whatever is read must give, when written again, a record that reads the
// same.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include "qvx/metrics/histogram.h"
#include "qvx/metrics/histogram_store.h"
#include "qvx/support/log.h"

namespace {

using namespace qvx::metrics;

void check(bool holds) {
  if (!holds) __builtin_trap();
}

template <typename T>
bool same_bytes(const T& left, const T& right) {
  return std::memcmp(&left, &right, sizeof left) == 0;
}

bool same(const Histogram& left, const Histogram& right) {
  return left.name == right.name && left.timestamp == right.timestamp && left.count == right.count &&
         same_bytes(left.sum, right.sum) && left.labels.values == right.labels.values &&
         std::equal(left.buckets.begin(), left.buckets.end(), right.buckets.begin(), right.buckets.end(),
                    same_bytes<HistogramBucket>);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qvx_logger_set_level(0);
  const auto* const begin = reinterpret_cast<const std::byte*>(data);
  const StringTable label_values{"node7", "", "p1", "p2"};
  HistogramStore store;
  try {
    const std::byte* const end = parse_histograms(begin, begin + size, label_values, &store);
    check(end >= begin && end <= begin + size);
  } catch (const std::runtime_error&) {
  }
  for (const auto& [id, histogram] : store) {
    check(histogram.id == id);
    std::string labels{static_cast<char>(histogram.labels.label_set_id),
                       static_cast<char>(histogram.labels.values.size()), 'I'};
    for (const std::string& value : histogram.labels.values) {
      labels += static_cast<char>(value.size());
      labels += value;
    }
    PreallocatedVector buffer(2 * 65536 + 8192);
    serialize(histogram, qvx::as_bytes(labels), buffer);
    Histogram again;
    check(again.parse(buffer.data(), buffer.data() + buffer.size(), {}) == buffer.data() + buffer.size());
    check(same(histogram, again));
  }
  return 0;
}
