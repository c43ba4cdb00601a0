#include "qvx/columns/survey.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <stop_token>
#include <thread>
#include <utility>

#include "qvx/columns/counters_columns.h"
#include "qvx/columns/event_columns.h"
#include "qvx/columns/fault_recorder.h"
#include "qvx/data/block.h"
#include "qvx/scan/file_scan.h"
#include "qvx/scan/sample_reader.h"

namespace qvx::columns {
namespace {

using TableKey = std::pair<std::string, std::string>;  // provider and type; both empty: counters or metrics
using SourceKey = std::pair<std::string, std::string>;

struct Counts {
  std::uint64_t rows = 0;
  std::uint64_t blocks = 0;
  TimeRange times;
};

struct Found {
  std::map<TableKey, Counts> events;
  Counts counters;
  Counts metrics;
  std::map<SourceKey, SourceSurvey> sources;
};

// What is needed to count the records of a type.
class TypeNotes final : public SchemaNotes {
 public:
  struct Type {
    bool is_compiled = false;
    bool has_columns = false;
    std::uint64_t reach = 0;
    std::optional<std::uint64_t> time_offset;
    TableKey key;
  };
  explicit TypeNotes(std::size_t count) : types(count) {}
  std::size_t bytes() const override { return sizeof *this + types.size() * sizeof(Type); }
  std::vector<Type> types;
  std::uint32_t counters_rows = 0;
  std::uint64_t counters_reach = 0;
};

class Surveyor final : private ScanVisitor {
 public:
  Surveyor(Dataset& dataset, Found& found, std::stop_token stop)
      : dataset_(dataset), found_(found), stop_(std::move(stop)) {}

  FileSurvey run(std::size_t file) {
    info_ = &dataset_.files()[file];
    survey_ = {};
    survey_.path = info_->path;
    survey_.bytes = info_->size;
    survey_.failed = true;
    if (!info_->readable) {
      survey_.bytes_lost = info_->size;
      return survey_;
    }
    source_ = {info_->source_id, info_->source_tag};
    sources_here_.clear();
    std::unique_ptr<TypeCache>& cache = caches_[dataset_.schema_folder_of(file)];
    if (cache == nullptr) cache = std::make_unique<TypeCache>(dataset_.schema_folder_of(file));
    FaultRecorder recorder(dataset_.faults(), info_->path);
    recorder_ = &recorder;
    FileScan scan(*cache);
    if (scan.open(info_->path.c_str(), *this) && scan.read_header(*this) && scan.load_types(*this)) {
      while (!stop_.stop_requested() && scan.next(*this)) {
        recorder.finish(place_);
      }
      survey_.failed = scan.failed();
    }
    recorder.finish(place_);
    if (survey_.failed) survey_.bytes_lost += info_->size - std::min(info_->size, failed_at_);
    for (const SourceKey& key : sources_here_)
      ++found_.sources[key].files;
    return survey_;
  }

 private:
  PageUse on_page(const PageBlock& page, const Place& place) override {
    place_ = place;
    ++survey_.pages;
    survey_.packed_bytes += page.data.size();
    const auto text = [](std::string_view padded) { return utf8_text(padded.substr(0, padded.find('\0'))); };
    page_source_ = {text(page.source_id), text(page.source_tag)};
    return PageUse::unpack;
  }

  void on_event_header(const EventHeader& header) override { stated_ = header.num_events; }

  bool on_events(const EventsBlock& block) override {
    begin(block.place, kEventHeaderSize + block.records.size());
    there_ = block.count;
    const TypeNotes::Type& type = notes_of(block);
    if (!type.has_columns) return true;
    const std::size_t count = recorder_->whole_records(block, type.reach);
    survey_.records_lost += block.count - count;
    TimeRange times;
    if (!type.time_offset) {
      if (count > 0) times.add(block.header.timestamp);
    } else {
      const std::byte* const from = block.records.data() + *type.time_offset;
      for (std::size_t i = 0; i < count; ++i)
        times.add(load_le<std::uint64_t>(from + i * block.type.size));
    }
    add(found_.events[type.key], block.place, count, times);
    return true;
  }

  bool on_counters(const CountersBlock& block) override {
    begin(block.place, block.block.size());
    if (block.schema.notes == nullptr) {
      auto notes = std::make_unique<TypeNotes>(0);
      std::string why_not;
      if (const auto columns = compile_counters_columns(*block.schema.counters, "", why_not)) {
        notes->counters_rows = columns->rows;
        notes->counters_reach = std::max<std::uint64_t>(columns->reach, kCountersHeaderSize);
      }
      block.schema.notes = std::move(notes);
    }
    const auto& notes = static_cast<const TypeNotes&>(*block.schema.notes);
    if (block.block.size() < notes.counters_reach) {
      recorder_->add(block.place, fault_kind_name(FaultKind::block_failed),
                     "Counters block of " + std::to_string(block.block.size()) + " bytes, its values take " +
                         std::to_string(notes.counters_reach));
      ++survey_.records_lost;
      return true;
    }
    TimeRange times;
    times.add(block.header.timestamp);
    add(found_.counters, block.place, notes.counters_rows, times);
    return true;
  }

  void on_metrics(const MetricsBlock& block) override {
    begin(block.place, block.block.size());
    std::uint64_t rows = 0;
    TimeRange times;
    try {
      metrics_.open(block.block);
      while (metrics_.next()) {
        rows += metrics_.samples().size();
        times.add(metrics_.time());
      }
    } catch (const std::runtime_error& error) {
      recorder_->add(block.place, "metrics_failed", std::string("Metrics block: ") + error.what());
    }
    add(found_.metrics, block.place, rows, times);
  }

