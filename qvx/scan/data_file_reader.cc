#include "qvx/scan/data_file_reader.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <utility>

#include "qvx/scan/file_scan.h"
#include "qvx/scan/sample_reader.h"
#include "qvx/support/format.h"

namespace qvx {
namespace {

// Whether the file fails with a fault of this kind, unlike those after which reading goes on.
bool ends_file(FaultKind kind) {
  return kind != FaultKind::page_cut && kind != FaultKind::events_cut && kind != FaultKind::record_cut &&
         kind != FaultKind::metrics_damaged;
}

}  // namespace

class DataFileReader::Impl final : public ScanVisitor {
 public:
  explicit Impl(std::string schema_folder) : types_(std::move(schema_folder)) {
    error.reserve(std::strlen(std::strerror(ENOMEM)));  // so that it can be said when it is so
  }

  template <typename Source>
  bool open(Source source);
  void close() noexcept;
  std::vector<const RecordType*> types();
  bool next_run(DataFileReader& reader);

  bool on_events(const EventsBlock& block) override;
  bool on_counters(const CountersBlock& block) override;
  void on_metrics(const MetricsBlock& block) override;
  bool on_blob(const BlobBlock&) override { return true; }
  void on_fault(const Fault& fault) override;

  std::optional<FileScan> scan;
  qvx_data_file_header header;
  std::vector<Fault> faults;
  std::size_t number_of_faults = 0;
  std::vector<LoggedMessage> messages;
  std::string error;
  bool failed = false;

 private:
  // What a block gives: records one behind the other.
  struct Run {
    Record first;
    std::size_t count = 0;
    std::size_t step = 0;
  };

  template <typename Step>
  bool record_log(Step step);
  void keep_messages();
  void no_memory() noexcept;
  bool open_file(FileScan& opened, const std::string* path) { return opened.open(path->c_str(), *this); }
  bool open_file(FileScan& opened, Bytes file) {
    opened.open(file);
    return true;
  }
  void check_reach(const RecordType& type, std::size_t at_hand, const Place& place);
  bool next_batch();

