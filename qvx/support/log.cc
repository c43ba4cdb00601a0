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

#include "qvx/support/env.h"
#include "qvx/support/log_recording.h"

namespace {

constexpr std::uint32_t kNotInitialised = 0xFFFFFFFF;

enum Sink : std::uint32_t { kSinkStderr = 0, kSinkSyslog = 1, kSinkFile = 2, kSinkCallback = 3 };

struct Logger {
  std::uint32_t sink = kSinkStderr;
  std::FILE* stream = nullptr;
  qvx_log_function callback = nullptr;
  pthread_mutex_t* mutex = nullptr;
  pthread_mutex_t mutex_storage = {};
  bool imported = false;
  // The level alone cannot tell: QVX_API_LOG_LEVEL may set it to the very value that means "not initialised".
  bool lazy_init_done = false;
  std::atomic<std::uint64_t> messages = 0;
};

Logger logger;

constexpr std::size_t kRecorderLevels = 8;

// The level of the logger and of all recorders; log_threshold is the highest of them.
struct Levels {
  std::mutex lock;
  std::atomic<std::uint32_t> logger = kNotInitialised;
  std::array<std::uint32_t, kRecorderLevels> recorders{};  // how many there are of each level
};

Levels levels;

void update_threshold() {
  std::uint32_t highest = levels.logger.load(std::memory_order_relaxed);
  for (std::uint32_t level = 0; level < kRecorderLevels; ++level)
    if (levels.recorders[level] > 0) highest = std::max(highest, level);
  qvx::detail::log_threshold.store(highest, std::memory_order_release);
}

std::uint32_t logger_level() {
  return levels.logger.load(std::memory_order_relaxed);
}

std::uint32_t set_logger_level(std::uint32_t level) {
  const std::lock_guard guard(levels.lock);
  const std::uint32_t old = levels.logger.exchange(level, std::memory_order_relaxed);
  update_threshold();
  return old;
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

__attribute__((format(printf, 2, 3))) void write_message(std::uint32_t level, const char* format, ...) {
  const int caller_errno = errno;
  va_list args;
  va_start(args, format);
  if (logger.sink == kSinkSyslog) {
    vsyslog(static_cast<int>(level), format, args);
  } else {
    // An imported state may come without a stream, and must not be initialised.
    if (logger.stream == nullptr && !logger.imported) qvx_init_stderr_logger(logger_level());
    pthread_mutex_t* const mutex = logger.mutex;
    if (mutex != nullptr) pthread_mutex_lock(mutex);
    write_line(logger.stream != nullptr ? logger.stream : stderr, level, format, args);
    if (mutex != nullptr) pthread_mutex_unlock(mutex);
  }
  va_end(args);
  errno = caller_errno;
}

void destroy_mutex_at_exit() {
  if (logger.imported || logger.mutex == nullptr) return;
  pthread_mutex_destroy(logger.mutex);
  logger.mutex = nullptr;
}

bool set_up_thread_safety() {
  constexpr const char* kRoutine = "_qvx_init_logger_mutex";
  const char* const value = qvx_getenv("QVX_LOG_THREAD_SAFE");
  if (value != nullptr && *value != '\0' && !qvx::is_true_switch(value)) {
    QVX_LOG(QVX_LOG_DEBUG,
            "[logger] [%s] Thread safety is disabled by environment variable QVX_LOG_THREAD_SAFE", kRoutine);
    return false;
  }
  if (logger.imported || logger.mutex != nullptr) return true;
  if (pthread_mutex_init(&logger.mutex_storage, nullptr) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "[logger] [%s] failed to initialize logger mutex", kRoutine);
    return false;
  }
  logger.mutex = &logger.mutex_storage;
  std::atexit(destroy_mutex_at_exit);
  return true;
}

bool refuse_when_imported(const char* routine) {
  if (!logger.imported) return false;
  QVX_LOG(QVX_LOG_DEBUG, "[logger] [%s] registered logger cannot initialize logger", routine);
  return true;
}

void switch_to(Sink sink, std::FILE* stream, std::uint32_t level, const char* routine) {
  logger.sink = sink;
  logger.stream = stream;
  logger.lazy_init_done = true;
  set_logger_level(level);
  if (!set_up_thread_safety())
    QVX_LOG(QVX_LOG_DEBUG, "[logger] [%s] Initialized logger without thread-safety", routine);
}

void initialise_from_environment() {
  logger.lazy_init_done = true;
  const char* text = std::getenv("QVX_API_LOG_LEVEL");
  if (text == nullptr) text = std::getenv("API_LOG_LEVEL");
  int level = 0;
  if (text != nullptr && std::sscanf(text, "%d", &level) != 1) level = 0;
  qvx_init_stderr_logger(static_cast<std::uint32_t>(level));
}

}  // namespace

