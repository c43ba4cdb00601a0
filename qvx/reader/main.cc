// qvx_read: prints Quorvex data files as JSON, NDJSON, text tables or Influx lines, or re-writes their pages.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "qvx/reader/options.h"
#include "qvx/reader/process_files.h"
#include "qvx/reader/progress.h"
#include "qvx/support/env.h"
#include "qvx/support/log.h"
#include "qvx/support/output_sink.h"

namespace {

using qvx::OutputSink;
using qvx::ParseResult;
using qvx::ReaderOptions;

// Occupies standard descriptors that were closed at start, so that no data file takes their place. Writing to
// standard output then fails, as it should.
void occupy_standard_descriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) continue;
    const int mode = descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY;
    [[maybe_unused]] const int taken = open("/dev/null", mode);
  }
}

// Makes a file size limit an error of the write that meets it, like a full disk, instead of ending the
// program.
void ignore_file_size_signal() {
  std::signal(SIGXFSZ, SIG_IGN);
}

// Whether a broken pipe is to end the program, as it does unless whoever started it said otherwise.
bool broken_pipe_ends = false;

// A standard error that nobody reads any more must not end the program, so the signal is taken out of the way
// of every write and brought back for those to standard output.
void ignore_broken_pipes() {
  broken_pipe_ends = std::signal(SIGPIPE, SIG_IGN) == SIG_DFL;
}

void end_quietly_without_reader(int error) {
  if (error != EPIPE || !broken_pipe_ends) return;
  std::signal(SIGPIPE, SIG_DFL);
  std::raise(SIGPIPE);
}

// Buffered standard output.
class StandardOutput : public OutputSink {
 public:
  StandardOutput() : OutputSink(STDOUT_FILENO) { set_fault_handler(end_quietly_without_reader); }
};

void write_committed(void* sink) noexcept {
  static_cast<OutputSink*>(sink)->write_committed();
}

void set_locale() {
  constexpr const char* kLocale = "C";
  if (qvx::is_true_switch(qvx_getenv("QVX_DONT_SET_LOCALE"))) return;
  if (std::setlocale(LC_ALL, kLocale) == nullptr)
    QVX_LOG(QVX_LOG_ERROR, "Unable to set locale '%s'", kLocale);
}

// Writes everything out; false, with a line on standard error, when standard output did not take it. A reader
// that went away needs no telling.
bool finish_output(OutputSink& sink) {
  if (sink.flush()) return true;
  if (sink.error() != EPIPE)
    std::fprintf(stderr, "Failed writing to standard output: %s\n", std::strerror(sink.error()));
  return false;
}

bool print(const std::string& text) {
  StandardOutput sink;
  sink.write(text);
  return finish_output(sink);
}

bool print_usage() {
  const std::optional<std::string> text = qvx::usage_text();
  return !text || print(*text);
}

int read_files(const ReaderOptions& options) {
  qvx_init_stderr_logger(options.verbosity);
  if (options.input_files->count == 0) std::fputs("No input files specified\n", stderr);
  qvx_string_array_print(QVX_LOG_DEBUG, options.input_files.get(), "data file");
  StandardOutput sink;
  const qvx::BeforeErrorLines in_order(write_committed, &sink);
  const int failures = qvx::process_files(options, sink);
  const bool written = finish_output(sink);
  if (failures > 0)
    std::fprintf(stderr, "Failed to read %d of %zu files\n", failures,
                 static_cast<std::size_t>(options.input_files->count));
  return failures == 0 && written ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  occupy_standard_descriptors();
  ignore_file_size_signal();
  qvx::print_progress_on_signal();
  ignore_broken_pipes();
  set_locale();
  try {
    ReaderOptions options;
    switch (qvx::reader_options_parse(options, argc, argv)) {
      case ParseResult::ok:
        return read_files(options);
      case ParseResult::show_usage:
        return print_usage() ? EXIT_SUCCESS : EXIT_FAILURE;
      case ParseResult::show_version:
        return print(qvx::version_output()) ? EXIT_SUCCESS : EXIT_FAILURE;
      case ParseResult::failed:
        print_usage();
        return EXIT_FAILURE;
    }
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "qvx_read: %s\n", fault.what());
  }
  return EXIT_FAILURE;
}
