// Runs over two files while one call fails: an allocation, a call that reads, a call that writes. Whatever
// fails, what was written is a prefix of the right output or lacks one file's end only, the other file is
// read, and a loss is told.
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

#include "qvx/reader/options.h"
#include "qvx/reader/output_format.h"
#include "qvx/reader/process_files.h"
#include "qvx/support/output_sink.h"
#include "tests/support/file_in_memory.h"
#include "tests/support/temp_dir.h"
#include "tests/trust/failing_calls.h"
#include "tests/trust/sweep.h"

namespace qvx::trust {
namespace {

constexpr std::array kFormats = {OutputFormat::ndjson, OutputFormat::txt, OutputFormat::influx,
                                 OutputFormat::json, OutputFormat::csv};

struct RunResult {
  CallCounts calls;
  int failures = 0;
  int output_error = 0;
  bool ended_early = false;  // by an exception, as for want of memory before the first file
};

RunResult run(const ReaderOptions& options, const FailingCalls& failing) {
  RunResult result;
  begin_failing(failing);
  try {
    OutputSink sink(kCapturedDescriptor);
    result.failures = process_files(options, sink);
    static_cast<void>(sink.flush());
    result.output_error = sink.error();
  } catch (const std::exception&) {
    result.ended_early = true;
  }
  result.calls = end_failing();
  return result;
}

// A file in two copies, so that what one run prints of the first and of the second can be told apart by its
// length.
struct Subject {
  std::string name;
  ReaderOptions options;
  std::string whole;  // what an undisturbed run prints
  std::string once;   // what it prints of one file, where files stand alone
  int failures = 0;
};

std::string label(const Subject& subject, std::uint64_t number) {
  return subject.name + " " + output_format_row(subject.options.format).name + ", call " +
         std::to_string(number);
}

// One golden file in one format. Files that fail undisturbed stay in: they must fail the same way.
class Subjects {
 public:
  Subjects(Sweep& sweep, const GoldenFiles& files) : files_(files), first_(sweep.pick(count())) {
    for (const GoldenFile& file : files)
      folder_.write_file("golden/" + file.name, file.bytes);
  }

  std::size_t count() const { return files_.size() * kFormats.size(); }

  // The order depends on the seed.
  Subject get(std::size_t index) const {
    // A prime, so that a short box of time meets several files.
    constexpr std::size_t kStep = 37;
    const std::size_t number = (first_ + index * kStep) % count();
    const GoldenFile& file = files_[number / kFormats.size()];
    const std::string path = folder_.file("golden/" + file.name);
    Subject subject{
        file.name, test::reader_options(kFormats[number % kFormats.size()], file.schema_path), {}, {}, 0};
    if (!append(subject.options.input_files, path.c_str())) throw std::bad_alloc();
    subject.once = run(subject.options, {}).calls.captured;
    if (!append(subject.options.input_files, path.c_str())) throw std::bad_alloc();
    const RunResult undisturbed = run(subject.options, {});
    subject.whole = undisturbed.calls.captured;
    subject.failures = undisturbed.failures;
    return subject;
  }

