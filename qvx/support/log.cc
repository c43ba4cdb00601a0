#include "qvx/support/log.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "qvx/support/env.h"
#include "qvx/support/log_recording.h"

namespace {

constexpr std::uint32_t kNotInitialised = 0xFFFFFFFF;

enum Sink : std::uint32_t { kSinkStderr = 0, kSinkSyslog = 1, kSinkFile = 2, kSinkCallback = 3 };

constexpr std::size_t kRecorderLevels = 8;

// Changes are made under `configuration`; what a line is written to changes under the line mutex too, so that
// nothing is closed below a line. Threads that log read the atomics only.
struct Logger {
  std::atomic<std::uint32_t> level = kNotInitialised;
  std::atomic<Sink> sink = kSinkStderr;
  std::atomic<std::FILE*> stream = nullptr;
  std::atomic<void (*)(std::uint32_t, const char*, ...)> callback = nullptr;
  std::atomic<pthread_mutex_t*> mutex = nullptr;  // held while a line is written
  std::atomic<std::uint64_t> messages = 0;
  // Set last, when all of the above holds. The level alone cannot tell: QVX_API_LOG_LEVEL may set it to the
  // very value that means "not initialised".
  std::atomic<bool> initialised = false;
  std::atomic<bool> imported = false;
  bool initialising = false;
  std::FILE* own_file = nullptr;  // the stream that qvx_init_file_logger opened, until it is closed
  pthread_mutex_t mutex_storage = {};
  std::array<std::uint32_t, kRecorderLevels> recorders{};  // how many there are of each level
};

constinit Logger logger;

// Recursive, because setting the logger up logs. Taken before the line mutex, never while holding it.
constinit std::recursive_mutex configuration;

// The thread-safety switch decides whether there is a line mutex.
class LineLock {
 public:
  LineLock() : mutex_(logger.mutex.load(std::memory_order_acquire)) {
    if (mutex_ != nullptr) pthread_mutex_lock(mutex_);
  }
  ~LineLock() {
    if (mutex_ != nullptr) pthread_mutex_unlock(mutex_);
  }
  LineLock(const LineLock&) = delete;
  LineLock& operator=(const LineLock&) = delete;

 private:
  pthread_mutex_t* const mutex_;
};

// Until the logger is initialised every message passes the threshold, and waits or initialises behind it.
// Errors and warnings always do: they are rare, and recorders that take no more, of which readers make one
// for each block, need not be counted then.
constexpr std::uint32_t kAlwaysPasses = QVX_LOG_WARNING;

void update_threshold() {
  std::uint32_t highest = logger.initialised ? std::max(logger.level.load(), kAlwaysPasses) : kNotInitialised;
  for (std::uint32_t level = 0; level < kRecorderLevels; ++level)
    if (logger.recorders[level] > 0) highest = std::max(highest, level);
  qvx::detail::log_threshold.store(highest, std::memory_order_relaxed);
}

void set_initialised() {
  logger.initialised.store(true, std::memory_order_release);
  update_threshold();
}

const char* level_prefix(std::uint32_t level) {
  switch (level) {
    case QVX_LOG_ERROR:
      return "[error] ";
    case QVX_LOG_WARNING:
      return "[warning] ";
    case QVX_LOG_INFO:
      return "[info] ";
    case QVX_LOG_DEBUG:
      return "[debug] ";
    default:
      return "";
  }
}

// Large enough for the date in its 26 bytes, the milliseconds and the longest prefix.
constexpr std::size_t kLineHeadRoom = 64;

// Writes the time stamp and the level's prefix; returns their length.
std::size_t write_line_head(char* out, std::uint32_t level) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  time_t seconds = now.tv_sec;
  long milliseconds = now.tv_nsec / 1000000;
  if (milliseconds > 999) {
    milliseconds -= 1000;
    ++seconds;
  }
  std::tm local{};
  localtime_r(&seconds, &local);
  char date[26];
  if (std::strftime(date, sizeof date, "[%Y-%m-%d %H:%M:%S", &local) == 0) date[0] = '\0';
  const int length = std::snprintf(out, kLineHeadRoom, "%s.%03d] %s", date, static_cast<int>(milliseconds),
                                   level_prefix(level));
  return static_cast<std::size_t>(length);
}

