// The rows of a query as a stream of batches, decoded by as many threads as it asks for.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "qvx/columns/arrow_c.h"
#include "qvx/columns/dataset.h"
#include "qvx/columns/query.h"

namespace qvx::columns {

// How far a stream has come; may be read by any thread.
struct Progress {
  std::atomic<std::uint64_t> rows{0};
  std::atomic<std::uint64_t> files{0};  // read to their end
  std::atomic<std::uint64_t> bytes{0};  // of these files, on disk
  std::atomic<std::uint64_t> pages_passed_over{0};
};

// With one thread everything is done by the caller of next(). With more, threads begin with the first call
// and end with the stream. They decode files ahead of the one whose turn it is, as far as the query lets
// finished batches wait.
class TableStream {
 public:
  TableStream(std::shared_ptr<const Dataset> dataset, ResolvedQuery query);
  ~TableStream();
  TableStream(const TableStream&) = delete;
  TableStream& operator=(const TableStream&) = delete;

  // The receiver releases it. Throws std::bad_alloc.
  void schema(ArrowSchema* out) const;

  // False behind the last batch. The receiver releases what it gets. Throws std::bad_alloc, also for a thread
  // that ran out of memory, and std::system_error when no thread can be started.
  [[nodiscard]] bool next(ArrowArray* out);

  std::shared_ptr<const Progress> progress() const { return progress_; }
  const Dataset& dataset() const { return *dataset_; }

 private:
  class Source;
  class Alone;
  class Workers;

  std::shared_ptr<const Dataset> dataset_;
  ResolvedQuery query_;
  std::shared_ptr<Progress> progress_;
  std::unique_ptr<Source> source_;
};

// Whether faults of files are for the list of the dataset only, or end a stream with an error, too: that of
// the first, behind the last batch.
enum class StreamFaults : std::uint8_t { listed, end_stream };

// Hands a stream over to the Arrow C stream interface, whose functions return errno values and never throw.
void export_stream(std::unique_ptr<TableStream> stream, ArrowArrayStream* out,
                   StreamFaults faults = StreamFaults::listed);

}  // namespace qvx::columns
