#include "qvx/reader/reader_context.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

// Keeps signals from being delivered for a scope.
class SignalHold {
 public:
  explicit SignalHold(const std::optional<sigset_t>& signals) : active_(signals.has_value()) {
    if (active_) pthread_sigmask(SIG_BLOCK, &*signals, &before_);
  }
  ~SignalHold() {
    if (active_) pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  SignalHold(const SignalHold&) = delete;
  SignalHold& operator=(const SignalHold&) = delete;

 private:
  bool active_;
  sigset_t before_{};
};

// The signals that have a handler which does not let a system call go on.
sigset_t interrupting_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0) continue;
    const bool handled = action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
    if (handled && (action.sa_flags & SA_RESTART) == 0) sigaddset(&signals, signal);
  }
  return signals;
}

bool is_regular_file(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// The gzip interface to a file; null with errno set.
gzFile open_gzip(const char* path, std::optional<sigset_t>& held_signals) {
  int descriptor = -1;
  do {
    descriptor = open(path, O_RDONLY | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) return nullptr;
  if (!is_regular_file(descriptor)) held_signals = interrupting_signals();
  gzFile const file = gzdopen(descriptor, "rb");
  if (file == nullptr) close(descriptor);
  return file;
}

}  // namespace

std::unique_ptr<ReaderContext> create_reader_context(Run& run, const char* path) {
  std::unique_ptr<ReaderContext> context(new (std::nothrow) ReaderContext(run, path));
  if (context == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate reader context %s", std::strerror(errno));
    return nullptr;
  }
  errno = 0;
  context->file.reset(open_gzip(path, context->held_signals));
  if (context->file == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to open data file %s: %s", path, std::strerror(errno));
    return nullptr;
  }
  if (run.options.format == OutputFormat::bin) {
    context->bin = BinOutput::create(run.options.output_dir);
    if (context->bin == nullptr) return nullptr;
  }
  return context;
}

int read_gzip(ReaderContext& context, void* to, unsigned size) {
  const SignalHold hold(context.held_signals);
  return gzread(context.file.get(), to, size);
}

bool read_file_header(const char* path, Run& run, qvx_data_file_header& header) {
  const std::unique_ptr<ReaderContext> context = create_reader_context(run, path);
  if (context == nullptr) return false;
  FileHeaderBytes bytes;
  if (read_gzip(*context, bytes.data(), kFileHeaderSize) != static_cast<int>(kFileHeaderSize)) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to read header from file: %s", path);
    return false;
  }
  header = file_header_decode(bytes);
  if (!validate_header(header)) {
    QVX_LOG(QVX_LOG_ERROR, "Invalid header in file: %s", path);
    return false;
  }
  return true;
}

void file_error(ReaderContext& context, const char* format, ...) {
  context.run.sink.flush();
  std::string text = format_text("Failed processing file %s: ", context.path);
  va_list args;
  va_start(args, format);
  append_vformat(text, format, args);
  va_end(args);
  text += '\n';
  write_diagnostic(stderr, text.data(), text.size());
  std::fflush(stderr);
}

}  // namespace qvx
