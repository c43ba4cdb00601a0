#include "qvx/columns/table_stream.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "qvx/columns/table_decoder.h"

namespace qvx::columns {
namespace {

// An array that is released unless it is handed on.
class OwnedArray {
 public:
  OwnedArray() = default;
  OwnedArray(OwnedArray&& other) noexcept
      : array_(std::exchange(other.array_, ArrowArray{})), rows_(other.rows_), bytes_(other.bytes_) {}
  OwnedArray& operator=(OwnedArray&&) = delete;
  ~OwnedArray() {
    if (array_.release != nullptr) array_.release(&array_);
  }

  bool decode(TableDecoder& decoder, std::uint64_t limit) {
    if (!decoder.next(limit, &array_)) return false;
    rows_ = decoder.rows_of_last_batch();
    bytes_ = decoder.bytes_of_last_batch();
    return true;
  }
  std::size_t rows() const { return rows_; }
  std::uint64_t bytes() const { return bytes_; }
  void hand_over(ArrowArray* out) { *out = std::exchange(array_, ArrowArray{}); }

 private:
  ArrowArray array_{};
  std::size_t rows_ = 0;
  std::uint64_t bytes_ = 0;
};

// Of the rows only the first are left.
void shorten(ArrowArray* batch, std::uint64_t rows) {
  batch->length = static_cast<std::int64_t>(rows);
  for (std::int64_t i = 0; i < batch->n_children; ++i) {
    ArrowArray& column = *batch->children[i];
    column.length = batch->length;
    if (column.null_count > 0) column.null_count = -1;  // not counted
  }
}

}  // namespace

class TableStream::Source {
 public:
  virtual ~Source() = default;
  virtual bool next(ArrowArray* out) = 0;
};

// Decodes on the caller's thread.
class TableStream::Alone final : public Source {
 public:
  Alone(const Dataset& dataset, const ResolvedQuery& query, Progress& progress)
      : dataset_(dataset), decoder_(dataset, query), left_(query.query.limit), progress_(progress) {}

  bool next(ArrowArray* out) override {
    while (left_ > 0) {
      if (is_open_) {
        OwnedArray batch;
        if (batch.decode(decoder_, left_)) {
          if (left_ != Query::kNoEnd) left_ -= batch.rows();
          progress_.rows += batch.rows();
          batch.hand_over(out);
          return true;
        }
        is_open_ = false;
        progress_.bytes += dataset_.files()[file_ - 1].size;
        progress_.pages_passed_over = decoder_.pages_passed_over();
        ++progress_.files;
      }
      if (file_ == dataset_.files().size()) return false;
      decoder_.open(file_++);
      is_open_ = true;
    }
    return false;
  }

 private:
  const Dataset& dataset_;
  TableDecoder decoder_;
  std::uint64_t left_;
  Progress& progress_;
  std::size_t file_ = 0;  // the next one
  bool is_open_ = false;
};

// Decodes on threads of its own. Each takes the next file, so the file whose turn it is is always being
// decoded, and whoever is too far ahead waits.
class TableStream::Workers final : public Source {
 public:
  Workers(const Dataset& dataset, const ResolvedQuery& query, Progress& progress)
      : dataset_(dataset),
        query_(query),
        progress_(progress),
        in_order_(query.query.in_order),
        left_(query.query.limit),
        files_(dataset.files().size()) {
    const std::size_t count = std::min<std::size_t>(query.query.threads, files_.size());
    try {
      for (std::size_t i = 0; i < count; ++i)
        threads_.emplace_back([this] { work(); });
    } catch (...) {
      if (threads_.empty()) throw;
    }
  }

  ~Workers() override {
    stop();
    for (std::thread& thread : threads_)
      thread.join();
  }

  bool next(ArrowArray* out) override {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (failure_) std::rethrow_exception(failure_);
      if (left_ == 0 || finished_ == files_.size()) return false;
      const std::size_t file = ready_file();
      if (file != files_.size() && !files_[file].ready.empty()) {
        OwnedArray batch = std::move(files_[file].ready.front());
        files_[file].ready.pop_front();
        waiting_bytes_ -= batch.bytes();
        retire(file);
        changed_.notify_all();
        const std::uint64_t rows = std::min<std::uint64_t>(batch.rows(), left_);
        if (left_ != Query::kNoEnd) left_ -= rows;
        progress_.rows += rows;
        batch.hand_over(out);
        if (rows < static_cast<std::uint64_t>(out->length)) shorten(out, rows);
        return true;
      }
      if (file != files_.size() && retire(file)) continue;
      changed_.wait(lock);
    }
  }

 private:
  // So many batches of a file may wait whatever they take.
  static constexpr std::size_t kAlwaysReady = 2;

  struct File {
    std::deque<OwnedArray> ready;
    bool is_decoded = false;
    bool is_finished = false;  // decoded, and every batch handed out
  };

