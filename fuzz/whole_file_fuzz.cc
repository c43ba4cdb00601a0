// A whole data file, plain or compressed, through the loop over files.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/reader_fuzz.h"
#include "qvx/reader/process_files.h"

namespace {

using namespace qvx;

// A file in memory and the path by which it can be opened.
struct MemoryFile {
  int descriptor = memfd_create("input", MFD_CLOEXEC);
  std::string path = "/proc/self/fd/" + std::to_string(descriptor);
};

void read(std::uint8_t choice, const std::uint8_t* data, std::size_t size) {
  static const MemoryFile file;
  fuzz::check(file.descriptor >= 0);
  fuzz::check(ftruncate(file.descriptor, 0) == 0);
  fuzz::check(pwrite(file.descriptor, data, size, 0) == static_cast<ssize_t>(size));
  ReaderOptions options = fuzz::reader_options(choice);
  options.sort_files = (choice & 32U) != 0;
  fuzz::check(append(options.input_files, file.path.c_str()));
  std::string out;
  {
    OutputSink sink(out);
    const int failures = process_files(options, sink);
    fuzz::check(failures == 0 || failures == 1);
  }
  fuzz::check_output(options, out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (fuzz::quiet_reader(), true);
  static_cast<void>(quiet);
  if (size == 0) return 0;
  read(data[0], data + 1, size - 1);
  return 0;
}
