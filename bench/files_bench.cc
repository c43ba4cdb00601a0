// Whole-program benchmark: runs qvx_read over files made here and prints a table of values and bytes per CPU
// second.
//
//   qvx_files_bench <qvx_read> <folder of the yardsticks> <work folder> [MiB of data per file [payload...]]
//   qvx_files_bench --make <folder> <MiB>    makes the plain events file only
//
// CPU seconds are user and system time of the process, the best of several runs; output goes to /dev/null.
// The yardsticks run in turn with the reader and print the same bytes.

#include <fcntl.h>
#include <malloc.h>
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

using Command = std::vector<std::string>;

// The best of several runs of each; they take turns, so that what disturbs the machine disturbs all of them.
std::vector<Measured> best_runs(const std::vector<Command>& commands) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  std::vector<Measured> best(commands.size());
  for (int run = 0; run <= kRuns; ++run) {
    for (std::size_t at = 0; at < commands.size(); ++at) {
      const Measured measured = wait_for(start(commands[at], null), commands[at][0]);
      if (run == 1 || (run > 1 && measured.cpu_seconds < best[at].cpu_seconds)) best[at] = measured;
    }
  }
  close(null);
  return best;
}

struct Text {
  std::uint64_t size = 0;
  std::uint64_t hash = 14695981039346656037u;

  bool operator==(const Text&) const = default;
};

// What a program prints.
Text output_of(const Command& command) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
  const pid_t child = start(command, ends[1]);
  close(ends[1]);
  std::vector<char> buffer(1 << 20);
  Text text;
  for (ssize_t count = 0; (count = read(ends[0], buffer.data(), buffer.size())) > 0;) {
    text.size += static_cast<std::uint64_t>(count);
    for (ssize_t at = 0; at < count; ++at)
      text.hash =
          (text.hash ^ static_cast<unsigned char>(buffer[static_cast<std::size_t>(at)])) * 1099511628211u;
  }
  close(ends[0]);
  wait_for(child, command[0]);
  return text;
}

// Prints the row and gives the millions of values per second.
double print_row(const std::string& name, const DataFile& file, const Text& text, const Measured& measured) {
  const double rate = static_cast<double>(file.values) / measured.cpu_seconds / 1e6;
  std::printf("| %-26s | %8.1f | %8.0f | %8.0f | %8.1f |\n", name.c_str(), rate,
              static_cast<double>(file.bytes) / measured.cpu_seconds / 1e6,
              static_cast<double>(text.size) / measured.cpu_seconds / 1e6,
              static_cast<double>(measured.peak_kib) / 1024);
  std::fflush(stdout);
  return rate;
}

struct Yardstick {
  std::string name;
  Command command;
};

// The reader and what prints the same bytes, each with the reader's rate as a part of its own.
void print_rows(const std::string& name, const DataFile& file, const Command& reader,
                const std::vector<Yardstick>& yardsticks) {
  const Text text = output_of(reader);
  std::vector<Command> commands{reader};
  for (const Yardstick& yardstick : yardsticks) {
    if (output_of(yardstick.command) != text)
      throw std::runtime_error(yardstick.name + " prints something else");
    commands.push_back(yardstick.command);
  }
  const std::vector<Measured> measured = best_runs(commands);
  const double rate = print_row(name, file, text, measured[0]);
  for (std::size_t at = 0; at < yardsticks.size(); ++at) {
    const double other = print_row("  " + yardsticks[at].name, file, text, measured[at + 1]);
    std::printf("| %-26s | %8.2f |          |          |          |\n",
                ("  ndjson / " + yardsticks[at].name).c_str(), rate / other);
  }
}

std::vector<Yardstick> yardsticks_of(Payload payload, const std::string& programs, const std::string& folder,
                                     const std::string& path) {
  std::vector<Yardstick> yardsticks{
      {"perfect writer", {programs + "/qvx_perfect_writer", qvx::bench::payload_name(payload), path}}};
  if (payload == Payload::events) {
    yardsticks.push_back({"by hand", {programs + "/qvx_hand_decoder", path}});
    yardsticks.push_back({"document tree", {programs + "/qvx_tree_decoder", folder + "/schema", path}});
  }
  return yardsticks;
}

int run(const std::string& reader, const std::string& programs, const std::string& folder,
        std::uint64_t data_bytes, const std::vector<std::string>& payloads) {
  struct PagesName {
    Pages pages;
    const char* name;
  };
  std::printf("| %-26s | %8s | %8s | %8s | %8s |\n", "case", "Mvalue/s", "MB/s in", "MB/s out", "peak MiB");
  std::printf("|%s|%s|%s|%s|%s|\n", std::string(28, '-').c_str(), std::string(10, '-').c_str(),
              std::string(10, '-').c_str(), std::string(10, '-').c_str(), std::string(10, '-').c_str());
  for (const Payload payload : {Payload::events, Payload::counters, Payload::metrics}) {
    const std::string what = qvx::bench::payload_name(payload);
    if (!payloads.empty() && std::find(payloads.begin(), payloads.end(), what) == payloads.end()) continue;
    for (const auto& [pages, pages_name] : {PagesName{Pages::plain, "plain"}, PagesName{Pages::gzip, "gzip"},
                                            PagesName{Pages::snappy, "snappy"}}) {
      const DataFile file = qvx::bench::make_data_file(folder, payload, pages, data_bytes);
      // A child's peak counts from its fork on, with what this process has.
      malloc_trim(0);
      for (const char* const format : {"ndjson", "json", "influx", "txt"}) {
        // What a payload has no form for only prints messages.
        const std::string_view name = format;
        const bool has_form = name == "txt"      ? payload == Payload::counters
                              : name == "influx" ? payload == Payload::events
                                                 : true;
        if (!has_form) continue;
        const bool is_reference = pages == Pages::plain && name == "ndjson";
        print_rows(
            what + " " + format + " " + pages_name, file,
            {reader, "-s", folder + "/schema", "-f", format, file.path},
            is_reference ? yardsticks_of(payload, programs, folder, file.path) : std::vector<Yardstick>());
      }
      unlink(file.path.c_str());
    }
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s qvx_read yardsticks folder [MiB [payload...]]\n", argv[0]);
    return EXIT_FAILURE;
  }
  try {
    if (argc == 4 && std::string_view(argv[1]) == "--make") {
      qvx::bench::make_data_file(argv[2], Payload::events, Pages::plain,
                                 std::strtoull(argv[3], nullptr, 10) << 20);
      return EXIT_SUCCESS;
    }
    const std::uint64_t mebibytes = argc > 4 ? std::strtoull(argv[4], nullptr, 10) : 256;
    const std::vector<std::string> payloads(argv + std::min(argc, 5), argv + argc);
    return run(argv[1], argv[2], argv[3], mebibytes << 20, payloads);
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "%s\n", fault.what());
    return EXIT_FAILURE;
  }
}
