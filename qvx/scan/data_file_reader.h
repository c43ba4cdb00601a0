// Reads data files record by record, for programs that want values.
//
//   DataFileReader reader("schema");
//   if (!reader.open("events.bin")) return complain(reader.error());
//   for (const Record& record : reader.records()) { ... }
//   if (reader.failed()) complain(reader.error());
//
// Nothing is printed and nothing goes to the logger: what the library has to say becomes words of a fault, or
// a message that is kept.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "qvx/data/file_header.h"
#include "qvx/scan/record_run.h"
#include "qvx/scan/records.h"
#include "qvx/scan/visitor.h"
#include "qvx/support/bytes.h"
#include "qvx/support/log_recorder.h"

namespace qvx {

// Reads one file after another; schemas are loaded once for all of them. Records come in the order of the
// file: those of events blocks, one for each counters block, one for each sample of a metrics block. Blob
// blocks hold no records and are passed over. What stands before a fault is given out; short memory is a
// fault like any other.
class DataFileReader {
 public:
  // The folder with the schema files. Throws std::bad_alloc, as nothing else here does.
  explicit DataFileReader(std::string schema_folder);
  ~DataFileReader();
  DataFileReader(const DataFileReader&) = delete;
  DataFileReader& operator=(const DataFileReader&) = delete;

  // Opens a file, plain or compressed by gzip, in place of the one before, and loads its types. False when
  // there is nothing to read; error() says why.
  [[nodiscard]] bool open(const std::string& path) noexcept;
  // The same for a file in memory, which outlives the reading.
  [[nodiscard]] bool open(Bytes file) noexcept;

  // Ends the reading of the file that is open; what was wrong with it stays known.
  void close() noexcept;

  // Of the file that was opened.
  const qvx_data_file_header& header() const;

  // What its records may be, by the schemas in force: each event type and, if it has counters, those. Without
  // the types of samples. Valid until the next call; empty when no file is open. Throws std::bad_alloc.
  std::vector<const RecordType*> types();

  // The next record, or null at the end or when the file failed. Valid until the next call.
  const Record* next() noexcept {
    if (left_ == 0) return read_run() ? &record_ : nullptr;
    --left_;
    record_.data_ += step_;
    record_.size_ -= step_;
    return &record_;
  }
  // The same for the next records that can be read together, behind those that were given out.
  const RecordRun* next_run() noexcept;

  // One after the other, by one of those functions.
  template <typename Item, const Item* (DataFileReader::*kNext)() noexcept>
  class Iterator {
   public:
    using value_type = Item;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    explicit Iterator(DataFileReader& reader) : reader_(&reader), item_((reader.*kNext)()) {}
    const Item& operator*() const { return *item_; }
    const Item* operator->() const { return item_; }
    Iterator& operator++() {
      item_ = (reader_->*kNext)();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return item_ == nullptr; }

   private:
    DataFileReader* reader_ = nullptr;
    const Item* item_ = nullptr;
  };
  template <typename Item, const Item* (DataFileReader::*kNext)() noexcept>
  class Range {
   public:
    explicit Range(DataFileReader& reader) : reader_(&reader) {}
    Iterator<Item, kNext> begin() const { return Iterator<Item, kNext>(*reader_); }
    std::default_sentinel_t end() const { return {}; }

   private:
    DataFileReader* reader_;
  };
  using Records = Range<Record, &DataFileReader::next>;
  using Runs = Range<RecordRun, &DataFileReader::next_run>;
  // The records from here to the end of the file, to go through once.
  Records records() { return Records(*this); }
  // The same records run by run: each an events block, a counters block or a batch of samples.
  Runs runs() { return Runs(*this); }

  // Whether the file could not be read to its end.
  bool failed() const;
  // The words of the fault that ended it; empty when it did not fail.
  const std::string& error() const;

  // Everything that is wrong with the file as far as it was read, in order, with what the library said of it
  // in the words. Of a file with more faults than kMostFaults the first ones are kept, and all counted.
  static constexpr std::size_t kMostFaults = 1000;
  const std::vector<Fault>& faults() const;
  std::size_t number_of_faults() const;

  // What else the library had to say, such as warnings about a schema; kept up to the same number.
  const std::vector<LoggedMessage>& messages() const;

 private:
  class Impl;

  bool read_run() noexcept;
  void set_run(const Record& first, std::size_t count, std::size_t step);

  // The record at hand, and how many more follow it in steps of as many bytes.
  Record record_;
  std::size_t left_ = 0;
  std::size_t step_ = 0;
  RecordRun run_;  // that was given out last
  std::unique_ptr<Impl> impl_;
};

}  // namespace qvx