// The line is handed over in one piece whatever buffering the stream has: from the stack when it is short,
// from the heap when it is long, and cut to what the stack holds when memory is short.
void write_line(std::FILE* stream, std::uint32_t level, const char* format, va_list args) {
  char short_line[1024];
  std::unique_ptr<char[]> long_line;
  char* line = short_line;
  constexpr std::size_t kRoom = sizeof short_line - 1;  // without the line end
  const std::size_t head = write_line_head(line, level);
  va_list measured;
  va_copy(measured, args);
  const int formatted = std::vsnprintf(line + head, kRoom - head, format, measured);
  va_end(measured);
  std::size_t message = formatted < 0 ? 0 : static_cast<std::size_t>(formatted);
  if (message >= kRoom - head) {
    long_line.reset(new (std::nothrow) char[head + message + 2]);
    if (long_line != nullptr) {
      std::memcpy(long_line.get(), line, head);
      line = long_line.get();
      std::vsnprintf(line + head, message + 1, format, args);
    } else {
      message = kRoom - head - 1;
    }
  }
  line[head + message] = '\n';
  qvx::write_diagnostic(stream, line, head + message + 1);
  std::fflush(stream);
}

// A level that was set before anything was logged comes without a stream. So may an imported state, which
// must not be initialised.
void open_stream() {
  const std::lock_guard guard(configuration);
  if (logger.stream != nullptr || logger.imported || logger.sink == kSinkSyslog) return;
  qvx_init_stderr_logger(logger.level);
}

__attribute__((format(printf, 2, 3))) void write_message(std::uint32_t level, const char* format, ...) {
  const int caller_errno = errno;
  va_list args;
  va_start(args, format);
  if (logger.sink == kSinkSyslog) {
    vsyslog(static_cast<int>(level), format, args);
  } else {
    if (logger.stream == nullptr) open_stream();
    const bool is_fault = level == QVX_LOG_ERROR || level == QVX_LOG_WARNING;
    if (is_fault && logger.stream == stderr) qvx::BeforeErrorLines::run();
    const LineLock lock;
    std::FILE* const stream = logger.stream;
    write_line(stream != nullptr ? stream : stderr, level, format, args);
  }
  va_end(args);
  errno = caller_errno;
}

qvx_log_function process_target() {
  const qvx_log_function callback = logger.callback.load(std::memory_order_acquire);
  return callback != nullptr ? callback : write_message;
}

void destroy_mutex_at_exit() {
  if (logger.imported) return;
  pthread_mutex_destroy(logger.mutex.exchange(nullptr));
}

bool set_up_thread_safety() {
  constexpr const char* kRoutine = "_qvx_init_logger_mutex";
  const char* const value = qvx_getenv("QVX_LOG_THREAD_SAFE");
  if (value != nullptr && *value != '\0' && !qvx::is_true_switch(value)) {
    QVX_LOG(QVX_LOG_DEBUG,
            "[logger] [%s] Thread safety is disabled by environment variable QVX_LOG_THREAD_SAFE", kRoutine);
    return false;
  }
  if (logger.mutex != nullptr) return true;
  if (pthread_mutex_init(&logger.mutex_storage, nullptr) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "[logger] [%s] failed to initialize logger mutex", kRoutine);
    return false;
  }
  logger.mutex.store(&logger.mutex_storage, std::memory_order_release);
  std::atexit(destroy_mutex_at_exit);
  return true;
}

bool refuse_when_imported(const char* routine) {
  if (!logger.imported) return false;
  QVX_LOG(QVX_LOG_DEBUG, "[logger] [%s] registered logger cannot initialize logger", routine);
  return true;
}

// Lines go to the new target from here on; a file of our own that was the old one is closed.
void switch_target(Sink sink, std::FILE* stream, std::FILE* own_file) {
  const LineLock lock;
  const Sink old_sink = logger.sink.exchange(sink);
  logger.stream = stream;
  if (old_sink == kSinkSyslog && sink != kSinkSyslog) closelog();
  std::FILE* const old_file = std::exchange(logger.own_file, own_file);
  if (old_file != nullptr) std::fclose(old_file);
}

void switch_to(Sink sink, std::FILE* stream, std::uint32_t level, const char* routine) {
  switch_target(sink, stream, sink == kSinkFile ? stream : nullptr);
  logger.initialising = true;
  logger.level = level;
  update_threshold();
  if (!set_up_thread_safety())
    QVX_LOG(QVX_LOG_DEBUG, "[logger] [%s] Initialized logger without thread-safety", routine);
  logger.initialising = false;
  set_initialised();
}