namespace qvx::detail {

std::atomic<std::uint32_t> log_threshold = kNotInitialised;

bool log_enabled(std::uint32_t level) {
  if (logger_level() == kNotInitialised && !logger.lazy_init_done) initialise_from_environment();
  return level <= logger_level() || is_recorded(level);
}

qvx_log_function log_target() {
  logger.messages.fetch_add(1, std::memory_order_relaxed);
  if (has_recorder()) return record_message;
  return logger.callback != nullptr ? logger.callback : write_message;
}

void log_past_recorders(std::uint32_t level, const char* text) {
  if (level > logger_level()) return;
  (logger.callback != nullptr ? logger.callback : write_message)(level, "%s", text);
}

void enter_recorder_level(std::uint32_t level) {
  const std::lock_guard guard(levels.lock);
  ++levels.recorders[level];
  update_threshold();
}

void leave_recorder_level(std::uint32_t level) {
  const std::lock_guard guard(levels.lock);
  --levels.recorders[level];
  update_threshold();
}

}  // namespace qvx::detail

bool qvx_init_stderr_logger(std::uint32_t level) {
  constexpr const char* kRoutine = "qvx_init_stderr_logger";
  if (refuse_when_imported(kRoutine)) return false;
  switch_to(kSinkStderr, stderr, level, kRoutine);
  return true;
}

bool qvx_init_syslog_logger(const char* ident, std::uint32_t level) {
  constexpr const char* kRoutine = "qvx_init_syslog_logger";
  if (refuse_when_imported(kRoutine)) return false;
  openlog(ident, LOG_PID | LOG_CONS, LOG_DAEMON);
  switch_to(kSinkSyslog, nullptr, level, kRoutine);
  return true;
}

bool qvx_init_file_logger(const char* path, std::uint32_t level) {
  constexpr const char* kRoutine = "qvx_init_file_logger";
  if (refuse_when_imported(kRoutine)) return false;
  qvx_close_logger();
  std::FILE* const stream = std::fopen(path, "w");
  if (stream == nullptr) {
    qvx_init_stderr_logger(level);
    return false;
  }
  switch_to(kSinkFile, stream, level, kRoutine);
  return true;
}

void qvx_close_logger() {
  if (logger.imported) {
    QVX_LOG(QVX_LOG_DEBUG, "[logger] [%s] tried closing a registered logger, skipping closure",
            "qvx_close_logger");
    return;
  }
  if (!logger.lazy_init_done && logger_level() == kNotInitialised) initialise_from_environment();
  if (logger.sink == kSinkSyslog) closelog();
  if (logger.sink == kSinkFile && logger.stream != nullptr) std::fclose(logger.stream);
  qvx_init_stderr_logger(logger_level());
}

std::uint32_t qvx_logger_set_level(std::uint32_t level) {
  return set_logger_level(level);
}

void qvx_logger_register_callback(qvx_log_function callback, std::uint32_t level) {
  logger.callback = callback;
  logger.sink = kSinkCallback;
  logger.lazy_init_done = true;
  set_logger_level(level);
}

qvx_logger_state* qvx_logger_export_state() {
  auto* const state = static_cast<qvx_logger_state*>(std::calloc(1, sizeof(qvx_logger_state)));
  if (state == nullptr) return nullptr;
  state->sink = logger.sink;
  if (logger.sink == kSinkStderr || logger.sink == kSinkFile) state->stream = logger.stream;
  if (logger.sink == kSinkCallback) state->callback = logger.callback;
  state->level = logger_level();
  state->mutex = logger.mutex;
  return state;
}

bool qvx_logger_import_state(const qvx_logger_state* state) {
  if (state == nullptr) return false;
  const bool has_stream = state->sink == kSinkStderr || state->sink == kSinkFile;
  const bool same_target = has_stream                     ? state->stream == logger.stream
                           : state->sink == kSinkCallback ? state->callback == logger.callback
                                                          : true;
  if (same_target && state->sink == logger.sink && state->level == logger_level() &&
      state->mutex == logger.mutex)
    return true;
  logger.mutex = state->mutex;
  logger.imported = true;
  logger.lazy_init_done = true;
  logger.sink = state->sink;
  set_logger_level(state->level);
  if (state->sink == kSinkCallback) logger.callback = state->callback;
  if (has_stream) logger.stream = state->stream;
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

void write_diagnostic(std::FILE* stream, const char* text, std::size_t size) {
  if (isatty(fileno(stream)) == 0) {
    std::fwrite(text, 1, size, stream);
    return;
  }
  std::size_t plain = 0;  // where the run of characters begins that can be shown as they are
  for (std::size_t i = 0; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool is_control = (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F;
    if (!is_control) continue;
    std::fwrite(text + plain, 1, i - plain, stream);
    std::fprintf(stream, "\\x%02x", unsigned{byte});
    plain = i + 1;
  }
  std::fwrite(text + plain, 1, size - plain, stream);
}

}  // namespace qvx
