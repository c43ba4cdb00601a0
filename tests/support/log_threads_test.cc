// Eight threads log through two modules that share one logger. Built with the thread sanitizer, which fails
// the program for any access that is not ordered.
//
//   log_threads_test MODULE FILE    logs to FILE, which is looked at afterwards

#include "tests/support/log_threads.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "qvx/support/log_recorder.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLines = 200;

int failures = 0;

void check(bool holds, const char* what) {
  if (holds) return;
  std::printf("failed: %s\n", what);
  ++failures;
}

template <typename Body>
void run_threads(Body body) {
  std::barrier together(kThreads);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([&together, body, thread] {
      together.arrive_and_wait();
      body(thread);
    });
  for (std::thread& thread : threads)
    thread.join();
}

// How often each message stands in the file, time stamps taken off; a line that is no line of the log is "?".
std::map<std::string, int> messages_of(const char* path) {
  std::map<std::string, int> counts;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::size_t begin = line.find("] ");
    ++counts[line.starts_with("[20") && begin == 24 ? line.substr(begin + 2) : "?"];
  }
  return counts;
}

std::atomic<bool> environment_is_slow = false;

std::atomic<int> calls = 0;

void count_call(std::uint32_t, const char*, ...) {
  ++calls;
}

}  // namespace

// In place of the standard library's. The logger asks the environment while it initialises; where that takes
// long, the other threads come in the middle of it.
extern "C" char* getenv(const char* name) noexcept {
  if (environment_is_slow) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const std::string_view wanted = name;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::string_view(*variable).starts_with(wanted) && (*variable)[wanted.size()] == '=')
      return *variable + wanted.size() + 1;
  }
  return nullptr;
}

// In place of the C library's, for threads that come while the logger changes to the system's log.
extern "C" void openlog(const char*, int, int) {
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

namespace {

// A level that is set before anything is logged leaves the logger without a stream. Threads that find it so
// wait for a change that is under way, and do not undo it.
int log_while_the_target_changes() {
  if (std::freopen("/dev/null", "w", stderr) == nullptr) return EXIT_FAILURE;
  qvx_logger_set_level(QVX_LOG_ERROR);
  run_threads([](int thread) {
    if (thread == 0) {
      qvx_init_syslog_logger("log_threads", QVX_LOG_ERROR);
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      QVX_LOG(QVX_LOG_ERROR, "first %d", thread);
    }
  });
  constexpr std::uint32_t kSyslog = 1;
  qvx_logger_state* const state = qvx_logger_export_state();
  check(state->sink == kSyslog && state->stream == nullptr, "change of the target lasts");
  std::free(state);
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return EXIT_FAILURE;
  // In another process, whose logger nothing has used before.
  const pid_t child = fork();
  if (child == 0) return log_while_the_target_changes();
  int status = -1;
  waitpid(child, &status, 0);
  check(status == 0, "first lines while the target changes");
  const char* const path = argv[2];
  setenv("QVX_API_LOG_LEVEL", "7", 1);
  if (std::freopen(path, "w", stderr) == nullptr) return EXIT_FAILURE;

  // All threads find the logger not initialised.
  environment_is_slow = true;
  run_threads([](int thread) { QVX_LOG(QVX_LOG_DEBUG, "first %d", thread); });
  environment_is_slow = false;
  std::map<std::string, int> logged = messages_of(path);
  check(logged["[debug] [qvx_getenv] No value for 'QVX_LOG_THREAD_SAFE' or 'LOG_THREAD_SAFE'"] == 1,
        "initialised once");
  for (int thread = 0; thread < kThreads; ++thread)
    check(logged["[debug] first " + std::to_string(thread)] == 1, "first message of each thread");
  check(logged.size() == kThreads + 1, "whole lines only");

  // One changes the logger while the others log and record.
  const std::string file = std::string(path) + ".file";
  qvx_init_stderr_logger(QVX_LOG_ERROR);
  run_threads([&file](int thread) {
    for (int i = 0; i < kLines; ++i) {
      if (thread != 0) {
        const qvx::LogRecorder recorder(QVX_LOG_WARNING, qvx::LogRecorder::Mode::besides);
        QVX_LOG(QVX_LOG_WARNING, "thread %d", thread);
        if (recorder.messages().size() != 1) std::abort();
      } else if (i % 4 == 0) {
        qvx_init_file_logger(file.c_str(), QVX_LOG_WARNING);
      } else if (i % 4 == 1) {
        qvx_logger_register_callback(count_call, QVX_LOG_WARNING);
      } else if (i % 4 == 2) {
        qvx_logger_register_callback(nullptr, QVX_LOG_WARNING);
        qvx_close_logger();
      } else {
        qvx_logger_set_level(QVX_LOG_ERROR);
      }
    }
  });
  qvx_logger_register_callback(nullptr, QVX_LOG_ERROR);
  check(messages_of(path).count("?") == 0, "whole lines while the logger changes");

  // Both modules write to one file.
  qvx_init_file_logger(file.c_str(), QVX_LOG_ERROR);
  void* const module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  check(module != nullptr, "second module");
  if (module == nullptr) return EXIT_FAILURE;
  const auto module_import = reinterpret_cast<import_function>(dlsym(module, "module_import"));
  const auto module_log = reinterpret_cast<log_function>(dlsym(module, "module_log"));
  qvx_logger_state* const state = qvx_logger_export_state();
  check(module_import(state), "import");
  std::free(state);
  run_threads([module_log](int thread) {
    for (int i = 0; i < kLines; ++i) {
      QVX_LOG(QVX_LOG_ERROR, "host %d %d", thread, i);
      module_log(thread, i);
    }
  });
  logged = messages_of(file.c_str());
  check(logged.size() == std::size_t{2} * kThreads * kLines, "every line of both modules");
  for (const auto& [text, count] : logged)
    check(count == 1 && (text.starts_with("[error] host ") || text.starts_with("[error] module ")),
          text.c_str());
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