 private:
  test::TempDir folder_;
  const GoldenFiles& files_;
  std::size_t first_;
};

bool stands_alone(const Subject& subject) {
  return !output_format_row(subject.options.format).one_document;
}

// One of the two files may be short; if so, it is told.
void check_one_lost(Sweep& sweep, const Subject& subject, const RunResult& result, std::uint64_t number) {
  ++sweep.cases;
  if (result.ended_early) {
    if (!result.calls.captured.empty()) sweep.finding(label(subject, number) + ": the run ends early");
    return;
  }
  const std::string& out = result.calls.captured;
  if (out != subject.whole && result.failures == 0 && result.output_error == 0)
    sweep.finding(label(subject, number) + ": a loss is not told");
  if (stands_alone(subject) && !out.starts_with(subject.once) && !out.ends_with(subject.once) &&
      result.output_error == 0) {
    sweep.finding(label(subject, number) + ": both files are short");
  }
}

}  // namespace

// Allocation 0, 1, 2, ... of each run, once and lasting, until a run needs no more.
void fail_allocations(Sweep& sweep, const GoldenFiles& files) {
  if (!can_fail_allocations) return;
  const Subjects subjects(sweep, files);
  for (std::size_t index = 0; index < subjects.count() && sweep.has_time(); ++index) {
    const Subject subject = subjects.get(index);
    for (std::uint64_t number = 0; sweep.has_time(); ++number) {
      FailingCalls failing;
      failing.allocation = number;
      const RunResult once = run(subject.options, failing);
      if (!once.calls.any_failed) break;
      check_one_lost(sweep, subject, once, number);
      failing.is_lasting = true;
      const RunResult lasting = run(subject.options, failing);
      ++sweep.cases;
      if (!lasting.ended_early && lasting.failures == 0 && lasting.output_error == 0 &&
          lasting.calls.captured != subject.whole) {
        sweep.finding(label(subject, number) + " and all later: a loss is not told");
      }
      if (run(subject.options, {}).calls.captured != subject.whole)
        sweep.finding(label(subject, number) + ": the next run prints otherwise");
    }
  }
}

// Each call that opens or reads, data files and schema files alike.
void fail_input(Sweep& sweep, const GoldenFiles& files) {
  using Input = FailingCalls::Input;
  const Subjects subjects(sweep, files);
  struct Kind {
    Input input;
    int error;
    bool changes_nothing;
  };
  constexpr Kind kKinds[] = {{Input::one_byte, 0, true},    {Input::fails, EINTR, true},
                             {Input::fails, EAGAIN, true},  {Input::fails, EIO, false},
                             {Input::fails, EMFILE, false}, {Input::fails, EACCES, false},
                             {Input::ends, 0, false}};
  for (std::size_t index = 0; index < subjects.count() && sweep.has_time(); ++index) {
    const Subject subject = subjects.get(index);
    FailingCalls every;
    every.input = Input::one_byte;
    ++sweep.cases;
    if (run(subject.options, every).calls.captured != subject.whole)
      sweep.finding(subject.name + ": reads of one byte change the output");
    const std::uint64_t calls = run(subject.options, {}).calls.inputs;
    for (std::uint64_t number = 0; number < calls && sweep.has_time(); ++number) {
      for (const Kind& kind : kKinds) {
        FailingCalls failing;
        failing.input = kind.input;
        failing.input_error = kind.error;
        failing.input_call = number;
        const RunResult result = run(subject.options, failing);
        if (kind.input == Input::ends) {
          // A file that ends early may end at a record; nothing else may change.
          ++sweep.cases;
          if (stands_alone(subject) && !result.calls.captured.ends_with(subject.once) &&
              !result.calls.captured.starts_with(subject.once))
            sweep.finding(label(subject, number) + ": both files are short when one ends early");
          continue;
        }
        check_one_lost(sweep, subject, result, number);
        if (kind.changes_nothing && result.calls.captured != subject.whole)
          sweep.finding(label(subject, number) + ": an interruption changes the output, error " +
                        std::to_string(kind.error));
      }
    }
  }
}

// Room for 0, 1, 2, ... bytes; writes of one byte; interruptions.
void fail_output(Sweep& sweep, const GoldenFiles& files) {
  const Subjects subjects(sweep, files);
  constexpr std::size_t kMostSteps = 400;  // of one subject
  for (std::size_t index = 0; index < subjects.count() && sweep.has_time(); ++index) {
    const Subject subject = subjects.get(index);
    for (const int interruption : {EINTR, EAGAIN}) {
      for (const std::size_t at_once : {std::size_t{1}, std::size_t{7}, std::size_t{4096}}) {
        FailingCalls failing;
        failing.most_at_once = at_once;
        failing.interrupted_one_in = 2;
        failing.interruption = interruption;
        const RunResult result = run(subject.options, failing);
        ++sweep.cases;
        if (result.calls.captured != subject.whole || result.failures != subject.failures ||
            result.output_error != 0)
          sweep.finding(label(subject, at_once) + ": short and interrupted writes change the output");
      }
    }
    const std::size_t step = 1 + subject.whole.size() / kMostSteps;
    for (std::size_t room = 0; room < subject.whole.size() && sweep.has_time(); room += step) {
      for (const int error : {ENOSPC, EPIPE, EIO}) {
        FailingCalls failing;
        failing.room = room;
        failing.full_error = error;
        const RunResult result = run(subject.options, failing);
        ++sweep.cases;
        if (result.calls.captured != subject.whole.substr(0, room))
          sweep.finding(label(subject, room) + ": not the first bytes of the output");
        if (result.output_error != error) sweep.finding(label(subject, room) + ": the fault is not kept");
      }
    }
  }
}

}  // namespace qvx::trust
