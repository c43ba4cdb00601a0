#include "qvx/columns/table_decoder.h"

#include <algorithm>
#include <new>
#include <utility>

#include "qvx/columns/counters_columns.h"
#include "qvx/columns/event_columns.h"
#include "qvx/data/block.h"
#include "qvx/support/saturate.h"

namespace qvx::columns {
namespace {

// Counters blocks that are staged together, and how long they may be.
constexpr std::size_t kStagedBlocks = 64;
constexpr std::size_t kMostStagedBlock = 4096;

class EventBindings final : public SchemaNotes {
 public:
  explicit EventBindings(std::size_t types) : bindings(types) {}
  std::size_t bytes() const override { return sizeof *this + bindings.size() * sizeof bindings[0]; }
  std::vector<std::unique_ptr<Binding>> bindings;  // by type; null: not made so far
};

class CountersBinding final : public SchemaNotes {
 public:
  std::size_t bytes() const override {
    return sizeof *this + binding->plans.size() * (sizeof(ColumnPlan) + sizeof(Binding::Bound));
  }
  std::shared_ptr<const Binding> binding;
};

std::size_t rows_within(const std::vector<ColumnType>& columns, std::size_t wanted) {
  std::uint64_t bytes = 1;
  for (const ColumnType& column : columns)
    bytes += std::min(row_bytes(column), kMostBatchBytes);
  return std::max<std::size_t>(1, std::min<std::size_t>(std::max<std::size_t>(1, wanted),
                                                        static_cast<std::size_t>(kMostBatchBytes / bytes)));
}

std::uint64_t bytes_of_row(const std::vector<ColumnType>& columns) {
  std::uint64_t bytes = 0;
  for (const ColumnType& column : columns)
    bytes = saturating_add(bytes, row_bytes(column));
  return std::max<std::uint64_t>(1, bytes);
}

std::string_view up_to_nul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

}  // namespace

TableDecoder::TableDecoder(const Dataset& dataset, const ResolvedQuery& query)
    : dataset_(dataset),
      query_(query),
      most_batch_rows_(rows_within(query.columns, query.query.batch_rows)),
      row_bytes_(bytes_of_row(query.columns)),
      table_row_bytes_(bytes_of_row(query.table.columns)),
      has_extras_(std::any_of(query.sources.begin(), query.sources.end(),
                              [](const ResolvedQuery::Source& source) { return source.is_extra; })),
      needs_source_(has_extras_ || !query.query.where.empty()),
      metric_patterns_(query.patterns_for("metric")) {}

void TableDecoder::open(std::size_t file) {
  flush_staged();
  events_.reset();
  counters_.reset();
  has_metrics_ = false;
  columns_.clear();
  rows_ = 0;
  scan_.reset();
  file_ = &dataset_.files()[file];
  page_source_id_.clear();
  page_source_tag_.clear();
  place_ = {};
  expected_rows_ = std::max(expected_rows_, static_cast<std::size_t>(file_->size / table_row_bytes_));
  const auto* const patterns = query_.patterns_for("_file");
  is_file_selected_ = file_->readable && (patterns == nullptr || matches_any(file_->path, *patterns));
  if (!is_file_selected_) return;
  const std::string& folder = dataset_.schema_folder_of(file);
  std::unique_ptr<TypeCache>& cache = caches_[folder];
  if (cache == nullptr) cache = std::make_unique<TypeCache>(folder);
  FaultRecorder recorder(dataset_.faults(), file_->path);
  recorder_ = &recorder;
  scan_.emplace(*cache);
  if (!scan_->open(file_->path.c_str(), *this) || !scan_->read_header(*this) || !scan_->load_types(*this))
    scan_.reset();
  recorder.finish(place_);
  recorder_ = nullptr;
}

void TableDecoder::begin_batch() {
  columns_.clear();
  columns_.reserve(query_.columns.size());
  // Room for as many rows as there may be, and as much text as there was: growing copies what is there.
  last_text_bytes_.resize(query_.columns.size());
  for (std::size_t i = 0; i < query_.columns.size(); ++i)
    columns_.emplace_back(query_.columns[i])
        .reserve(std::min(expected_rows_, batch_rows_), last_text_bytes_[i]);
  metric_indices_.clear();  // those of the columns before
  rows_ = 0;
  last_rows_ = 0;
}

bool TableDecoder::next(std::uint64_t limit, ArrowArray* out) {
  if (!scan_) {
    last_rows_ = 0;
    return false;
  }
  batch_rows_ = static_cast<std::size_t>(std::min<std::uint64_t>(most_batch_rows_, limit));
  begin_batch();
  FaultRecorder recorder(dataset_.faults(), file_->path);
  recorder_ = &recorder;
  bool more = true;
  try {
    while (rows_ < batch_rows_) {
      drain();
      if (rows_ >= batch_rows_) break;
      more = scan_->next(*this);
      if (!more) break;
    }
  } catch (const std::bad_alloc&) {
    recorder_ = nullptr;
    scan_.reset();
    throw;
  }
  flush_staged();
  recorder.finish(place_);
  recorder_ = nullptr;
  if (!more) scan_.reset();
  if (rows_ == 0) return false;
  last_rows_ = rows_;
  expected_rows_ = std::max(expected_rows_, rows_);
  last_bytes_ = saturating_multiply(rows_, row_bytes_);
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    last_text_bytes_[i] = columns_[i].text_bytes();
    last_bytes_ = saturating_add(last_bytes_, last_text_bytes_[i]);
  }
  export_batch(columns_, rows_, out);
  columns_.clear();
  rows_ = 0;
  return true;
}