  TypeCache types_;
  SampleReader samples_;
  Place samples_place_;
  bool has_samples_ = false;
  Run run_;
  const LogRecorderLevel log_level_{QVX_LOG_WARNING};
  const LogRecorder* log_ = nullptr;  // while the library is at work
  std::size_t log_used_ = 0;          // messages that have become words
};

// Runs a step with everything recorded that it logs.
template <typename Step>
bool DataFileReader::Impl::record_log(Step step) {
  const LogRecorder recorder(log_level_);
  log_ = &recorder;
  log_used_ = 0;
  bool ok = false;
  try {
    ok = step();
    keep_messages();
  } catch (const std::bad_alloc&) {
    no_memory();
  }
  log_ = nullptr;
  return ok;
}

template <typename Source>
bool DataFileReader::Impl::open(Source source) {
  faults.clear();
  number_of_faults = 0;
  messages.clear();
  error.clear();
  failed = false;
  has_samples_ = false;
  header = {};
  scan.emplace(types_);
  const bool ok = record_log([&] {
    if (!open_file(*scan, source)) return false;
    const bool has_header = scan->read_header(*this);
    header = scan->header();
    return has_header && scan->load_types(*this);
  });
  if (!ok) scan.reset();
  return ok;
}

void DataFileReader::Impl::close() noexcept {
  scan.reset();
  has_samples_ = false;
}

std::vector<const RecordType*> DataFileReader::Impl::types() {
  std::vector<const RecordType*> found;
  if (!scan) return found;
  const TypeSet& types = scan->types().types;
  for (const auto& schema : types.events) {
    for (std::size_t i = 0; i < schema->events->types.size(); ++i)
      found.push_back(&RecordTypes::of_events(*schema, i));
  }
  if (!types.counters->counters->groups.empty()) found.push_back(&RecordTypes::of_counters(*types.counters));
  return found;
}

bool DataFileReader::Impl::next_run(DataFileReader& reader) {
  if (!scan) return false;
  const bool found = record_log([&] {
    run_ = {};
    while (!next_batch()) {
      const bool goes_on = scan->next(*this);
      if (run_.count != 0) return true;
      if (!goes_on) return false;
    }
    return true;
  });
  if (!found) {
    scan.reset();
    return false;
  }
  reader.set_run(run_.first, run_.count, run_.step);
  return true;
}

bool DataFileReader::Impl::on_events(const EventsBlock& block) {
  const RecordType& type = RecordTypes::of_events(block.schema, block.type_index);
  const auto size = static_cast<std::size_t>(block.type.size);
  check_reach(type, block.records.size() - (block.count - 1) * size, block.place);
  run_ = {Record(type, block.records, block.header.timestamp), block.count, size};
  return true;
}

bool DataFileReader::Impl::on_counters(const CountersBlock& block) {
  const RecordType& type = RecordTypes::of_counters(block.schema);
  check_reach(type, block.block.size(), block.place);
  run_ = {Record(type, block.block, block.header.timestamp), 1, 0};
  return true;
}

void DataFileReader::Impl::on_metrics(const MetricsBlock& block) {
  samples_place_ = block.place;
  try {
    samples_.open(block.block);
    has_samples_ = true;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& fault) {
    on_fault({FaultKind::metrics_damaged, block.place, fault.what()});
  }
}

// The next batch of the metrics block at hand that has samples.
bool DataFileReader::Impl::next_batch() {
  while (has_samples_) {
    try {
      has_samples_ = samples_.next();
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception& fault) {
      has_samples_ = false;
      on_fault({FaultKind::metrics_damaged, samples_place_, fault.what()});
    }
    const metrics::MetricSamples samples = samples_.samples();
    if (!has_samples_ || samples.size() == 0) continue;
    run_ = {Record(RecordTypes::of_samples(samples_.value_type()), samples.bytes(), samples_.time(),
                   &samples_.batch()),
            samples.size(), metrics::wire::kSampleSize};
    return true;
  }
  return false;
}

// Fields may lie behind the end of their record; those of the last one may lie behind everything.
void DataFileReader::Impl::check_reach(const RecordType& type, std::size_t at_hand, const Place& place) {
  if (type.reach() <= at_hand) return;
  on_fault({FaultKind::record_cut, place,
            format_text("Records of type %s need %" PRIu64 " bytes, %zu are there", type.name().c_str(),
                        type.reach(), at_hand)});
}

void DataFileReader::Impl::on_fault(const Fault& fault) {
  Fault told = fault;
  for (; log_used_ < log_->messages().size(); ++log_used_) {
    told.words += told.words.size() == fault.words.size() ? ": " : "; ";
    told.words += log_->messages()[log_used_].text;
  }
  if (ends_file(fault.kind)) {
    failed = true;
    if (error.empty()) error = told.words;  // that a block failed follows the fault that made it fail
  }
  ++number_of_faults;
  if (faults.size() < kMostFaults) faults.push_back(std::move(told));
}

void DataFileReader::Impl::keep_messages() {
  for (; log_used_ < log_->messages().size() && messages.size() < kMostFaults; ++log_used_)
    messages.push_back(log_->messages()[log_used_]);
}

void DataFileReader::Impl::no_memory() noexcept {
  failed = true;
  ++number_of_faults;
  try {
    error = std::strerror(ENOMEM);
    if (faults.size() < kMostFaults) faults.push_back({FaultKind::no_memory, {}, error});
  } catch (const std::bad_alloc&) {
    // failed() tells all the same.
  }
}

DataFileReader::DataFileReader(std::string schema_folder)
    : impl_(std::make_unique<Impl>(std::move(schema_folder))) {}

DataFileReader::~DataFileReader() = default;

bool DataFileReader::open(const std::string& path) noexcept {
  left_ = 0;
  return impl_->open(&path);
}

bool DataFileReader::open(Bytes file) noexcept {
  left_ = 0;
  return impl_->open(file);
}

const qvx_data_file_header& DataFileReader::header() const {
  return impl_->header;
}

bool DataFileReader::read_run() noexcept {
  return impl_->next_run(*this);
}

const RecordRun* DataFileReader::next_run() noexcept {
  if (next() == nullptr) return nullptr;
  run_ = RecordRun(record_, left_ + 1, step_);
  left_ = 0;
  return &run_;
}

void DataFileReader::set_run(const Record& first, std::size_t count, std::size_t step) {
  record_ = first;
  left_ = count - 1;
  step_ = step;
}

void DataFileReader::close() noexcept {
  left_ = 0;
  impl_->close();
}

std::vector<const RecordType*> DataFileReader::types() {
  return impl_->types();
}

bool DataFileReader::failed() const {
  return impl_->failed;
}

const std::string& DataFileReader::error() const {
  return impl_->error;
}

const std::vector<Fault>& DataFileReader::faults() const {
  return impl_->faults;
}

std::size_t DataFileReader::number_of_faults() const {
  return impl_->number_of_faults;
}

const std::vector<LoggedMessage>& DataFileReader::messages() const {
  return impl_->messages;
}

}  // namespace qvx
