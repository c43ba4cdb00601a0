// The stages behind number text: record plan, counters plan, page inflate, and a whole file through the
// reader's loop.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <snappy.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bench/bench_data.h"
#include "qvx/counters/counters_block.h"
#include "qvx/counters/counters_tables.h"
#include "qvx/data/encoded_payload.h"
#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/metrics/metrics_output.h"
#include "qvx/metrics/metrics_parser.h"
#include "qvx/metrics/metrics_store.h"
#include "qvx/reader/process_files.h"
#include "qvx/scan/data_file_reader.h"
#include "qvx/scan/file_scan.h"

namespace {

using qvx::Bytes;
using qvx::OutputSink;
using qvx::RecordPlan;
using qvx::json::Style;

constexpr std::size_t kRecords = 4096;

void report(benchmark::State& state, std::size_t values, std::size_t bytes) {
  const auto rounds = static_cast<double>(state.iterations());
  state.counters["values"] =
      benchmark::Counter(rounds * static_cast<double>(values), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(static_cast<std::int64_t>(rounds * static_cast<double>(bytes)));
}

// Writes all records over and over into a sink that drops them.
void run_plan(benchmark::State& state, const RecordPlan& plan) {
  const std::vector<std::byte> records = qvx::bench::make_event_records(kRecords);
  const int null = open("/dev/null", O_WRONLY);
  OutputSink sink(null);
  for (auto _ : state) {
    Bytes left(records);
    while (!left.empty()) {
      benchmark::DoNotOptimize(plan.write(left, "", sink));
      left = left.subspan(qvx::bench::kEventSize);
    }
  }
  report(state, kRecords * qvx::bench::kEventFields, records.size());
  close(null);
}

void record_plan_ndjson(benchmark::State& state) {
  const auto ts = qvx::bench::make_type_system();
  run_plan(state, *qvx::compile_json_plan(*ts->schemas[0]->types[0], Style::compact, "\n"));
}
BENCHMARK(record_plan_ndjson)->Name("record plan/ndjson");

void record_plan_json(benchmark::State& state) {
  const auto ts = qvx::bench::make_type_system();
  run_plan(state, *qvx::compile_json_plan(*ts->schemas[0]->types[0], Style::pretty, ""));
}
BENCHMARK(record_plan_json)->Name("record plan/json");

void record_plan_influx(benchmark::State& state) {
  const auto ts = qvx::bench::make_type_system();
  run_plan(state, *qvx::compile_influx_plan(*ts->schemas[0]->types[0]));
}
BENCHMARK(record_plan_influx)->Name("record plan/influx");

void counters_plan_ndjson(benchmark::State& state) {
  const auto ts = qvx::bench::make_type_system();
  const auto plan = qvx::compile_counters_plan(*ts->counters_schema, Style::compact, "\n");
  const std::vector<std::byte> block = qvx::bench::make_counters_block(1);
  const int null = open("/dev/null", O_WRONLY);
  OutputSink sink(null);
  qvx::LocalTimeText clock;
  for (auto _ : state)
    benchmark::DoNotOptimize(plan->write(block, "", sink, &clock));
  report(state, qvx::bench::kCounters, block.size());
  close(null);
}
BENCHMARK(counters_plan_ndjson)->Name("counters plan/ndjson");

void counters_tables(benchmark::State& state) {
  const auto ts = qvx::bench::make_type_system();
  const qvx::CountersTables tables(*ts->counters_schema);
  const std::vector<std::byte> block = qvx::bench::make_counters_block(1);
  const int null = open("/dev/null", O_WRONLY);
  OutputSink sink(null);
  qvx::LocalTimeText clock;
  for (auto _ : state)
    tables.write(block, sink, clock);
  report(state, qvx::bench::kCounters, block.size());
  close(null);
}
BENCHMARK(counters_tables)->Name("counters tables/txt");

class NullTarget final : public qvx::metrics::MetricsRecordTarget {
 public:
  explicit NullTarget(OutputSink& sink) : sink_(sink) {}
  Format format() const override { return Format::ndjson; }
  OutputSink& begin_record() override { return sink_; }
  void end_record() override { sink_.write("\n"); }
  void file_error(const char*) override {}

 private:
  OutputSink& sink_;
};

// One block after the other, each with samples of its own, as a file has them.
void metrics_ndjson(benchmark::State& state, qvx::bench::MetricsChange change) {
  constexpr std::size_t kBlocks = 64;
  std::vector<std::vector<std::byte>> blocks;
  for (std::size_t seed = 0; seed < kBlocks; ++seed)
    blocks.push_back(qvx::bench::make_metrics_block(seed, change));
  const int null = open("/dev/null", O_WRONLY);
  OutputSink sink(null);
  NullTarget target(sink);
  qvx::metrics::MetricsWriter writer;
  std::size_t at = 0;
  for (auto _ : state) {
    writer.output_metrics_block(target, blocks[at]);
    at = (at + 1) % kBlocks;
  }
  report(state, qvx::bench::kSamples, blocks[0].size());
  close(null);
}
BENCHMARK_CAPTURE(metrics_ndjson, same, qvx::bench::MetricsChange::nothing)
    ->Name("metrics output/ndjson, same tables");
BENCHMARK_CAPTURE(metrics_ndjson, record_labels, qvx::bench::MetricsChange::record_labels)
    ->Name("metrics output/ndjson, other labels of the record");
BENCHMARK_CAPTURE(metrics_ndjson, label_values, qvx::bench::MetricsChange::label_values)
    ->Name("metrics output/ndjson, other label values");
BENCHMARK_CAPTURE(metrics_ndjson, metric_names, qvx::bench::MetricsChange::metric_names)
    ->Name("metrics output/ndjson, other metric names");
BENCHMARK_CAPTURE(metrics_ndjson, constant_labels, qvx::bench::MetricsChange::constant_labels)
    ->Name("metrics output/ndjson, other constant labels");

// The series exist: the first block, outside the loop, makes them.
void metrics_store(benchmark::State& state) {
  const std::vector<std::byte> block = qvx::bench::make_metrics_block(1);
  qvx::metrics::MetricsStore store;
  const auto fill = [&] {
    return qvx::metrics::QvxMetricsParser::process_cntx_blocks(block.data(), block.data() + block.size(),
                                                               nullptr, store);
  };
  fill();
  for (auto _ : state)
    benchmark::DoNotOptimize(fill());
  report(state, qvx::bench::kSamples, block.size());
}
BENCHMARK(metrics_store)->Name("metrics store/fill");

void page_inflate(benchmark::State& state, std::uint8_t encoding) {
  const std::vector<std::byte> page =
      qvx::bench::make_event_records(static_cast<std::size_t>(state.range(0)) / qvx::bench::kEventSize);
  const std::vector<std::byte> encoded =
      encoding == QVX_ENCODING_GZIP ? qvx::bench::compress_gzip(page) : qvx::bench::compress_snappy(page);
  std::vector<std::byte> to(page.size());
  for (auto _ : state)
    benchmark::DoNotOptimize(qvx::encoded_decompress(encoding, encoded, to));
  report(state, page.size() / qvx::bench::kEventSize * qvx::bench::kEventFields, page.size());
}
BENCHMARK_CAPTURE(page_inflate, gzip, std::uint8_t{QVX_ENCODING_GZIP})
    ->Name("page inflate/gzip")
    ->Arg(64 << 10)
    ->Arg(1 << 20);
BENCHMARK_CAPTURE(page_inflate, snappy, std::uint8_t{QVX_ENCODING_SNAPPY})
    ->Name("page inflate/snappy")
    ->Arg(64 << 10)
    ->Arg(1 << 20);

// A data file of 16 MiB in a folder of its own.
class BenchFile {
 public:
  explicit BenchFile(qvx::bench::Payload payload) {
    if (mkdtemp(folder_) != nullptr)
      file_ = qvx::bench::make_data_file(folder_, payload, qvx::bench::Pages::plain, 16 << 20);
  }
  ~BenchFile() {
    [[maybe_unused]] const int removed = std::system(("rm -r " + std::string(folder_)).c_str());
  }
  BenchFile(const BenchFile&) = delete;
  BenchFile& operator=(const BenchFile&) = delete;

  const qvx::bench::DataFile& file() const { return file_; }
  std::string schema_folder() const { return std::string(folder_) + "/schema"; }

 private:
  char folder_[32] = "/tmp/qvx_bench_XXXXXX";
  qvx::bench::DataFile file_;
};

void whole_file(benchmark::State& state, qvx::bench::Payload payload) {
  const BenchFile data(payload);
  qvx::ReaderOptions options;
  qvx::reader_options_set_defaults(options);
  options.format = qvx::OutputFormat::ndjson;
  options.schema_path = data.schema_folder();
  qvx::append(options.input_files, data.file().path.c_str());
  qvx::append(options.include_counters, "*");
  const int null = open("/dev/null", O_WRONLY);
  for (auto _ : state) {
    OutputSink sink(null);
    benchmark::DoNotOptimize(qvx::process_files(options, sink));
  }
  report(state, data.file().values, data.file().bytes);
  close(null);
}
BENCHMARK_CAPTURE(whole_file, events, qvx::bench::Payload::events)->Name("whole file/events ndjson");
BENCHMARK_CAPTURE(whole_file, metrics, qvx::bench::Payload::metrics)->Name("whole file/metrics ndjson");
BENCHMARK_CAPTURE(whole_file, counters, qvx::bench::Payload::counters)->Name("whole file/counters ndjson");

// Reads every value of a file; sums them up so that each one is needed.
template <typename ReadFile>
void typed_file(benchmark::State& state, qvx::bench::Payload payload, ReadFile read_file) {
  const BenchFile data(payload);
  qvx::DataFileReader reader(data.schema_folder());
  for (auto _ : state) {
    if (!reader.open(data.file().path)) return state.SkipWithError(reader.error().c_str());
    benchmark::DoNotOptimize(read_file(reader));
  }
  report(state, data.file().values, data.file().bytes);
}

// Record by record.
template <typename ReadRecord>
void typed_records(benchmark::State& state, qvx::bench::Payload payload, ReadRecord read_record) {
  typed_file(state, payload, [&](qvx::DataFileReader& reader) {
    double sum = 0;
    for (const qvx::Record& record : reader.records())
      sum += read_record(record);
    return sum;
  });
}

// The fields of the event type.
struct EventFields {
  qvx::FieldHandle time{"timestamp"}, node{"node"}, cpu{"cpu"}, device{"device"}, job{"job_id"},
      bytes{"bytes_received"}, packets{"packets_received"}, errors{"errors"}, status{"state"},
      load{"load_average"}, temperature{"temperature"}, use{"utilisation"};
};

void typed_events(benchmark::State& state) {
  EventFields of;
  typed_records(state, qvx::bench::Payload::events, [&](const qvx::Record& record) {
    const std::uint64_t whole =
        record.get<std::uint64_t>(of.time).value_or(0) + record.get<std::uint32_t>(of.node).value_or(0) +
        record.get<std::uint16_t>(of.cpu).value_or(0) + record.get<std::uint64_t>(of.job).value_or(0) +
        record.get<std::uint64_t>(of.bytes).value_or(0) + record.get<std::uint32_t>(of.packets).value_or(0) +
        record.get<std::uint16_t>(of.errors).value_or(0) + record.get<std::uint8_t>(of.status).value_or(0) +
        record.get<std::string_view>(of.device).value_or("").size();
    return static_cast<double>(whole) + record.get<double>(of.load).value_or(0) +
           record.get<double>(of.temperature).value_or(0) + record.get<double>(of.use).value_or(0);
  });
}
BENCHMARK(typed_events)->Name("typed records/events");

void typed_counters(benchmark::State& state) {
  typed_records(state, qvx::bench::Payload::counters, [](const qvx::Record& record) {
    std::uint64_t sum = record.time();
    for (const qvx::Field& counter : record.type().fields())
      sum += record.get<std::uint64_t>(counter).value_or(0);
    return static_cast<double>(sum);
  });
}
BENCHMARK(typed_counters)->Name("typed records/counters");

void typed_metrics(benchmark::State& state) {
  qvx::FieldHandle value("value");
  typed_records(state, qvx::bench::Payload::metrics, [&](const qvx::Record& record) {
    return static_cast<double>(record.get<std::uint64_t>(value).value_or(0) + record.metric().size() +
                               record.labels().size());
  });
}
BENCHMARK(typed_metrics)->Name("typed records/metrics");

template <typename Sum, typename T>
Sum sum_of(const qvx::ArrayView<T>& values) {
  Sum sum = 0;
  // Where they lie as an array does, the compiler adds several at once.
  if (const std::optional<std::span<const T>> array = values.span()) {
    for (const T value : *array)
      sum += value;
    return sum;
  }
  for (const T value : values)
    sum += value;
  return sum;
}

void typed_event_runs(benchmark::State& state) {
  EventFields of;
  typed_file(state, qvx::bench::Payload::events, [&](qvx::DataFileReader& reader) {
    std::uint64_t whole = 0;
    double sum = 0;
    const auto add = [&]<typename T>(const qvx::RecordRun& run, qvx::FieldHandle& field, T) {
      whole += sum_of<std::uint64_t>(run.column<T>(field));
    };
    for (const qvx::RecordRun& run : reader.runs()) {
      for (qvx::FieldHandle* const field : {&of.time, &of.job, &of.bytes})
        add(run, *field, std::uint64_t{});
      for (qvx::FieldHandle* const field : {&of.node, &of.packets})
        add(run, *field, std::uint32_t{});
      for (qvx::FieldHandle* const field : {&of.cpu, &of.errors})
        add(run, *field, std::uint16_t{});
      add(run, of.status, std::uint8_t{});
      for (const std::string_view text : run.column<std::string_view>(of.device))
        whole += text.size();
      for (qvx::FieldHandle* const field : {&of.load, &of.temperature, &of.use})
        sum += sum_of<double>(run.column<double>(*field));
    }
    return sum + static_cast<double>(whole);
  });
}
BENCHMARK(typed_event_runs)->Name("typed runs/events");

void typed_counters_runs(benchmark::State& state) {
  typed_file(state, qvx::bench::Payload::counters, [](qvx::DataFileReader& reader) {
    std::uint64_t sum = 0;
    for (const qvx::RecordRun& run : reader.runs()) {
      sum += run.time();
      const qvx::Record record = run[0];
      for (const qvx::FieldRange& counters : run.type().ranges())
        sum += sum_of<std::uint64_t>(record.array<std::uint64_t>(counters));
    }
    return sum;
  });
}
BENCHMARK(typed_counters_runs)->Name("typed runs/counters");

void typed_sample_runs(benchmark::State& state) {
  qvx::FieldHandle value("value");
  typed_file(state, qvx::bench::Payload::metrics, [&](qvx::DataFileReader& reader) {
    std::uint64_t sum = 0;
    for (const qvx::RecordRun& run : reader.runs()) {
      sum += sum_of<std::uint64_t>(run.column<std::uint64_t>(value)) + run.labels().size();
      const std::span<const std::string_view> names = run.metric_names();
      for (const std::uint16_t metric : run.metric_ids())
        sum += metric < names.size() ? names[metric].size() : 0;
    }
    return sum;
  });
}
BENCHMARK(typed_sample_runs)->Name("typed runs/metrics");

// What there is to go through: reads the files and looks at nothing.
void walk_file(benchmark::State& state, qvx::bench::Payload payload) {
  class NoVisitor final : public qvx::ScanVisitor {
    void on_fault(const qvx::Fault&) override {}
  };
  const BenchFile data(payload);
  qvx::TypeCache types(data.schema_folder());
  for (auto _ : state) {
    NoVisitor visitor;
    qvx::FileScan scan(types);
    if (!scan.open(data.file().path.c_str(), visitor) || !scan.read_header(visitor) ||
        !scan.load_types(visitor))
      return state.SkipWithError("the file cannot be opened");
    while (scan.next(visitor)) {
    }
  }
  report(state, data.file().values, data.file().bytes);
}
BENCHMARK_CAPTURE(walk_file, events, qvx::bench::Payload::events)->Name("walk only/events");
BENCHMARK_CAPTURE(walk_file, counters, qvx::bench::Payload::counters)->Name("walk only/counters");
BENCHMARK_CAPTURE(walk_file, metrics, qvx::bench::Payload::metrics)->Name("walk only/metrics");

}  // namespace