void TableDecoder::drain() {
  if (events_) {
    drain_events();
  } else if (counters_) {
    drain_counters();
  } else if (has_metrics_) {
    drain_metrics();
  }
}

PageUse TableDecoder::on_page(const PageBlock& page, const Place& place) {
  place_ = place;
  const Query& query = query_.query;
  const std::uint64_t first = page.header.first_timestamp;
  const std::uint64_t last = page.header.last_timestamp;
  if (query.trust_page_times && first > 0 && first <= last && (last < query.since || first > query.until)) {
    ++pages_passed_over_;
    return PageUse::done;
  }
  page_source_id_ = utf8_text(up_to_nul(page.source_id));
  page_source_tag_ = utf8_text(up_to_nul(page.source_tag));
  return PageUse::unpack;
}

void TableDecoder::choose_source(const Place& place) {
  place_ = place;
  if (!needs_source_) return;
  source_id_ = place.in_page ? std::string_view(page_source_id_) : file_->source_id;
  source_tag_ = place.in_page ? std::string_view(page_source_tag_) : file_->source_tag;
  const auto* const ids = query_.patterns_for("_source_id");
  const auto* const tags = query_.patterns_for("_source_tag");
  is_source_selected_ = (ids == nullptr || matches_any(std::string(source_id_), *ids)) &&
                        (tags == nullptr || matches_any(std::string(source_tag_), *tags));
}

void TableDecoder::on_fault(const Fault& fault) {
  place_ = fault.place;
  recorder_->fault(fault);
}

void TableDecoder::fault(const Place& place, FaultKind kind, const std::string& words) {
  recorder_->fault({kind, place, words});
}

// -- Binding

void TableDecoder::bind(Binding& binding, const std::vector<ColumnType>& types, std::size_t first_column,
                        const std::string& schema_id, const std::vector<std::uint32_t>* sets) {
  std::vector<bool> filled(query_.columns.size());
  for (std::size_t i = 0; i < types.size(); ++i) {
    const std::optional<std::size_t> column = find_merged(query_.table.columns, types[i], schema_id);
    if (!column) {
      fault(place_, FaultKind::types_failed,
            "Column " + types[i].name + " of schema " + schema_id + " is not in table " + query_.table.name +
                ": it became known too late");
      continue;
    }
    const std::optional<std::size_t> place = query_.place_of(*column);
    if (!place || filled[*place]) continue;
    filled[*place] = true;
    binding.bound.push_back({*place, &binding.plans[i], sets != nullptr ? (*sets)[i] : 1});
  }
  for (std::size_t place = 0; place < query_.columns.size(); ++place) {
    const ResolvedQuery::Source& source = query_.sources[place];
    if (!filled[place] && !source.is_extra && source.index >= first_column) binding.missing.push_back(place);
  }
}

const Binding& TableDecoder::event_binding(LoadedSchema& schema, std::size_t type_index) {
  if (schema.notes == nullptr) schema.notes = std::make_unique<EventBindings>(schema.events->types.size());
  std::unique_ptr<Binding>& made = static_cast<EventBindings&>(*schema.notes).bindings[type_index];
  if (made != nullptr) [[likely]]
    return *made;
  auto binding = std::make_unique<Binding>();
  const qvx_type_definition& type = *schema.events->types[type_index];
  binding->is_asked_for = query_.table.kind == TableKind::events &&
                          utf8_text(type.name) == query_.table.type &&
                          utf8_text(schema.events->name.value_or("")) == query_.table.provider;
  if (binding->is_asked_for) {
    std::string why_not;
    const std::string id = id_text(schema.id);
    if (auto columns = compile_event_columns(type, id, why_not)) {
      binding->plans = std::move(columns->plans);
      binding->reach = columns->reach;
      binding->time_offset = columns->time_offset;
      bind(*binding, columns->types, 0, id, nullptr);
    } else {
      binding->is_asked_for = false;
      fault(place_, FaultKind::types_failed,
            "Type " + query_.table.type + " of schema " + id + " has no columns: " + why_not);
    }
  }
  made = std::move(binding);
  return *made;
}

