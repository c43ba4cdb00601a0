// Running one of the built programs and taking what it wrote.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"

extern char** environ;

namespace qvx::test {

struct ProgramResult {
  int status = -1;  // the exit status, or -1 when a signal ended it
  std::string out;
  std::string error;
};

class Program {
 public:
  explicit Program(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words)
      arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 1, streams_.file("out").c_str(), kFlags, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, streams_.file("error").c_str(), kFlags, 0600);
    const int failure = posix_spawn(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) throw std::runtime_error("cannot run " + words[0]);
  }

  void send(int signal) const { kill(process_, signal); }

  ProgramResult wait() {
    int status = 0;
    if (waitpid(process_, &status, 0) != process_) throw std::runtime_error("cannot wait for a program");
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(streams_.file("out")),
            read_file(streams_.file("error"))};
  }

 private:
  TempDir streams_;
  pid_t process_ = -1;
};

inline ProgramResult run_program(std::vector<std::string> words) {
  return Program(std::move(words)).wait();
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace qvx::test
