// The data that the benchmarks decode: made from a fixed seed, so that every run measures the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qvx/counters/counters_schema.h"
#include "qvx/data/schema/schema.h"
#include "qvx/data/schema/type_system.h"

namespace qvx::bench {

// One event type of 12 fields, three of them fractional doubles and one a name of up to 16 characters.
inline constexpr std::size_t kEventFields = 12;
inline constexpr std::size_t kEventSize = 77;
// One group of counters, read as a whole from every block.
inline constexpr std::size_t kCounters = 100;

// One batch of a metrics block.
inline constexpr std::size_t kSamples = 100;

enum class Payload { events, counters, metrics };
enum class Pages { plain, gzip, snappy };

const char* payload_name(Payload payload);

TypeSystemPtr make_type_system();

// `count` records of the event type, one after the other.
std::vector<std::byte> make_event_records(std::size_t count);

// One counters block; successive seeds give successive samples.
std::vector<std::byte> make_counters_block(std::uint64_t seed);

std::vector<std::byte> compress_gzip(const std::vector<std::byte>& data);
std::vector<std::byte> compress_snappy(const std::vector<std::byte>& data);

// What differs between metrics blocks of successive seeds, besides samples and time.
enum class MetricsChange { nothing, record_labels, label_values, metric_names, constant_labels };

// One metrics block of 100 samples and 5 labels; successive seeds give successive batches. Blocks have two
// constant labels, too, when these are to change.
std::vector<std::byte> make_metrics_block(std::uint64_t seed, MetricsChange change = MetricsChange::nothing);

struct DataFile {
  std::string path;
  std::uint64_t bytes = 0;   // of the file
  std::uint64_t values = 0;  // fields of records, counter or metric samples
};

// Writes a data file of about `data_bytes` bytes of blocks, before compression, and the schema files it
// names, below `folder`. Throws std::runtime_error when a file cannot be written.
DataFile make_data_file(const std::string& folder, Payload payload, Pages pages, std::uint64_t data_bytes);

}  // namespace qvx::bench