  void on_schemas(const SchemasBlock& block) override {
    begin(block.place, 0);
    dataset_.learn(block.types, info_->path);
  }

  bool on_blob(const BlobBlock& block) override {
    begin(block.place, kBlobHeaderSize + block.data.size());
    return true;
  }

  void on_fault(const Fault& fault) override {
    place_ = fault.place;
    recorder_->fault(fault);
    const std::uint64_t unit = info_->block_size;
    switch (fault.kind) {
      case FaultKind::events_cut:
        survey_.records_lost += stated_ - std::min<std::uint64_t>(stated_, there_);
        there_ = 0;
        break;
      case FaultKind::page_cut: {
        const std::uint64_t in_unit = (fault.place.offset - kFileHeaderSize) % unit;
        survey_.bytes_lost +=
            std::min(unit - in_unit, info_->size - std::min(info_->size, fault.place.offset));
        break;
      }
      default:
        failed_at_ = fault.place.offset;
        break;
    }
  }

  // `at_hand`: from the start of the block to the end of its page or data block.
  void begin(const Place& place, std::size_t at_hand) {
    place_ = place;
    if (place.in_page && place.page_offset == 0) survey_.unpacked_bytes += at_hand;
  }

  const TypeNotes::Type& notes_of(const EventsBlock& block) {
    if (block.schema.notes == nullptr)
      block.schema.notes = std::make_unique<TypeNotes>(block.schema.events->types.size());
    TypeNotes::Type& type = static_cast<TypeNotes&>(*block.schema.notes).types[block.type_index];
    if (type.is_compiled) return type;
    std::string why_not;
    if (const auto columns = compile_event_columns(block.type, "", why_not)) {
      type.has_columns = true;
      type.reach = columns->reach;
      type.time_offset = columns->time_offset;
    }
    type.key = {utf8_text(block.schema.events->name.value_or("")), utf8_text(block.type.name)};
    type.is_compiled = true;
    return type;
  }

  void add(Counts& counts, const Place& place, std::uint64_t rows, const TimeRange& times) {
    counts.rows += rows;
    ++counts.blocks;
    counts.times.add(times);
    survey_.rows += rows;
    survey_.times.add(times);
    const SourceKey& key = place.in_page ? page_source_ : source_;
    SourceSurvey& source = found_.sources[key];
    source.rows += rows;
    source.times.add(times);
    if (std::find(sources_here_.begin(), sources_here_.end(), key) == sources_here_.end())
      sources_here_.push_back(key);
  }

  Dataset& dataset_;
  Found& found_;
  std::stop_token stop_;
  std::map<std::string, std::unique_ptr<TypeCache>> caches_;
  const FileInfo* info_ = nullptr;
  FileSurvey survey_;
  FaultRecorder* recorder_ = nullptr;
  Place place_;
  std::uint64_t failed_at_ = 0;
  std::uint64_t stated_ = 0;  // records of the last events block, and how many of them are there
  std::uint64_t there_ = 0;
  SourceKey source_;
  SourceKey page_source_;
  std::vector<SourceKey> sources_here_;
  SampleReader metrics_{UnknownMetrics::fault};
};

void merge(Found& into, const Found& from) {
  const auto add = [](Counts& to, const Counts& more) {
    to.rows += more.rows;
    to.blocks += more.blocks;
    to.times.add(more.times);
  };
  for (const auto& [key, counts] : from.events)
    add(into.events[key], counts);
  add(into.counters, from.counters);
  add(into.metrics, from.metrics);
  for (const auto& [key, source] : from.sources) {
    SourceSurvey& to = into.sources[key];
    to.files += source.files;
    to.rows += source.rows;
    to.times.add(source.times);
  }
}

}  // namespace

Survey survey(Dataset& dataset, unsigned threads, std::stop_token stop) {
  Survey result;
  const std::size_t files = dataset.files().size();
  result.files.resize(files);
  Found all;
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::exception_ptr failure;
  const auto work = [&] {
    try {
      Found found;
      Surveyor surveyor(dataset, found, stop);
      for (std::size_t file = next++; file < files && !stop.stop_requested(); file = next++)
        result.files[file] = surveyor.run(file);
      const std::lock_guard lock(mutex);
      merge(all, found);
    } catch (...) {
      const std::lock_guard lock(mutex);
      if (!failure) failure = std::current_exception();
    }
  };
  {
    std::vector<std::jthread> more;
    for (unsigned i = 1; i < std::min<std::size_t>(threads, files); ++i)
      more.emplace_back(work);
    work();
  }
  if (failure) std::rethrow_exception(failure);

  for (const Table& table : dataset.tables()) {
    const Counts* counts = nullptr;
    if (table.kind == TableKind::counters) counts = &all.counters;
    if (table.kind == TableKind::metrics) counts = &all.metrics;
    if (const auto found = all.events.find({table.provider, table.type});
        table.kind == TableKind::events && found != all.events.end())
      counts = &found->second;
    if (counts != nullptr && counts->rows > 0)
      result.tables.push_back({table.name, table.kind, counts->rows, counts->blocks, counts->times});
  }
  for (auto& [key, source] : all.sources) {
    source.id = key.first;
    source.tag = key.second;
    result.sources.push_back(source);
  }
  return result;
}

}  // namespace qvx::columns
