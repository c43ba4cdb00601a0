#include "qvx/reader/print_visitor.h"

#include <cstdio>
#include <string>

#include "qvx/data/block.h"
#include "qvx/reader/print_plans.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

// In one JSON document.
constexpr std::string_view kBetweenRecords = ",\n";

// The file error of a record that cannot be written in its form.
const char* failure_of(RecordForm form) {
  switch (form) {
    case RecordForm::json_pretty:
    case RecordForm::json_compact:
      return "Failed to JSONify event values";
    case RecordForm::influx_fields:
      return "Failed to serialize event data to Influx line API format";
    case RecordForm::tables:
    case RecordForm::none:
      break;
  }
  return "";
}

}  // namespace

// What stands before the next record, unless it is the first.
std::string_view PrintVisitor::before_record() const {
  return run_.format.one_document && records_written_ != 0 ? kBetweenRecords : "";
}

void PrintVisitor::on_header(const qvx_data_file_header& header) {
  if (run_.options.print_headers) run_.sink.write(header_dump(header));
}

void PrintVisitor::on_event_header(const EventHeader& header) {
  if (run_.options.print_headers) run_.sink.write(event_header_dump(header));
}

bool PrintVisitor::on_events(const EventsBlock& block) {
  const EventPrint& print = EventPrints::of(block.schema, block.type_index, run_.options);
  if (!print.selected) return true;
  bool ok = true;
  if (run_.format.events == RecordForm::none) {
    ok = refuse_events(block.count);
  } else {
    const RecordPlan::Records records{block.records, block.type.size, block.count};
    const std::string_view between = run_.format.one_document ? kBetweenRecords : "";
    const std::size_t written =
        print.plan ? print.plan->write_all(records, before_record(), between, run_.sink) : 0;
    records_written_ += static_cast<std::uint32_t>(written);
    ok = written == block.count;
    if (!ok) file_error(failure_of(run_.format.events));
  }
  if (!ok) QVX_LOG(QVX_LOG_ERROR, "Failed to print");
  return ok;
}

// Says of each record that its format has no events, or of the first if that is a failure.
bool PrintVisitor::refuse_events(std::size_t count) {
  for (std::size_t index = 0; index < count; ++index) {
    file_error(run_.format.no_events);
    if (run_.format.no_events_fails) return false;
    ++records_written_;
  }
  return true;
}

bool PrintVisitor::on_counters(const CountersBlock& block) {
  const bool ok = print_counters(block);
  ++records_written_;
  return ok;
}

// With -p the header only; nothing outside the time range, whose ends both belong to it.
bool PrintVisitor::print_counters(const CountersBlock& block) {
  const ReaderOptions& options = run_.options;
  if (options.print_headers) {
    run_.sink.write(counters_header_dump(block.header));
    return true;
  }
  if (block.header.timestamp < options.timestamp_gt || block.header.timestamp > options.timestamp_lt)
    return true;
  const RecordForm form = run_.format.counters;
  if (form == RecordForm::none) {
    file_error(run_.format.no_counters);
    return true;
  }
  const CountersPrint& print = CountersPrint::of(block.schema, options);
  if (print.tables) {
    print.tables->write(block.block, run_.sink, run_.clock);
    return true;
  }
  if (print.plan && print.plan->write(block.block, before_record(), run_.sink, &run_.clock)) return true;
  file_error(failure_of(form));
  return false;
}

// Its faults are reported and do not fail the file, unless memory was short.
void PrintVisitor::on_metrics(const MetricsBlock& block) {
  if (!run_.metrics.output_metrics_block(*this, block.block)) metrics_lost_ = true;
  ++records_written_;
}

OutputSink& PrintVisitor::begin_record() {
  run_.sink.write(before_record());
  return run_.sink;
}

void PrintVisitor::end_record() {
  if (!run_.format.one_document) run_.sink.write("\n");
}

void PrintVisitor::on_fault(const Fault& fault) {
  switch (fault.kind) {
    case FaultKind::header_short:
    case FaultKind::header_invalid:
    case FaultKind::block_size_invalid:
    case FaultKind::types_failed:
      return file_error(fault.words.c_str());
    case FaultKind::open_failed:
    case FaultKind::no_memory:
    case FaultKind::no_block_header:
    case FaultKind::read_failed:
    case FaultKind::unknown_block:
    case FaultKind::unknown_type:
    case FaultKind::block_failed:
      QVX_LOG(QVX_LOG_ERROR, "%s", fault.words.c_str());
      return;
    // The library has said why.
    case FaultKind::page_damaged:
    case FaultKind::schemas_failed:
    // Passed over without a word.
    case FaultKind::schemas_block_invalid:
    case FaultKind::page_cut:
    case FaultKind::events_cut:
    // Raised by other visitors only.
    case FaultKind::record_cut:
    case FaultKind::metrics_damaged:
      return;
  }
}

void PrintVisitor::file_error(const char* message) {
  run_.sink.write_committed();
  const std::string text = format_text("Failed processing file %s: %s\n", path_, message);
  write_diagnostic(stderr, text.data(), text.size());
  std::fflush(stderr);
}

}  // namespace qvx
