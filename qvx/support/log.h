// The process-wide logger: one level, one sink, messages in printf form.
//
// A message costs one compare when its level is not enabled. The level starts as "not initialised"; the first
// message that is logged sets the logger up from QVX_API_LOG_LEVEL (or API_LOG_LEVEL), so that what is logged
// before the command line is parsed is already filtered.
//
// Any thread may log, and may be the first to; functions that change the logger wait for one another. With
// thread safety on (the default, see QVX_LOG_THREAD_SAFE) lines of different threads never interleave, and
// nothing is closed below a line. No function here fails its caller, and errno is left as it was by the
// messages of the built-in writer.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// Levels are the syslog priorities 0-7; these four have a name in the output.
inline constexpr std::uint32_t QVX_LOG_ERROR = 3;
inline constexpr std::uint32_t QVX_LOG_WARNING = 4;
inline constexpr std::uint32_t QVX_LOG_INFO = 6;
inline constexpr std::uint32_t QVX_LOG_DEBUG = 7;

// Takes one message: its level, a printf format and its arguments. No line end is expected.
typedef void (*qvx_log_function)(std::uint32_t level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The state by which a second module shares this logger. Allocated by qvx_logger_export_state with calloc;
// the receiver frees it with free.
struct qvx_logger_state {
  std::uint32_t sink;         // 0 standard error, 1 syslog, 2 file, 3 registered callback
  std::FILE* stream;          // for sinks 0 and 2
  qvx_log_function callback;  // for sink 3
  std::uint32_t level;
  pthread_mutex_t* mutex;  // null while thread safety is off
};

namespace qvx::detail {
// The highest level that anybody takes: the logger, or a LogRecorder of any thread. 0xFFFFFFFF until the
// logger is initialised, so that the one compare of QVX_LOG lets the first message through.
extern std::atomic<std::uint32_t> log_threshold;
// Initialises the logger if needed and asks whether it, or a recorder of this thread, takes the level.
bool log_enabled(std::uint32_t level);
// What takes the messages of this thread: its recorders, else the registered callback, else the built-in
// writer.
qvx_log_function log_target();

inline bool log_passes(std::uint32_t level) {
  return level <= log_threshold.load(std::memory_order_relaxed) && log_enabled(level);
}
}  // namespace qvx::detail

#define QVX_LOG_IS_ENABLED(level) qvx::detail::log_passes(static_cast<std::uint32_t>(level))

// Logs one message. The level is evaluated once, the arguments only when it is enabled.
#define QVX_LOG(level, ...)                                           \
  do {                                                                \
    const auto qvx_message_level = static_cast<std::uint32_t>(level); \
    if (qvx::detail::log_passes(qvx_message_level)) [[unlikely]]      \
      qvx::detail::log_target()(qvx_message_level, __VA_ARGS__);      \
  } while (false)

// The three initialisers return true, but false while the state is imported from another module; the file
// logger falls back to standard error and returns false when the file cannot be opened.
bool qvx_init_stderr_logger(std::uint32_t level);
bool qvx_init_syslog_logger(const char* ident, std::uint32_t level);
bool qvx_init_file_logger(const char* path, std::uint32_t level);

// Closes a syslog or file sink and goes back to standard error at the current level.
void qvx_close_logger();

// Stores a new level and returns the old one.
std::uint32_t qvx_logger_set_level(std::uint32_t level);

// From now on every enabled message goes to the callback, also after another initialiser was called, until a
// null callback is registered.
void qvx_logger_register_callback(qvx_log_function callback, std::uint32_t level);

// A newly allocated record of the logger, which is initialised first; null when memory is short. While
// another module uses it, this one must not close or re-initialise its logger: the stream belongs to this
// one.
qvx_logger_state* qvx_logger_export_state();

// Takes the state of another module over; false for a null record.
bool qvx_logger_import_state(const qvx_logger_state* state);

// How many messages passed the level check so far: tells whether something that was done has said anything.
std::uint64_t qvx_logged_messages();

// Logs bytes at level 7, 16 a line, in hexadecimal and as characters. Does nothing below level 7.
void qvx_log_hex_dump(const void* bytes, std::size_t size);

namespace qvx {
// What is to be done, as long as the object lives, before a message of this thread goes to standard error at
// level 3 or 4: what was decoded before it is written out, so that both streams on one terminal read in
// order. The object that was made last counts, and is the first to go.
class BeforeErrorLines {
 public:
  using Action = void (*)(void* context) noexcept;

  BeforeErrorLines(Action action, void* context) noexcept;
  ~BeforeErrorLines();
  BeforeErrorLines(const BeforeErrorLines&) = delete;
  BeforeErrorLines& operator=(const BeforeErrorLines&) = delete;

  // For the logger.
  static void run() noexcept;

 private:
  Action action_;
  void* context_;
  BeforeErrorLines* outer_;
};

// Writes text to a stream. On a terminal, control characters other than tab and line end, and bytes that are
// no UTF-8, are shown as \xNN, since names in a message may come out of a file; elsewhere the bytes are
// written as they are.
void write_diagnostic(std::FILE* stream, const char* text, std::size_t size);
}  // namespace qvx
