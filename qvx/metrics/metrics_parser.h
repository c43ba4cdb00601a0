// The reader that fills a metrics store from metrics blocks, for a consumer that keeps metrics in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include "qvx/metrics/metric_filter.h"
#include "qvx/metrics/metrics_store.h"
#include "qvx/metrics/string_table.h"

namespace qvx::metrics {

// Keeps nothing between blocks but the store. Faults cost what each function says and are logged with the
// prefix "[qvx metrics parser] ".
class QvxMetricsParser {
 public:
  // Stores every accepted sample of every block in [begin, end) and returns the position after the last
  // block. A null filter accepts all. A faulty block costs what follows the fault in it; it is logged at
  // level 4.
  //
  // A block whose total_size is 0 is found again and again: THIS FUNCTION THEN DOES NOT END. Sizes are
  // deliberately taken as written here. On data that is not trusted, run the counting pass first: it checks
  // every size, always ends, and warns "Invalid block size" of such a block.
  static const std::byte* process_cntx_blocks(const std::byte* begin, const std::byte* end,
                                              const MetricFilter* filter, MetricsStore& store);

  // Stores one block. Throws std::runtime_error for a fault that costs the rest of the block; samples stored
  // before it stay stored.
  static void parse_metrics(const std::byte* block_begin, const std::byte* block_end,
                            const MetricFilter* filter, MetricsStore& store);

  // The counting pass: reads the blocks with every check and adds the name of each metric that a valid sample
  // refers to. Ends on any input, in time and memory bounded by its size, and logs what it finds instead of
  // throwing. True when every block's size is one that process_cntx_blocks steps over (1 to 2^30), so that it
  // may be run on the same bytes.
  static bool count_metrics_from_cntx_blocks(const std::byte* begin, const std::byte* end,
                                             std::unordered_set<std::string>& names_out);

  // See string_table.h.
  static const std::byte* read_string_table(const std::byte* pos, const std::byte* end,
                                            std::string_view opening, std::string_view closing,
                                            StringTable& table_out) {
    return metrics::read_string_table(pos, end, opening, closing, table_out);
  }

  // The total_size of the first block in [begin, end), as written; 0 when there is none or it is cut.
  static std::uint32_t total_size(const std::byte* begin, const std::byte* end);
};

}  // namespace qvx::metrics
