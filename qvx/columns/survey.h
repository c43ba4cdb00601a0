// What is in a dataset, found by going through all of it once.
#pragma once

#include <cstdint>
#include <stop_token>
#include <string>
#include <vector>

#include "qvx/columns/dataset.h"

namespace qvx::columns {

// A range of times in microseconds; empty while first > last.
struct TimeRange {
  std::uint64_t first = ~std::uint64_t{0};
  std::uint64_t last = 0;

  void add(std::uint64_t time) {
    if (time < first) first = time;
    if (time > last) last = time;
  }
  void add(const TimeRange& other) {
    if (other.first <= other.last) {
      add(other.first);
      add(other.last);
    }
  }
};

struct TableSurvey {
  std::string name;
  TableKind kind = TableKind::events;
  std::uint64_t rows = 0;
  std::uint64_t blocks = 0;
  TimeRange times;
};

struct SourceSurvey {
  std::string id;
  std::string tag;
  std::uint64_t files = 0;
  std::uint64_t rows = 0;
  TimeRange times;
};

struct FileSurvey {
  std::string path;
  std::uint64_t bytes = 0;  // on disk
  bool failed = false;      // reading ended before the file did
  std::uint64_t rows = 0;
  std::uint64_t pages = 0;         // compressed ones
  std::uint64_t packed_bytes = 0;  // of their contents
  std::uint64_t unpacked_bytes = 0;
  std::uint64_t bytes_lost = 0;    // from the fault that ended reading to the end of the file; and of data
                                   // blocks, from a page on that was cut
  std::uint64_t records_lost = 0;  // that blocks state and that are not there, or not with all their fields
  TimeRange times;
};

struct Survey {
  std::vector<TableSurvey> tables;  // those that have rows, by name
  std::vector<SourceSurvey> sources;
  std::vector<FileSurvey> files;  // as in the dataset
};

// Makes every schema known that a file names anywhere, and lists all faults. `threads` files at a time. Ends
// within a data block or page after it was asked to stop; what was not read is then missing. Throws
// std::bad_alloc, and std::system_error when no thread can be started.
Survey survey(Dataset& dataset, unsigned threads = 1, std::stop_token stop = {});

}  // namespace qvx::columns