const std::shared_ptr<const Binding>& TableDecoder::counters_binding(LoadedSchema& schema) {
  if (schema.notes != nullptr) [[likely]]
    return static_cast<CountersBinding&>(*schema.notes).binding;
  auto notes = std::make_unique<CountersBinding>();
  const auto made = std::make_shared<Binding>();
  Binding& binding = *made;
  notes->binding = made;
  std::string why_not;
  const std::string id = id_text(schema.id);
  if (auto columns = compile_counters_columns(*schema.counters, id, why_not)) {
    binding.is_asked_for = true;
    binding.plans = std::move(columns->plans);
    binding.reach = std::max<std::uint64_t>(columns->reach, kCountersHeaderSize);
    binding.rows = columns->rows;
    bind(binding, columns->types, counters_row_columns().size(), id, &columns->sets);
    std::uint64_t needed = kCountersHeaderSize;
    for (const Binding::Bound& bound : binding.bound)
      needed =
          std::max(needed, bound.plan->offset + (bound.plan->is_utf8 ? bound.plan->count : kCounterSlotSize));
    if (binding.rows == 1 && needed <= kMostStagedBlock)
      binding.staged_bytes = static_cast<std::size_t>(needed);
  } else {
    fault(place_, FaultKind::types_failed, "Counters schema " + id + " has no columns: " + why_not);
  }
  schema.notes = std::move(notes);
  return static_cast<CountersBinding&>(*schema.notes).binding;
}

// -- Rows

void TableDecoder::add_times(std::size_t column, std::uint64_t time, std::size_t count) {
  std::byte bytes[sizeof time];
  store_le(bytes, time);
  ColumnPlan plan;
  plan.kind = ColumnKind::timestamp;
  columns_[column].append(plan, bytes, 0, count);
}

void TableDecoder::add_constant(ExtraColumn column, std::string_view text, std::size_t count) {
  const std::optional<std::size_t> place = query_.place_of(column);
  if (place) columns_[*place].append_index(columns_[*place].index_of(text), count);
}

// Those but the time.
void TableDecoder::add_extras(const Place& place, std::size_t count) {
  if (!has_extras_) return;
  add_constant(ExtraColumn::source_id, source_id_, count);
  add_constant(ExtraColumn::source_tag, source_tag_, count);
  if (query_.place_of(ExtraColumn::file)) add_constant(ExtraColumn::file, utf8_text(file_->path), count);
  if (const auto block = query_.place_of(ExtraColumn::block)) {
    const std::uint64_t offset = place.offset - std::min<std::uint64_t>(place.offset, kFileHeaderSize);
    for (std::size_t i = 0; i < count; ++i)
      columns_[*block].append_value(offset / scan_->header().block_size);
  }
}

bool TableDecoder::on_events(const EventsBlock& block) {
  place_ = block.place;
  const Binding& binding = event_binding(block.schema, block.type_index);
  if (!binding.is_asked_for) return true;
  choose_source(block.place);
  if (!is_source_selected_) return true;
  const std::size_t count = recorder_->whole_records(block, binding.reach);
  if (!binding.time_offset && !is_in_range(block.header.timestamp)) return true;
  if (count == 0) return true;
  events_.emplace(block);
  binding_ = &binding;
  next_row_ = 0;
  end_row_ = count;
  return true;
}

void TableDecoder::add_events(std::size_t first, std::size_t count) {
  const std::size_t size = events_->type.size;
  const std::byte* const from = events_->records.data() + first * size;
  for (const Binding::Bound& bound : binding_->bound)
    columns_[bound.place].append(*bound.plan, from, size, count);
  for (const std::size_t missing : binding_->missing)
    columns_[missing].append_nulls(count);
  add_extras(events_->place, count);
  if (const auto time = query_.place_of(ExtraColumn::time)) {
    if (binding_->time_offset) {
      ColumnPlan plan;
      plan.kind = ColumnKind::timestamp;
      plan.offset = *binding_->time_offset;
      columns_[*time].append(plan, from, size, count);
    } else {
      add_times(*time, events_->header.timestamp, count);
    }
  }
  rows_ += count;
}