  void work() {
    try {
      TableDecoder decoder(dataset_, query_);
      for (;;) {
        std::size_t file = 0;
        {
          const std::lock_guard lock(mutex_);
          if (is_stopped_ || next_file_ == files_.size()) break;
          file = next_file_++;
        }
        const std::uint64_t before = decoder.pages_passed_over();
        decoder.open(file);
        for (;;) {
          OwnedArray batch;
          const bool more = batch.decode(decoder, query_.query.limit);
          std::unique_lock lock(mutex_);
          if (!more) {
            files_[file].is_decoded = true;
            progress_.bytes += dataset_.files()[file].size;
            progress_.pages_passed_over += decoder.pages_passed_over() - before;
            ++progress_.files;
            changed_.notify_all();
            break;
          }
          changed_.wait(lock, [&] {
            return is_stopped_ || files_[file].ready.size() < kAlwaysReady ||
                   waiting_bytes_ < query_.query.read_ahead_bytes;
          });
          if (is_stopped_) return;
          waiting_bytes_ += batch.bytes();
          files_[file].ready.push_back(std::move(batch));
          changed_.notify_all();
        }
      }
    } catch (...) {
      const std::lock_guard lock(mutex_);
      if (!failure_) failure_ = std::current_exception();
      changed_.notify_all();
    }
  }

  // The file whose turn it is: the first that is not finished, or any that has something; else their number.
  std::size_t ready_file() {
    while (first_ < files_.size() && files_[first_].is_finished)
      ++first_;
    if (in_order_) return first_;
    for (std::size_t file = first_; file < next_file_; ++file)
      if (!files_[file].is_finished && (!files_[file].ready.empty() || files_[file].is_decoded)) return file;
    return files_.size();
  }

  bool retire(std::size_t file) {
    File& of = files_[file];
    if (of.is_finished || !of.is_decoded || !of.ready.empty()) return false;
    of.is_finished = true;
    ++finished_;
    return true;
  }

  void stop() {
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
    changed_.notify_all();
  }

  const Dataset& dataset_;
  const ResolvedQuery& query_;
  Progress& progress_;
  const bool in_order_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t left_;  // rows; all below here is guarded by the mutex
  std::vector<File> files_;
  std::uint64_t waiting_bytes_ = 0;  // of all batches that are ready
  std::size_t next_file_ = 0;        // not taken by a thread so far
  std::size_t first_ = 0;            // all files before it are finished
  std::size_t finished_ = 0;
  bool is_stopped_ = false;
  std::exception_ptr failure_;
  std::vector<std::thread> threads_;
};

TableStream::TableStream(std::shared_ptr<const Dataset> dataset, ResolvedQuery query)
    : dataset_(std::move(dataset)), query_(std::move(query)), progress_(std::make_shared<Progress>()) {}

TableStream::~TableStream() = default;

void TableStream::schema(ArrowSchema* out) const {
  std::string ids;
  for (const std::string& id : query_.table.schemas)
    ids += (ids.empty() ? "" : ",") + id;
  std::vector<std::pair<std::string, std::string>> metadata{{"table", query_.table.name}};
  if (!ids.empty()) metadata.emplace_back("schema", ids);
  export_schema(query_.columns, metadata, out);
}

bool TableStream::next(ArrowArray* out) {
  if (source_ == nullptr) {
    if (query_.query.threads > 1 && dataset_->files().size() > 1) {
      source_ = std::make_unique<Workers>(*dataset_, query_, *progress_);
    } else {
      source_ = std::make_unique<Alone>(*dataset_, query_, *progress_);
    }
  }
  return source_->next(out);
}

namespace {

struct ExportedStream {
  std::unique_ptr<TableStream> stream;
  StreamFaults faults = StreamFaults::listed;
  std::string error;

  void next(ArrowArray* to) {
    if (stream->next(to)) return;
    *to = {};
    if (faults == StreamFaults::listed) return;
    const std::vector<DataFault> found = stream->dataset().faults().list();
    // That a block failed follows from another fault of its place.
    for (const bool is_block : {false, true})
      for (const DataFault& fault : found)
        if (fault.kind != "warning" && (fault.kind == "block_failed") == is_block)
          throw std::runtime_error(fault.file + ": " + fault.words);
  }

  template <typename Action>
  int guarded(Action action) noexcept {
    try {
      action();
      return 0;
    } catch (const std::bad_alloc&) {
      error.clear();
      return ENOMEM;
    } catch (const std::system_error& failure) {
      error = failure.what();
      return failure.code().value() != 0 ? failure.code().value() : EIO;
    } catch (const std::exception& failure) {
      error = failure.what();
      return EIO;
    }
  }
};

ExportedStream& exported(ArrowArrayStream* stream) {
  return *static_cast<ExportedStream*>(stream->private_data);
}

}  // namespace

void export_stream(std::unique_ptr<TableStream> stream, ArrowArrayStream* out, StreamFaults faults) {
  auto owned = std::make_unique<ExportedStream>();
  owned->stream = std::move(stream);
  owned->faults = faults;
  *out = {};
  out->get_schema = [](ArrowArrayStream* self, ArrowSchema* to) {
    return exported(self).guarded([&] { exported(self).stream->schema(to); });
  };
  out->get_next = [](ArrowArrayStream* self, ArrowArray* to) {
    return exported(self).guarded([&] { exported(self).next(to); });
  };
  out->get_last_error = [](ArrowArrayStream* self) -> const char* {
    const std::string& error = exported(self).error;
    return error.empty() ? nullptr : error.c_str();
  };
  out->release = [](ArrowArrayStream* self) {
    delete static_cast<ExportedStream*>(self->private_data);
    self->release = nullptr;
  };
  out->private_data = owned.release();
}

}  // namespace qvx::columns
