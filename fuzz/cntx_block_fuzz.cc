// Any bytes as metrics blocks, through the output, the counting pass and, when that vouches for the sizes,
// the store. A record that is printed must be a document, in both spellings the same one.
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>

#include "qvx/metrics/metrics_output.h"
#include "qvx/metrics/metrics_parser.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"

namespace {

using namespace qvx::metrics;

void check(bool holds) {
  if (!holds) __builtin_trap();
}

class TextTarget : public MetricsRecordTarget {
 public:
  explicit TextTarget(Format format) : format_(format) {}

  Format format() const override { return format_; }
  qvx::OutputSink& begin_record() override { return sink_; }
  void end_record() override { ++records; }
  void file_error(const char*) override {}

  const std::string& text() {
    static_cast<void>(sink_.flush());
    return text_;
  }

  int records = 0;

 private:
  Format format_;
  std::string text_;
  qvx::OutputSink sink_{text_};
};

void print(qvx::Bytes block) {
  TextTarget compact(MetricsRecordTarget::Format::ndjson);
  TextTarget pretty(MetricsRecordTarget::Format::json);
  output_metrics_block(compact, block);
  output_metrics_block(pretty, block);
  check(compact.records == pretty.records);
  if (compact.records == 0) {
    check(compact.text().empty() && pretty.text().empty());
    return;
  }
  const auto document = qvx::json::parse(compact.text());
  check(document.has_value());
  check(qvx::json::to_text(*document, qvx::json::Style::compact) == compact.text());
  check(qvx::json::to_text(*document, qvx::json::Style::pretty) == pretty.text());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qvx_logger_set_level(0);
  const auto* const begin = reinterpret_cast<const std::byte*>(data);
  const std::byte* const end = begin + size;
  print({begin, size});
  std::unordered_set<std::string> names;
  if (QvxMetricsParser::count_metrics_from_cntx_blocks(begin, end, names)) {
    MetricsStore store(16);
    check(QvxMetricsParser::process_cntx_blocks(begin, end, nullptr, store) <= end);
    MetricFilter filter;
    filter.add_pattern("r", MetricFilter::kPrefix);
    filter.set_changes_only(true);
    QvxMetricsParser::process_cntx_blocks(begin, end, &filter, store);
  }
  return 0;
}
