// Samples this machine into data files until its time is up or a signal ends it.
//
//   host_sampler --interval 100 --seconds 3 --output /tmp/host
//   qvx_read -s /tmp/host/schema -f txt $(find /tmp/host -name 'counters_*.bin')
//
// The tag "counters" gets one block with all counters every interval, the tag "events" one for each event
// between them: the start and the end of the collector, an interface that changes its state, a load that
// crosses the mark.
#include <getopt.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "examples/host_probe.h"
#include "examples/host_recorder.h"
#include "qvx/support/log.h"

namespace qvx::examples {
namespace {

using SteadyClock = std::chrono::steady_clock;

struct Options {
  RecorderOptions recorder;
  std::chrono::seconds duration{0};  // 0: until a signal comes
  double load_mark = std::max(1u, std::thread::hardware_concurrency());
};

// Tells the recorder what changed since the last look.
class HostWatch {
 public:
  HostWatch(const HostProbe& probe, double load_mark)
      : probe_(probe), load_mark_(load_mark), interfaces_(probe.interface_states()) {}

  void look(const HostReading& reading, HostRecorder& recorder) {
    std::map<std::string, std::string> now = probe_.interface_states();
    for (const auto& [name, state] : interfaces_)
      if (!now.contains(name)) recorder.interface_changed(name, state, kAbsent);
    for (const auto& [name, state] : now) {
      const auto before = interfaces_.find(name);
      const std::string_view state_before = before != interfaces_.end() ? before->second : kAbsent;
      if (state != state_before) recorder.interface_changed(name, state_before, state);
    }
    interfaces_ = std::move(now);

    const bool is_above = reading.load[0] >= load_mark_;
    if (is_above != was_above_) recorder.load_crossed(is_above, load_mark_, reading.load);
    was_above_ = is_above;
  }

 private:
  static constexpr std::string_view kAbsent = "absent";

  const HostProbe& probe_;
  double load_mark_;
  bool was_above_ = false;
  std::map<std::string, std::string> interfaces_;
};

// The signals that end the collector. They are blocked, so that none can interrupt a write, and taken while
// it waits.
class StopSignals {
 public:
  StopSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
  }

  // True when one of them came before the time.
  bool wait_until(SteadyClock::time_point time) const {
    while (true) {
      const auto left = std::max(SteadyClock::duration::zero(), time - SteadyClock::now());
      const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
      const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds);
      const timespec timeout{static_cast<std::time_t>(seconds.count()), static_cast<long>(rest.count())};
      if (sigtimedwait(&signals_, nullptr, &timeout) > 0) return true;
      if (errno != EINTR) return false;
    }
  }

 private:
  sigset_t signals_{};
};

double busy_percent(const HostReading& before, const HostReading& now) {
  if (now.cpu_total <= before.cpu_total || now.cpu_busy < before.cpu_busy) return 0;
  return 100.0 * static_cast<double>(now.cpu_busy - before.cpu_busy) /
         static_cast<double>(now.cpu_total - before.cpu_total);
}

void collect(const Options& options) {
  const StopSignals signals;
  const std::chrono::milliseconds interval = options.recorder.interval;
  const HostProbe probe(options.recorder.root);
  HostRecorder recorder(options.recorder);
  recorder.started({std::thread::hardware_concurrency(), options.load_mark});

  HostWatch watch(probe, options.load_mark);
  HostReading before = probe.read();
  const SteadyClock::time_point start = SteadyClock::now();
  const SteadyClock::time_point end =
      options.duration.count() == 0 ? SteadyClock::time_point::max() : start + options.duration;
  SteadyClock::time_point next = start + interval;
  bool is_stopped = false;
  while (!(is_stopped = signals.wait_until(std::min(next, end))) && next <= end) {
    const HostReading now = probe.read();
    watch.look(now, recorder);
    recorder.sample(now, busy_percent(before, now));
    before = now;
    // After a pause the missed samples are left out.
    do {
      next += interval;
    } while (next <= SteadyClock::now());
  }
  recorder.stopped(is_stopped ? "signal" : "finished");
  std::printf("%llu samples and %llu events of %s below %s\n",
              static_cast<unsigned long long>(recorder.samples()),
              static_cast<unsigned long long>(recorder.events()), recorder.source().c_str(),
              options.recorder.folder.c_str());
}

template <typename Number>
bool parse_number(std::string_view text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

bool parse_encoding(std::string_view name, std::optional<qvx_encoding>& encoding) {
  if (name == "gzip")
    encoding = QVX_ENCODING_GZIP;
  else if (name == "snappy")
    encoding = QVX_ENCODING_SNAPPY;
  else
    return false;
  return true;
}

constexpr const char* kUsage =
    "Usage: host_sampler [options]\n"
    "  --interval ms     Time between two samples (1000).\n"
    "  --seconds n       How long to run; 0 runs until SIGINT or SIGTERM (0).\n"
    "  --output folder   Where the data files and their schema folder go (.).\n"
    "  --source id       What the data are of (QVX_SOURCE_ID, else the name of the host).\n"
    "  --tag text        Put before the tags counters and events, with an underscore; 6 characters at most.\n"
    "  --compress how    Compress the pages with gzip or snappy.\n"
    "  --root folder     Where the proc and sys of the machine lie (/).\n"
    "  --load-mark x     Record an event when the load crosses this (the number of processors).\n";

// False when the options are wrong.
bool parse_options(int argc, char** argv, Options& options) {
  constexpr std::uint32_t kMaxInterval = 24 * 60 * 60 * 1000;
  constexpr std::array<option, 9> kOptions{{{"interval", required_argument, nullptr, 'i'},
                                            {"seconds", required_argument, nullptr, 's'},
                                            {"output", required_argument, nullptr, 'o'},
                                            {"source", required_argument, nullptr, 'S'},
                                            {"tag", required_argument, nullptr, 't'},
                                            {"compress", required_argument, nullptr, 'c'},
                                            {"root", required_argument, nullptr, 'r'},
                                            {"load-mark", required_argument, nullptr, 'l'},
                                            {nullptr, 0, nullptr, 0}}};
  for (int letter; (letter = getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1;) {
    std::uint32_t number = 0;
    switch (letter) {
      case 'i':
        if (!parse_number(optarg, number) || number == 0 || number > kMaxInterval) return false;
        options.recorder.interval = std::chrono::milliseconds(number);
        break;
      case 's':
        if (!parse_number(optarg, number)) return false;
        options.duration = std::chrono::seconds(number);
        break;
      case 'o':
        options.recorder.folder = optarg;
        break;
      case 'S':
        options.recorder.source = optarg;
        break;
      case 't':
        options.recorder.tag = optarg;
        if (options.recorder.tag.size() > kMaxTagPrefix) return false;
        break;
      case 'c':
        if (!parse_encoding(optarg, options.recorder.encoding)) return false;
        break;
      case 'r':
        options.recorder.root = optarg;
        break;
      case 'l':
        if (!parse_number(optarg, options.load_mark) || !std::isfinite(options.load_mark)) return false;
        break;
      default:
        return false;
    }
  }
  return optind == argc;
}

}  // namespace
}  // namespace qvx::examples

int main(int argc, char** argv) {
  qvx::examples::Options options;
  if (!qvx::examples::parse_options(argc, argv, options)) {
    std::fputs(qvx::examples::kUsage, stderr);
    return 1;
  }
  // The writer warns of every page that it cannot look into, as the compressed ones, which is no news here.
  qvx_init_stderr_logger(QVX_LOG_ERROR);
  try {
    qvx::examples::collect(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "host_sampler: %s\n", error.what());
    return 1;
  }
  return 0;
}