// Other threads that log meanwhile wait here; the one that initialises comes by with its own trace.
void initialise_once() {
  const std::lock_guard guard(configuration);
  if (logger.initialised || logger.initialising) return;
  const char* text = std::getenv("QVX_API_LOG_LEVEL");
  if (text == nullptr) text = std::getenv("API_LOG_LEVEL");
  int level = 0;
  if (text != nullptr && std::sscanf(text, "%d", &level) != 1) level = 0;
  qvx_init_stderr_logger(static_cast<std::uint32_t>(level));
}

void count_recorder(std::uint32_t level, std::uint32_t change) {
  if (level <= kAlwaysPasses) return;
  const std::lock_guard guard(configuration);
  logger.recorders[level] += change;
  update_threshold();
}

}  // namespace

namespace qvx::detail {

constinit std::atomic<std::uint32_t> log_threshold = kNotInitialised;

bool log_enabled(std::uint32_t level) {
  if (!logger.initialised.load(std::memory_order_acquire)) initialise_once();
  return level <= logger.level || is_recorded(level);
}

qvx_log_function log_target() {
  logger.messages.fetch_add(1, std::memory_order_relaxed);
  return has_recorder() ? record_message : process_target();
}

void log_past_recorders(std::uint32_t level, const char* text) {
  if (level <= logger.level) process_target()(level, "%s", text);
}

void enter_recorder_level(std::uint32_t level) {
  count_recorder(level, 1);
}

void leave_recorder_level(std::uint32_t level) {
  count_recorder(level, ~std::uint32_t{0});
}

}  // namespace qvx::detail

bool qvx_init_stderr_logger(std::uint32_t level) {
  constexpr const char* kRoutine = "qvx_init_stderr_logger";
  const std::lock_guard guard(configuration);
  if (refuse_when_imported(kRoutine)) return false;
  switch_to(kSinkStderr, stderr, level, kRoutine);
  return true;
}

bool qvx_init_syslog_logger(const char* ident, std::uint32_t level) {
  constexpr const char* kRoutine = "qvx_init_syslog_logger";
  const std::lock_guard guard(configuration);
  if (refuse_when_imported(kRoutine)) return false;
  openlog(ident, LOG_PID | LOG_CONS, LOG_DAEMON);
  switch_to(kSinkSyslog, nullptr, level, kRoutine);
  return true;
}

bool qvx_init_file_logger(const char* path, std::uint32_t level) {
  constexpr const char* kRoutine = "qvx_init_file_logger";
  const std::lock_guard guard(configuration);
  if (refuse_when_imported(kRoutine)) return false;
  qvx_close_logger();
  std::FILE* const stream = std::fopen(path, "we");
  if (stream == nullptr) {
    qvx_init_stderr_logger(level);
    return false;
  }
  switch_to(kSinkFile, stream, level, kRoutine);
  return true;
}

void qvx_close_logger() {
  const std::lock_guard guard(configuration);
  if (logger.imported) {
    QVX_LOG(QVX_LOG_DEBUG, "[logger] [%s] tried closing a registered logger, skipping closure",
            "qvx_close_logger");
    return;
  }
  initialise_once();
  qvx_init_stderr_logger(logger.level);
}

std::uint32_t qvx_logger_set_level(std::uint32_t level) {
  const std::lock_guard guard(configuration);
  const std::uint32_t old = logger.level.exchange(level);
  if (level != kNotInitialised) set_initialised();
  update_threshold();
  return old;
}

void qvx_logger_register_callback(qvx_log_function callback, std::uint32_t level) {
  const std::lock_guard guard(configuration);
  logger.callback.store(callback, std::memory_order_release);
  logger.sink = kSinkCallback;
  logger.level = level;
  set_initialised();
}

qvx_logger_state* qvx_logger_export_state() {
  const std::lock_guard guard(configuration);
  initialise_once();
  auto* const state = static_cast<qvx_logger_state*>(std::calloc(1, sizeof(qvx_logger_state)));
  if (state == nullptr) return nullptr;
  state->sink = logger.sink;
  if (state->sink == kSinkStderr || state->sink == kSinkFile) state->stream = logger.stream;
  if (state->sink == kSinkCallback) state->callback = logger.callback;
  state->level = logger.level;
  state->mutex = logger.mutex;
  return state;
}

