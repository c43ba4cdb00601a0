// Whole-program benchmark: runs qvx_read over files made here and prints a table of values and bytes per CPU
// second.
//
//   qvx_files_bench <qvx_read> <hand decoder> <tree decoder> <work folder> [MiB of data per file
//   [payload...]]
//
// CPU seconds are user and system time of the process, the best of several runs; output goes to /dev/null.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/bench_data.h"

namespace {

using qvx::bench::DataFile;
using qvx::bench::Pages;
using qvx::bench::Payload;

constexpr int kRuns = 5;

struct Measured {
  double cpu_seconds = 0;
  long peak_kib = 0;
};

// Starts a program with its standard output on `output`; gives its process.
pid_t start(const std::vector<std::string>& command, int output) {
  std::vector<char*> arguments;
  for (const std::string& word : command)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(output, STDOUT_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  return child;
}

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

Measured wait_for(pid_t child, const std::string& name) {
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  if (status != 0) throw std::runtime_error(name + " failed");
  return {seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss};
}

Measured best_run(const std::vector<std::string>& command) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  Measured best;
  for (int run = 0; run <= kRuns; ++run) {
    const Measured measured = wait_for(start(command, null), command[0]);
    if (run == 1 || (run > 1 && measured.cpu_seconds < best.cpu_seconds)) best = measured;
  }
  close(null);
  return best;
}

std::uint64_t output_size(const std::vector<std::string>& command) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
  const pid_t child = start(command, ends[1]);
  close(ends[1]);
  std::vector<char> buffer(1 << 20);
  std::uint64_t size = 0;
  for (ssize_t count = 0; (count = read(ends[0], buffer.data(), buffer.size())) > 0;)
    size += static_cast<std::uint64_t>(count);
  close(ends[0]);
  wait_for(child, command[0]);
  return size;
}

void print_row(const std::string& name, const DataFile& file, const std::vector<std::string>& command,
               double* values_per_second = nullptr) {
  const std::uint64_t written = output_size(command);
  const Measured measured = best_run(command);
  const double rate = static_cast<double>(file.values) / measured.cpu_seconds / 1e6;
  std::printf("| %-26s | %8.1f | %8.0f | %8.0f | %8.1f |\n", name.c_str(), rate,
              static_cast<double>(file.bytes) / measured.cpu_seconds / 1e6,
              static_cast<double>(written) / measured.cpu_seconds / 1e6,
              static_cast<double>(measured.peak_kib) / 1024);
  std::fflush(stdout);
  if (values_per_second != nullptr) *values_per_second = rate;
}

int run(const std::string& reader, const std::string& hand, const std::string& tree,
        const std::string& folder, std::uint64_t data_bytes, const std::vector<std::string>& payloads) {
  struct PagesName {
    Pages pages;
    const char* name;
  };
  std::printf("| %-26s | %8s | %8s | %8s | %8s |\n", "case", "Mvalue/s", "MB/s in", "MB/s out", "peak MiB");
  std::printf("|%s|%s|%s|%s|%s|\n", std::string(28, '-').c_str(), std::string(10, '-').c_str(),
              std::string(10, '-').c_str(), std::string(10, '-').c_str(), std::string(10, '-').c_str());
  double ndjson = 0;
  for (const Payload payload : {Payload::events, Payload::counters, Payload::metrics}) {
    const std::string what = qvx::bench::payload_name(payload);
    if (!payloads.empty() && std::find(payloads.begin(), payloads.end(), what) == payloads.end()) continue;
    for (const auto& [pages, pages_name] : {PagesName{Pages::plain, "plain"}, PagesName{Pages::gzip, "gzip"},
                                            PagesName{Pages::snappy, "snappy"}}) {
      const DataFile file = qvx::bench::make_data_file(folder, payload, pages, data_bytes);
      for (const char* const format : {"ndjson", "json", "influx", "txt"}) {
        // What a payload has no form for only prints messages.
        const std::string_view name = format;
        const bool has_form = name == "txt"      ? payload == Payload::counters
                              : name == "influx" ? payload == Payload::events
                                                 : true;
        if (!has_form) continue;
        const bool is_reference = payload == Payload::events && pages == Pages::plain && name == "ndjson";
        print_row(what + " " + format + " " + pages_name, file,
                  {reader, "-s", folder + "/schema", "-f", format, file.path},
                  is_reference ? &ndjson : nullptr);
      }
      if (payload == Payload::events && pages == Pages::plain) {
        double by_hand = 0;
        double by_tree = 0;
        print_row("  by hand, to_chars", file, {hand, file.path}, &by_hand);
        print_row("  document tree", file, {tree, folder + "/schema", file.path}, &by_tree);
        std::printf("| %-26s | %8.2f | %35s\n", "  ndjson / by hand", ndjson / by_hand,
                    "|          |          |");
        std::printf("| %-26s | %8.2f | %35s\n", "  ndjson / tree", ndjson / by_tree,
                    "|          |          |");
      }
      unlink(file.path.c_str());
    }
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s qvx_read hand_decoder tree_decoder folder [MiB [payload...]]\n", argv[0]);
    return EXIT_FAILURE;
  }
  try {
    const std::uint64_t mebibytes = argc > 5 ? std::strtoull(argv[5], nullptr, 10) : 256;
    const std::vector<std::string> payloads(argv + std::min(argc, 6), argv + argc);
    return run(argv[1], argv[2], argv[3], argv[4], mebibytes << 20, payloads);
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "%s\n", fault.what());
    return EXIT_FAILURE;
  }
}
