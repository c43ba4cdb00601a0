// The tables of the last metrics block, which most blocks of a file repeat byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "qvx/metrics/block_tables.h"
#include "qvx/support/bytes.h"

namespace qvx::metrics {

// Reads the tables of one block after the other. Keeps a copy of the bytes that a block's tables were read
// from, and reads nothing anew when the next block has the same bytes there: what the tables are depends on
// these bytes, and on markers behind them, which are searched for in each block. Tables of more than
// kMostKept bytes are read from every block. Either way the tables are valid until the block's bytes are gone
// or the next block is read.
class KeptTables {
 public:
  static constexpr std::size_t kMostKept = 2 * 1024 * 1024;

  // Label-name sets, label values and metric names of the block. Throws what read_name_tables throws.
  void read_names(Bytes block);

  // The constant labels of the same block. Throws what read_constant_labels throws.
  void read_constants(Bytes block);

  const MetricsBlockTables& tables() const { return tables_; }

  // Another number whenever any of the tables may be another one than before.
  std::uint64_t version() const { return version_; }

  // The block has no data marker before this offset.
  std::size_t data_marker_from() const { return data_marker_from_; }

 private:
  static constexpr std::size_t kNone = std::string::npos;

  bool repeats_names(Bytes block) const;
  bool find_sections_behind(Bytes block);
  void keep_names(Bytes region);

  MetricsBlockTables tables_;
  std::uint64_t version_ = 0;

  // From the start of the last block to the end of its metric names; empty when they are not kept.
  std::string region_;
  std::size_t data_marker_in_region_ = kNone;
  std::size_t constants_in_region_ = kNone;

  std::string constants_;  // the table's bytes; empty for a block without constant labels
  bool constants_are_kept_ = false;

  // Of the block at hand.
  std::size_t data_marker_from_ = 0;
  std::size_t constants_from_ = 0;  // no such marker before this offset, or none at all
};

}  // namespace qvx::metrics