void TableDecoder::drain_events() {
  const std::size_t end = next_row_ + std::min(end_row_ - next_row_, room());
  const bool is_whole = query_.query.since == 0 && query_.query.until == Query::kNoEnd;
  if (is_whole || !binding_->time_offset) {
    add_events(next_row_, end - next_row_);
    next_row_ = end;
  } else {
    const std::size_t size = events_->type.size;
    const std::byte* const times = events_->records.data() + *binding_->time_offset;
    const auto is_wanted = [&](std::size_t row) {
      return is_in_range(load_le<std::uint64_t>(times + row * size));
    };
    while (next_row_ < end_row_ && room() > 0) {
      if (!is_wanted(next_row_)) {
        ++next_row_;
        continue;
      }
      const std::size_t first = next_row_;
      const std::size_t most = first + std::min(end_row_ - first, room());
      while (next_row_ < most && is_wanted(next_row_))
        ++next_row_;
      add_events(first, next_row_ - first);
    }
  }
  if (next_row_ == end_row_) events_.reset();
}

bool TableDecoder::on_counters(const CountersBlock& block) {
  place_ = block.place;
  if (query_.table.kind != TableKind::counters || !is_in_range(block.header.timestamp)) return true;
  choose_source(block.place);
  if (!is_source_selected_) return true;
  const std::shared_ptr<const Binding>& shared = counters_binding(block.schema);
  const Binding& binding = *shared;
  if (!binding.is_asked_for || binding.rows == 0) return true;
  if (block.block.size() < binding.reach) {
    fault(block.place, FaultKind::block_failed,
          "Counters block of " + std::to_string(block.block.size()) + " bytes, its values take " +
              std::to_string(binding.reach));
    return true;
  }
  if (binding.staged_bytes > 0) {
    stage_counters(block, shared);
    return true;
  }
  counters_.emplace(block);
  binding_ = &binding;
  next_row_ = 0;
  end_row_ = binding.rows;
  return true;
}

// Takes a block of one row to be read with others.
void TableDecoder::stage_counters(const CountersBlock& block, const std::shared_ptr<const Binding>& shared) {
  if (staged_binding_ != shared || staged_count_ == kStagedBlocks) {
    flush_staged();
    staged_binding_ = shared;
  }
  staged_.append(as_text(block.block.first(shared->staged_bytes)));
  ++staged_count_;
  add_extras(block.place, 1);
  ++rows_;
}

void TableDecoder::flush_staged() {
  if (staged_count_ == 0) return;
  const std::size_t size = staged_binding_->staged_bytes;
  for (const Binding::Bound& bound : staged_binding_->bound) {
    const std::size_t valid = bound.sets > 0 ? staged_count_ : 0;
    columns_[bound.place].append(*bound.plan, staged_.data(), size, valid);
    columns_[bound.place].append_nulls(staged_count_ - valid);
  }
  for (const std::size_t missing : staged_binding_->missing)
    columns_[missing].append_nulls(staged_count_);
  ColumnPlan timestamp;
  timestamp.kind = ColumnKind::timestamp;
  timestamp.offset = offset_of(kCountersBlockLayout, "timestamp");
  for (const auto time : {query_.place_of(ExtraColumn::time), query_.place_of(std::size_t{0})})
    if (time) columns_[*time].append(timestamp, staged_.data(), size, staged_count_);
  if (const auto set = query_.place_of(std::size_t{1}))
    for (std::size_t i = 0; i < staged_count_; ++i)
      columns_[*set].append_value(std::uint32_t{0});
  staged_.clear();
  staged_count_ = 0;
  staged_binding_.reset();
}

// All sets of a group show the same values.
void TableDecoder::drain_counters() {
  flush_staged();
  const std::size_t count = std::min(end_row_ - next_row_, room());
  for (const Binding::Bound& bound : binding_->bound) {
    const std::size_t valid =
        std::min<std::size_t>(count, bound.sets - std::min<std::size_t>(bound.sets, next_row_));
    columns_[bound.place].append(*bound.plan, counters_->block.data(), 0, valid);
    columns_[bound.place].append_nulls(count - valid);
  }
  for (const std::size_t missing : binding_->missing)
    columns_[missing].append_nulls(count);
  add_extras(counters_->place, count);
  const std::uint64_t timestamp = counters_->header.timestamp;
  if (const auto time = query_.place_of(ExtraColumn::time)) add_times(*time, timestamp, count);
  if (const auto time = query_.place_of(std::size_t{0})) add_times(*time, timestamp, count);
  if (const auto set = query_.place_of(std::size_t{1}))
    for (std::size_t row = next_row_; row < next_row_ + count; ++row)
      columns_[*set].append_value(static_cast<std::uint32_t>(row));
  rows_ += count;
  next_row_ += count;
  if (next_row_ == end_row_) counters_.reset();
}

}  // namespace qvx::columns
