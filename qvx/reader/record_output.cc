#include "qvx/reader/record_output.h"

#include <string_view>

#include "qvx/data/block.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr const char* kJsonFailed = "Failed to JSONify event values";
constexpr const char* kInfluxFailed = "Failed to serialize event data to Influx line API format";
constexpr const char* kNoCsv = "CSV output is not supported yet";

// What stands before the next record: in one JSON document a separator, unless it is the first.
std::string_view before_record(const ReaderContext& context) {
  const bool separated = context.run.options.format == OutputFormat::json && context.records_written != 0;
  return separated ? ",\n" : "";
}

bool print_record(ReaderContext& context, const EventType& type, Bytes at_hand) {
  const auto printed_by_plan = [&](const char* failure) {
    if (type.plan && type.plan->write(at_hand, before_record(context), context.run.sink)) return true;
    file_error(context, "%s", failure);
    return false;
  };
  switch (context.run.options.format) {
    case OutputFormat::json:
    case OutputFormat::ndjson:
      return printed_by_plan(kJsonFailed);
    case OutputFormat::influx:
      return printed_by_plan(kInfluxFailed);
    case OutputFormat::txt:
      file_error(context, "Text output is not yet supported for counters data");
      return true;
    case OutputFormat::csv:
      file_error(context, "%s", kNoCsv);
      return true;
    default:
      file_error(context, "Unknown output format %d", static_cast<int>(context.run.options.format));
      return false;
  }
}

// Frames metrics records like all others.
class MetricsTarget final : public metrics::MetricsRecordTarget {
 public:
  explicit MetricsTarget(ReaderContext& context) : context_(context) {}

  Format format() const override {
    switch (context_.run.options.format) {
      case OutputFormat::json:
        return Format::json;
      case OutputFormat::ndjson:
        return Format::ndjson;
      case OutputFormat::csv:
        return Format::csv;
      case OutputFormat::influx:
        return Format::influx;
      default:
        return Format::other;
    }
  }

  OutputSink& begin_record() override {
    context_.run.sink.write(before_record(context_));
    return context_.run.sink;
  }

  void end_record() override {
    if (format() == Format::ndjson) context_.run.sink.write("\n");
  }

  void file_error(const char* text) override { qvx::file_error(context_, "%s", text); }

 private:
  ReaderContext& context_;
};

}  // namespace

std::size_t process_events_block(ReaderContext& context, Bytes block) {
  const EventHeader header = event_header_decode(block);
  if (context.run.options.print_headers) context.run.sink.write(event_header_dump(header));
  const EventType* const type = context.types->event_type(header.schema_index, header.type_index);
  if (type == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Type definition %u:%u not found", header.schema_index, header.type_index);
    return 0;
  }
  const std::size_t size = type->type->size;
  if (header.num_events == 0 || block.size() < kEventHeaderSize || block.size() - kEventHeaderSize < size)
    return kEventHeaderSize;
  Bytes left = block.subspan(kEventHeaderSize);
  for (unsigned index = 0; index < header.num_events && left.size() >= size; ++index) {
    if (type->selected) {
      if (!print_record(context, *type, left)) {
        QVX_LOG(QVX_LOG_ERROR, "Failed to print");
        return 0;
      }
      ++context.records_written;
    }
    left = left.subspan(size);
  }
  return block.size() - left.size();
}

bool process_counters_block(ReaderContext& context, Bytes block) {
  Run& run = context.run;
  const CountersHeader header = counters_header_decode(block);
  if (run.options.print_headers) {
    run.sink.write(counters_header_dump(header));
    return true;
  }
  if (header.timestamp < run.options.timestamp_gt || header.timestamp > run.options.timestamp_lt) return true;
  switch (run.options.format) {
    case OutputFormat::json:
    case OutputFormat::ndjson: {
      const std::optional<RecordPlan>& plan = context.types->counters_plan();
      if (plan && plan->write(block, before_record(context), run.sink, &run.clock)) return true;
      file_error(context, "%s", kJsonFailed);
      return false;
    }
    case OutputFormat::csv:
      file_error(context, "%s", kNoCsv);
      return true;
    case OutputFormat::influx:
      file_error(context, "Influx line API output is not yet supported for counters data");
      return true;
    default:
      context.types->counters_tables().write(block, run.sink, run.clock);
      return true;
  }
}

void process_metrics_block(ReaderContext& context, Bytes block) {
  MetricsTarget target(context);
  context.run.metrics.output_metrics_block(target, block);
}

}  // namespace qvx
