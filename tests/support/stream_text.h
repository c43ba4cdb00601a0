// What a function prints to the stream that it is given.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

namespace qvx::test {

template <typename Print>
std::string text_written(Print print) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* const stream = open_memstream(&text, &size);
  if (stream == nullptr) throw std::bad_alloc();
  print(stream);
  std::fclose(stream);
  std::string written(text, size);
  std::free(text);
  return written;
}

}  // namespace qvx::test