bool qvx_logger_import_state(const qvx_logger_state* state) {
  if (state == nullptr) return false;
  const std::lock_guard guard(configuration);
  const bool has_stream = state->sink == kSinkStderr || state->sink == kSinkFile;
  const bool same_target = has_stream                     ? state->stream == logger.stream
                           : state->sink == kSinkCallback ? state->callback == logger.callback
                                                          : true;
  if (same_target && state->sink == logger.sink && state->level == logger.level &&
      state->mutex == logger.mutex)
    return true;
  logger.imported = true;
  // A stream of ours that is no longer written to stays open until now.
  switch_target(static_cast<Sink>(state->sink), has_stream ? state->stream : stderr, nullptr);
  logger.mutex.store(state->mutex, std::memory_order_release);
  if (state->sink == kSinkCallback) logger.callback.store(state->callback, std::memory_order_release);
  logger.level = state->level;
  set_initialised();
  return true;
}

std::uint64_t qvx_logged_messages() {
  return logger.messages.load(std::memory_order_relaxed);
}

void qvx_log_hex_dump(const void* bytes, std::size_t size) {
  if (!QVX_LOG_IS_ENABLED(QVX_LOG_DEBUG)) return;
  constexpr std::size_t kPerLine = 16;
  constexpr int kHexColumn = kPerLine * 3 + 1;  // "XX " a byte, one more blank after the eighth
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  const auto* const data = static_cast<const unsigned char*>(bytes);
  for (std::size_t line = 0; line < size; line += kPerLine) {
    const std::size_t count = std::min(size - line, kPerLine);
    char hex[kHexColumn + 1];
    char characters[kPerLine + 1];
    char* next_hex = hex;
    for (std::size_t i = 0; i < count; ++i) {
      const unsigned char byte = data[line + i];
      *next_hex++ = kDigits[byte >> 4];
      *next_hex++ = kDigits[byte & 15];
      *next_hex++ = ' ';
      if (i == 7) *next_hex++ = ' ';
      characters[i] = byte >= 0x20 && byte <= 0x7E ? static_cast<char>(byte) : '.';
    }
    *next_hex = '\0';
    characters[count] = '\0';
    QVX_LOG(QVX_LOG_DEBUG, "%-*s|  %s ", kHexColumn, hex, characters);
  }
}

namespace qvx {
namespace {

constinit thread_local BeforeErrorLines* before_error_lines = nullptr;

// The size of the character that the text begins with; 0 when it is a control character other than tab and
// line end, or no UTF-8. A terminal takes the control characters from U+0080 to U+009F (\u009b is "\x1b[") as
// two bytes of UTF-8 or as one byte, depending on how it is set.
std::size_t visible_character(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) return (first >= 0x20 && first != 0x7F) || first == '\n' || first == '\t' ? 1 : 0;
  const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < size) return 0;
  for (std::size_t i = 1; i < size; ++i)
    if ((byte(i) & 0xC0) != 0x80) return 0;
  const unsigned second = byte(1);
  const bool is_control = first == 0xC2 && second < 0xA0;
  const bool is_overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool is_no_character = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
  return is_control || is_overlong || is_no_character ? 0 : size;
}

}  // namespace

BeforeErrorLines::BeforeErrorLines(Action action, void* context) noexcept
    : action_(action), context_(context), outer_(before_error_lines) {
  before_error_lines = this;
}

BeforeErrorLines::~BeforeErrorLines() {
  before_error_lines = outer_;
}

void BeforeErrorLines::run() noexcept {
  // Out of the way meanwhile, so that an action that logs does not run itself.
  BeforeErrorLines* const current = std::exchange(before_error_lines, nullptr);
  if (current != nullptr) current->action_(current->context_);
  before_error_lines = current;
}

void write_diagnostic(std::FILE* stream, const char* text, std::size_t size) {
  if (isatty(fileno(stream)) == 0) {
    std::fwrite(text, 1, size, stream);
    return;
  }
  const std::string_view bytes(text, size);
  std::size_t plain = 0;  // where the run of characters begins that can be shown as they are
  for (std::size_t i = 0; i < size;) {
    const std::size_t shown = visible_character(bytes.substr(i));
    if (shown == 0) {
      std::fwrite(text + plain, 1, i - plain, stream);
      std::fprintf(stream, "\\x%02x", unsigned{static_cast<unsigned char>(text[i])});
      plain = i + 1;
    }
    i += std::max<std::size_t>(shown, 1);
  }
  std::fwrite(text + plain, 1, size - plain, stream);
}

}  // namespace qvx
