#include "qvx/data/schema/serializer.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include "qvx/data/block.h"
#include "qvx/data/page.h"
#include "qvx/support/number.h"

namespace qvx::data {
namespace {

// What is behind the header of the page and filled, never more than the bytes given.
Bytes filled_data(Bytes page) {
  constexpr std::size_t kFilledBytes = offset_of(kPageLayout, "filled_bytes");
  if (page.size() < kPageHeaderSize) return {};
  const auto filled = load_le<std::uint64_t>(page.data() + kFilledBytes);
  const Bytes whole = page.first(static_cast<std::size_t>(std::min<std::uint64_t>(filled, page.size())));
  return whole.size() > kPageHeaderSize ? whole.subspan(kPageHeaderSize) : Bytes();
}

// Walks over one page. `end_line` is called behind each line, for its end.
template <typename EndLine>
class PageLines {
 public:
  PageLines(const InfluxMeasurements& measurements, std::span<const qvx_adapter_info> adapters,
            const qvx_type_system& types, OutputSink& sink, EndLine end_line)
      : types_(types), sink_(sink), end_line_(end_line) {
    if (types.counters_schema != nullptr)
      counters_plans_ = compile_influx_counters_lines(*types.counters_schema, adapters, measurements);
  }

  void write(Bytes data) {
    bool is_lost = false;  // the last step was no block
    while (!data.empty()) {
      const std::size_t size = is_lost && !begins_with_magic(data) ? 0 : write_block(data);
      is_lost = size == 0;
      data = data.subspan(is_lost ? 1 : size);
    }
  }

 private:
  static bool begins_with_magic(Bytes data) { return as_text(data).starts_with("QVX"); }

  // The size of the block that begins the data; 0 for what is none.
  std::size_t write_block(Bytes data) {
    switch (block_type_of(data)) {
      case QVX_COUNTERS_BLOCK:
        return write_counters(data);
      case QVX_EVENTS_BLOCK:
        return write_events(data);
      case QVX_SCHEMAS_BLOCK: {
        const std::size_t size = schemas_header_decode(data).block_size;
        return size >= kSchemasHeaderSize && size <= data.size() ? size : 0;
      }
      default:
        return 0;
    }
  }

  std::size_t write_counters(Bytes data) {
    if (types_.counters_schema == nullptr) return 0;
    const std::uint64_t size = kCountersHeaderSize + std::uint64_t{types_.counters_schema->size_of_counters};
    if (size > data.size()) return 0;
    const Bytes block = data.first(static_cast<std::size_t>(size));
    const std::optional<std::uint64_t> time = line_time(counters_header_decode(block).timestamp, 0);
    for (const RecordPlan& plan : counters_plans_)
      if (time) write_line(plan, block, *time);
    return block.size();
  }

  std::size_t write_events(Bytes data) {
    if (data.size() < kEventHeaderSize) return 0;
    const EventHeader header = event_header_decode(data);
    if (header.schema_index >= types_.schemas.size()) return 0;
    const auto& schema_types = types_.schemas[header.schema_index]->types;
    if (header.type_index >= schema_types.size() || schema_types[header.type_index] == nullptr) return 0;
    const qvx_type_definition& type = *schema_types[header.type_index];
    Bytes records = data.subspan(kEventHeaderSize);
    if (header.num_events > 0 && type.size > records.size() / header.num_events) return 0;
    const std::optional<RecordPlan>& plan = plan_of(type);
    for (unsigned number = 0; number < header.num_events; ++number) {
      const std::optional<std::uint64_t> time = line_time(header.timestamp, number);
      if (plan && time) write_line(*plan, records, *time);
      records = records.subspan(static_cast<std::size_t>(type.size));
    }
    return data.size() - records.size();
  }

  // Nanoseconds; nothing for a time that a server does not take.
  static std::optional<std::uint64_t> line_time(std::uint64_t microseconds, unsigned number) {
    constexpr std::uint64_t kLast = std::numeric_limits<std::int64_t>::max() - 1;
    if (microseconds > (kLast - number) / 1000) return std::nullopt;
    return microseconds * 1000 + number;
  }

  void write_line(const RecordPlan& plan, Bytes at_hand, std::uint64_t time) {
    if (!plan.write(at_hand, {}, sink_)) return;
    sink_.commit(write_decimal(sink_.reserve(kNumberRoom), time));
    end_line_();
  }

  const std::optional<RecordPlan>& plan_of(const qvx_type_definition& type) {
    const auto [place, is_new] = event_plans_.try_emplace(&type);
    if (is_new) place->second = compile_influx_line(type);
    return place->second;
  }

  const qvx_type_system& types_;
  OutputSink& sink_;
  EndLine end_line_;
  std::vector<RecordPlan> counters_plans_;
  std::map<const qvx_type_definition*, std::optional<RecordPlan>> event_plans_;
};

}  // namespace

InfluxSerializer::InfluxSerializer()
    : measurements_{{{"hca_counters", {"hca_name", "node_guid", "system_image_guid"}},
                     {"hca_port_counters", {"hca_name", "node_guid", "port_num", "port_guid"}},
                     {"cpu_counters", {"node_guid", "system_image_guid", "cpu_num"}},
                     {"node_counters", {"node_guid", "system_image_guid"}}}} {}

std::vector<std::string> InfluxSerializer::serialize(Bytes page, std::span<const qvx_adapter_info> adapters,
                                                     const qvx_type_system& types) {
  std::vector<std::string> lines;
  std::string line;
  OutputSink sink(line);
  const auto end_line = [&] {
    if (!sink.flush()) throw std::bad_alloc();
    lines.push_back(std::exchange(line, {}));
  };
  PageLines(measurements_, adapters, types, sink, end_line).write(filled_data(page));
  return lines;
}

void InfluxSerializer::write(Bytes page, std::span<const qvx_adapter_info> adapters,
                             const qvx_type_system& types, OutputSink& sink) const {
  PageLines(measurements_, adapters, types, sink, [&sink] { sink.write("\n"); }).write(filled_data(page));
}

}  // namespace qvx::data
