// A stdio stream that keeps what is printed to it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace qvx::test {

class CapturedStream {
 public:
  CapturedStream() : file_(open_memstream(&text_, &size_)) {
    if (file_ == nullptr) throw std::runtime_error("cannot open a memory stream");
  }
  ~CapturedStream() {
    std::fclose(file_);
    std::free(text_);
  }
  CapturedStream(const CapturedStream&) = delete;
  CapturedStream& operator=(const CapturedStream&) = delete;

  std::FILE* file() const { return file_; }

  std::string text() const {
    std::fflush(file_);
    return {text_, size_};
  }

 private:
  char* text_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* file_;
};

// One that has all memory it needs before anything is printed.
class FixedStream {
 public:
  FixedStream() : file_(fmemopen(text_.data(), text_.size(), "w")) {
    if (file_ == nullptr || std::setvbuf(file_, nullptr, _IONBF, 0) != 0)
      throw std::runtime_error("cannot open a memory stream");
  }
  ~FixedStream() { std::fclose(file_); }
  FixedStream(const FixedStream&) = delete;
  FixedStream& operator=(const FixedStream&) = delete;

  std::FILE* file() const { return file_; }
  std::string text() const { return text_.c_str(); }

 private:
  std::string text_ = std::string(std::size_t{1} << 16, '\0');
  std::FILE* file_;
};

}  // namespace qvx::test
