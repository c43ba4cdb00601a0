// The output formats: a row for each, and nothing that depends on a format stands anywhere else.
#pragma once

#include <array>
#include <cstdint>

#include "qvx/metrics/metrics_output.h"

namespace qvx {

enum class OutputFormat : std::int32_t { json = 0, ndjson = 1, txt = 2, csv = 3, influx = 4, bin = 5 };

// How a record of one kind becomes text.
enum class RecordForm : std::uint8_t { none, json_pretty, json_compact, influx_fields, tables };

struct OutputFormatRow {
  OutputFormat format;
  const char* name;
  // One JSON object around all files, with an array for each; else records stand alone.
  bool one_document;
  RecordForm events;
  RecordForm counters;
  metrics::MetricsRecordTarget::Format metrics;  // which knows its own refusals
  // The file errors of records that have no form, and whether the file then fails.
  const char* no_events = nullptr;
  bool no_events_fails = false;
  const char* no_counters = nullptr;
};

inline constexpr const char* kNoCsv = "CSV output is not supported yet";

using MetricsForm = metrics::MetricsRecordTarget::Format;

inline constexpr std::array<OutputFormatRow, 6> kOutputFormats{{
    {
        .format = OutputFormat::json,
        .name = "json",
        .one_document = true,
        .events = RecordForm::json_pretty,
        .counters = RecordForm::json_pretty,
        .metrics = MetricsForm::json,
    },
    {
        .format = OutputFormat::ndjson,
        .name = "ndjson",
        .one_document = false,
        .events = RecordForm::json_compact,
        .counters = RecordForm::json_compact,
        .metrics = MetricsForm::ndjson,
    },
    {
        .format = OutputFormat::txt,
        .name = "txt",
        .one_document = false,
        .events = RecordForm::none,
        .counters = RecordForm::tables,
        .metrics = MetricsForm::other,
        .no_events = "Text output is not yet supported for counters data",
    },
    {
        .format = OutputFormat::csv,
        .name = "csv",
        .one_document = false,
        .events = RecordForm::none,
        .counters = RecordForm::none,
        .metrics = MetricsForm::csv,
        .no_events = kNoCsv,
        .no_counters = kNoCsv,
    },
    {
        .format = OutputFormat::influx,
        .name = "influx",
        .one_document = false,
        .events = RecordForm::influx_fields,
        .counters = RecordForm::none,
        .metrics = MetricsForm::influx,
        .no_counters = "Influx line API output is not yet supported for counters data",
    },
    // Compressed pages are written again; this is for what stands outside of them.
    {
        .format = OutputFormat::bin,
        .name = "bin",
        .one_document = false,
        .events = RecordForm::none,
        .counters = RecordForm::tables,
        .metrics = MetricsForm::other,
        .no_events = "Unknown output format 5",
        .no_events_fails = true,
    },
}};

// Rows stand at the place of their value, and whatever has no form has a message.
consteval bool is_complete(const std::array<OutputFormatRow, kOutputFormats.size()>& rows) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (static_cast<std::size_t>(rows[i].format) != i) return false;
    if ((rows[i].events == RecordForm::none) != (rows[i].no_events != nullptr)) return false;
    if ((rows[i].counters == RecordForm::none) != (rows[i].no_counters != nullptr)) return false;
    if (rows[i].events == RecordForm::tables || rows[i].counters == RecordForm::influx_fields) return false;
  }
  return true;
}
static_assert(is_complete(kOutputFormats));

constexpr const OutputFormatRow& output_format_row(OutputFormat format) {
  return kOutputFormats[static_cast<std::size_t>(format)];
}

// -1 for a name that is no format; null for a value that is none.
std::int32_t output_format_from_name(const char* name) noexcept;
const char* output_format_name(std::int32_t value) noexcept;

}  // namespace qvx
