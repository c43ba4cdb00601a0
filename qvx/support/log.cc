#include "qvx/support/log.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "qvx/support/env.h"

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
};

Logger logger;

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

std::string time_stamp() {
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
  char date[26] = "";
  if (std::strftime(date, sizeof date, "[%Y-%m-%d %H:%M:%S", &local) == 0) date[0] = '\0';
  char stamp[48];
  std::snprintf(stamp, sizeof stamp, "%s.%03d] ", date, static_cast<int>(milliseconds));
  return stamp;
}

void append_vformat(std::string& out, const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length <= 0) return;
  const std::size_t start = out.size();
  out.resize(start + static_cast<std::size_t>(length) + 1);
  std::vsnprintf(out.data() + start, static_cast<std::size_t>(length) + 1, format, args);
  out.pop_back();
}

__attribute__((format(printf, 2, 3))) void write_message(std::uint32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (logger.sink == kSinkSyslog) {
    vsyslog(static_cast<int>(level), format, args);
    va_end(args);
    return;
  }
  if (logger.stream == nullptr) qvx_init_stderr_logger(qvx::detail::log_level);
  pthread_mutex_t* const mutex = logger.mutex;
  if (mutex != nullptr) pthread_mutex_lock(mutex);
  std::string line = time_stamp();
  line += level_prefix(level);
  append_vformat(line, format, args);
  line += '\n';
  std::FILE* const stream = logger.stream != nullptr ? logger.stream : stderr;
  qvx::write_diagnostic(stream, line.data(), line.size());
  std::fflush(stream);
  if (mutex != nullptr) pthread_mutex_unlock(mutex);
  va_end(args);
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
  logger.mutex = &logger.mutex_storage;
  if (pthread_mutex_init(logger.mutex, nullptr) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "[logger] [%s] failed to initialize logger mutex", kRoutine);
    logger.mutex = nullptr;
    return false;
  }
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
  logger.callback = nullptr;
  logger.lazy_init_done = true;
  qvx::detail::log_level = level;
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

std::uint32_t log_level = kNotInitialised;

bool log_enabled(std::uint32_t level) {
  if (log_level == kNotInitialised && !logger.lazy_init_done) initialise_from_environment();
  return level <= log_level;
}

qvx_log_function log_target() {
  return logger.callback != nullptr ? logger.callback : write_message;
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
  if (logger.sink == kSinkSyslog) closelog();
  if (logger.sink == kSinkFile && logger.stream != nullptr) std::fclose(logger.stream);
  qvx_init_stderr_logger(qvx::detail::log_level);
}

std::uint32_t qvx_logger_set_level(std::uint32_t level) {
  const std::uint32_t old = qvx::detail::log_level;
  qvx::detail::log_level = level;
  return old;
}

void qvx_logger_register_callback(qvx_log_function callback, std::uint32_t level) {
  logger.callback = callback;
  logger.sink = kSinkCallback;
  logger.lazy_init_done = true;
  qvx::detail::log_level = level;
}

qvx_logger_state* qvx_logger_export_state() {
  auto* const state = static_cast<qvx_logger_state*>(std::calloc(1, sizeof(qvx_logger_state)));
  if (state == nullptr) return nullptr;
  state->sink = logger.sink;
  if (logger.sink == kSinkStderr || logger.sink == kSinkFile) state->stream = logger.stream;
  if (logger.sink == kSinkCallback) state->callback = logger.callback;
  state->level = qvx::detail::log_level;
  state->mutex = logger.mutex;
  return state;
}

bool qvx_logger_import_state(const qvx_logger_state* state) {
  if (state == nullptr) return false;
  const bool same_target = state->sink == kSinkCallback ? state->callback == logger.callback
                           : state->sink == kSinkSyslog ? true
                                                        : state->stream == logger.stream;
  if (same_target && state->sink == logger.sink && state->level == qvx::detail::log_level &&
      state->mutex == logger.mutex)
    return true;
  logger.mutex = state->mutex;
  logger.imported = true;
  logger.lazy_init_done = true;
  logger.sink = state->sink;
  qvx::detail::log_level = state->level;
  logger.callback = state->sink == kSinkCallback ? state->callback : nullptr;
  if (state->sink == kSinkStderr || state->sink == kSinkFile) logger.stream = state->stream;
  return true;
}

void qvx_log_hex_dump(const void* bytes, std::size_t size) {
  if (!QVX_LOG_IS_ENABLED(QVX_LOG_DEBUG)) return;
  constexpr std::size_t kPerLine = 16;
  constexpr std::size_t kHexColumn = kPerLine * 3 + 1;  // "XX " a byte, one more blank after the eighth
  const auto* const data = static_cast<const unsigned char*>(bytes);
  for (std::size_t line = 0; line < size; line += kPerLine) {
    const std::size_t count = size - line < kPerLine ? size - line : kPerLine;
    std::string hex;
    std::string characters;
    for (std::size_t i = 0; i < count; ++i) {
      const unsigned char byte = data[line + i];
      constexpr std::string_view kDigits = "0123456789ABCDEF";
      hex += {kDigits[byte >> 4], kDigits[byte & 15], ' '};
      if (i == 7) hex += ' ';
      characters += byte >= 0x20 && byte <= 0x7E ? static_cast<char>(byte) : '.';
    }
    hex.resize(kHexColumn, ' ');
    QVX_LOG(QVX_LOG_DEBUG, "%s|  %s ", hex.c_str(), characters.c_str());
  }
}

namespace qvx {

void write_diagnostic(std::FILE* stream, const char* text, std::size_t size) {
  if (isatty(fileno(stream)) == 0) {
    std::fwrite(text, 1, size, stream);
    return;
  }
  std::string shown;
  shown.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      shown += escaped;
    } else {
      shown += text[i];
    }
  }
  std::fwrite(shown.data(), 1, shown.size(), stream);
}

}  // namespace qvx
