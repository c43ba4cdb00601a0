// Sweeps over damaged files and failing calls, each for a given time. Prints a line "result", kind, cases,
// findings and seconds with tabs between them, and a line "finding" for the first findings of a kind.
//
//   trust_sweeps --seed=N --seconds=N [KIND...]     all kinds when none is named
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>
#include <vector>

#include "qvx/support/log.h"
#include "tests/trust/sweep.h"

namespace {

using namespace qvx::trust;

struct Kind {
  const char* name;
  void (*sweep)(Sweep& sweep, const GoldenFiles& files);
};

constexpr Kind kKinds[] = {
    {"forms", compare_forms},          {"bit-flips", flip_bits},
    {"cuts-and-growth", cut_and_grow}, {"noise", add_noise},
    {"allocations", fail_allocations}, {"input-faults", fail_input},
    {"output-faults", fail_output},    {"numbers", compare_numbers},
    {"inflate", compare_inflate},      {"soak", soak},
};

// Messages are made, as in a run, and go nowhere.
void drop_messages() {
  std::FILE* const nowhere = std::fopen("/dev/null", "w");
  if (nowhere == nullptr) return;
  stderr = nowhere;
  qvx_init_stderr_logger(QVX_LOG_INFO);
}

bool is_named(const char* kind, const std::vector<std::string_view>& names) {
  for (const std::string_view name : names)
    if (name == kind) return true;
  return names.empty();
}

}  // namespace

int main(int argc, char** argv) {
  std::uint32_t seed = 1;
  double seconds = 1;
  std::vector<std::string_view> names;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument.starts_with("--seed=")) {
      seed = static_cast<std::uint32_t>(std::strtoul(argv[i] + std::strlen("--seed="), nullptr, 10));
    } else if (argument.starts_with("--seconds=")) {
      seconds = std::strtod(argv[i] + std::strlen("--seconds="), nullptr);
    } else {
      names.push_back(argument);
    }
  }
  drop_messages();
  bool sound = true;
  try {
    const GoldenFiles files = golden_files(QVX_SOURCE_DIR);
    for (const Kind& kind : kKinds) {
      if (!is_named(kind.name, names)) continue;
      Sweep sweep(kind.name, seed, seconds);
      kind.sweep(sweep, files);
      sweep.report();
      std::fflush(stdout);
      sound = sound && sweep.findings == 0;
    }
  } catch (const std::exception& fault) {
    std::printf("finding\tprogram\t%s\n", fault.what());
    sound = false;
  }
  return sound ? EXIT_SUCCESS : EXIT_FAILURE;
}
