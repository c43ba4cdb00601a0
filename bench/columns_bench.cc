// Columns against NDJSON: values per CPU second over the files of the whole-program benchmark.
//
//   qvx_columns_bench <work folder> [MiB of data per file]
//
// CPU seconds are user and system time, the best of several runs; everything runs in this process. "Read"
// reads a file and no more, "walk" goes through it, inflating its pages, and looks at nothing. Threads are
// compared by the clock and, as others may use the machine, by what they take together.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bench_data.h"
#include "qvx/columns/table_stream.h"
#include "qvx/reader/process_files.h"
#include "qvx/scan/file_scan.h"
#include "qvx/support/output_sink.h"

namespace {

using qvx::bench::DataFile;
using qvx::bench::Pages;
using qvx::bench::Payload;
using qvx::columns::Query;

constexpr int kRuns = 7;

double cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double clock_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double best(double (*clock)(), const std::function<void()>& action) {
  double least = 1e9;
  for (int run = 0; run < kRuns; ++run) {
    const double start = clock();
    action();
    least = std::min(least, clock() - start);
  }
  return least;
}

void ndjson(const std::string& folder, const DataFile& file) {
  qvx::ReaderOptions options;
  bool ok = qvx::reader_options_set_defaults(options);
  options.format = qvx::OutputFormat::ndjson;
  options.schema_path = folder + "/schema";
  ok =
      ok && qvx::append(options.input_files, file.path.c_str()) && qvx::append(options.include_counters, "*");
  const int null = open("/dev/null", O_WRONLY);
  {
    qvx::OutputSink sink(null);
    ok = ok && qvx::process_files(options, sink) == 0;
  }
  close(null);
  if (!ok) throw std::runtime_error("NDJSON failed");
}

class NoVisitor final : public qvx::ScanVisitor {
 public:
  void on_fault(const qvx::Fault& fault) override { throw std::runtime_error(fault.words); }
};

void walk(const std::string& folder, const DataFile& file) {
  NoVisitor visitor;
  qvx::TypeCache types(folder + "/schema");
  qvx::FileScan scan(types);
  if (!scan.open(file.path.c_str(), visitor) || !scan.read_header(visitor) || !scan.load_types(visitor))
    return;
  while (scan.next(visitor)) {
  }
}

void read_only(const DataFile& file) {
  std::vector<char> buffer(64 * 1024);
  const int descriptor = open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
  while (read(descriptor, buffer.data(), buffer.size()) > 0) {
  }
  close(descriptor);
}

void read_table(const std::vector<std::string>& paths, const Query& query) {
  const auto data = std::make_shared<qvx::columns::Dataset>(paths);
  qvx::columns::TableStream stream(data, qvx::columns::resolve(*data, query));
  ArrowArray batch{};
  std::int64_t rows = 0;
  while (stream.next(&batch)) {
    rows += batch.length;
    batch.release(&batch);
  }
  if (rows == 0) throw std::runtime_error("no rows");
}

void print_row(const char* name, const DataFile& file, double seconds, double reference) {
  std::printf("| %-28s | %8.1f | %8.0f | %6.2f |\n", name, static_cast<double>(file.values) / seconds / 1e6,
              static_cast<double>(file.bytes) / seconds / 1e6, reference / seconds);
  std::fflush(stdout);
}

void compare(const std::string& folder, Payload payload, Pages pages, const char* pages_name,
             std::uint64_t bytes, const char* table, const char* column, std::size_t batch_rows) {
  const DataFile file = qvx::bench::make_data_file(folder, payload, pages, bytes);
  const std::string name = std::string(qvx::bench::payload_name(payload)) + " " + pages_name;
  const double text = best(cpu_seconds, [&] { ndjson(folder, file); });
  print_row((name + " ndjson").c_str(), file, text, text);
  print_row((name + " read").c_str(), file, best(cpu_seconds, [&] { read_only(file); }), text);
  const double walked = best(cpu_seconds, [&] { walk(folder, file); });
  print_row((name + " walk").c_str(), file, walked, text);
  const Query all{.table = table, .batch_rows = batch_rows};
  const double columns = best(cpu_seconds, [&] { read_table({file.path}, all); });
  print_row((name + " all columns").c_str(), file, columns, text);
  const Query one{.table = table, .columns = {column}, .batch_rows = 16384};
  print_row((name + " one column").c_str(), file, best(cpu_seconds, [&] { read_table({file.path}, one); }),
            text);
  std::printf("| %-28s | %8.2f | %8s | %6s |\n", "  all columns / walk, time", columns / walked, "", "");
  unlink(file.path.c_str());
}

void compare_threads(const std::string& folder, std::uint64_t bytes) {
  std::vector<std::string> paths;
  DataFile all;
  for (int i = 0; i < 4; ++i) {
    const DataFile file = qvx::bench::make_data_file(folder, Payload::events, Pages::gzip, bytes / 4);
    paths.push_back(file.path + "." + std::to_string(i));
    if (std::rename(file.path.c_str(), paths.back().c_str()) != 0) throw std::runtime_error("cannot rename");
    all.values += file.values;
    all.bytes += file.bytes;
  }
  double alone = 0;
  double alone_cpu = 0;
  for (const unsigned threads : {1u, 2u}) {
    const Query query{.table = "device_sample", .batch_rows = 16384, .threads = threads};
    const double seconds = best(clock_seconds, [&] { read_table(paths, query); });
    const double cpu = best(cpu_seconds, [&] { read_table(paths, query); });
    if (threads == 1) {
      alone = seconds;
      alone_cpu = cpu;
    }
    const std::string name = "gzip, threads: " + std::to_string(threads);
    print_row((name + ", clock").c_str(), all, seconds, alone);
    print_row((name + ", CPU").c_str(), all, cpu, alone_cpu);
  }
  for (const std::string& path : paths)
    unlink(path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s folder [MiB]\n", argv[0]);
    return EXIT_FAILURE;
  }
  try {
    const std::string folder = argv[1];
    const std::uint64_t bytes = (argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 256) << 20;
    std::printf("| %-28s | %8s | %8s | %6s |\n", "case", "Mvalue/s", "MB/s in", "times");
    std::printf("|%s|%s|%s|%s|\n", std::string(30, '-').c_str(), std::string(10, '-').c_str(),
                std::string(10, '-').c_str(), std::string(8, '-').c_str());
    compare(folder, Payload::events, Pages::plain, "plain", bytes, "device_sample", "bytes_received", 16384);
    compare(folder, Payload::events, Pages::gzip, "gzip", bytes, "device_sample", "bytes_received", 16384);
    // Batches of a size that the second-level cache has room for.
    compare(folder, Payload::counters, Pages::plain, "plain", bytes, "counters", "node.hw_counter_7", 512);
    compare(folder, Payload::metrics, Pages::plain, "plain", bytes, "metrics", "value", 16384);
    compare_threads(folder, bytes);
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "%s\n", fault.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
