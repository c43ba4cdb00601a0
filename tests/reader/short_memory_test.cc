#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <string>

#include "qvx/reader/options.h"
#include "qvx/support/bytes.h"
#include "tests/reader/reader_files.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/file_in_memory.h"

namespace qvx {
namespace {

// Whatever allocation fails while a file is read, the next file of the run prints as if nothing had happened.
TEST(ShortMemory, FileThatRanOutOfMemoryLeavesNothingBehindForTheNext) {
  const test::ReaderFiles files;
  const std::string file =
      test::file_header(test::usual_header()) + test::padded(test::usual_events({7, 8}), 256);
  for (const OutputFormat format : {OutputFormat::ndjson, OutputFormat::influx}) {
    const std::string expected = format == OutputFormat::ndjson ? "{\"v\":7}\n{\"v\":8}\n" : "v=7i\nv=8i\n";
    for (std::size_t successes = 0;; ++successes) {
      test::FilesInMemory reader(test::reader_options(format, files.path("schema")));
      bool any_failed = false;
      {
        const test::FailingAllocations failing(successes);
        try {
          static_cast<void>(reader.read(as_bytes(file)));
        } catch (const std::bad_alloc&) {
        }
        any_failed = failing.any_failed();
      }
      EXPECT_EQ(reader.read(as_bytes(file)).out, expected) << successes;
      if (!any_failed) break;
    }
  }
}

}  // namespace
}  // namespace qvx
