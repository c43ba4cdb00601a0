// Decodes one table out of one file after the other, batch by batch, on one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/columns/arrow_c.h"
#include "qvx/columns/column.h"
#include "qvx/columns/dataset.h"
#include "qvx/columns/fault_recorder.h"
#include "qvx/columns/query.h"
#include "qvx/scan/file_scan.h"
#include "qvx/scan/sample_reader.h"

namespace qvx::columns {

// A batch is not larger, unless a single row is.
inline constexpr std::uint64_t kMostBatchBytes = std::uint64_t{64} << 20;

// Where the columns of a query lie in the records of one schema's type.
struct Binding {
  struct Bound {
    std::size_t place;  // in the result
    const ColumnPlan* plan;
    std::uint32_t sets;  // rows of a counters block that have it
  };
  bool is_asked_for = false;
  std::vector<ColumnPlan> plans;
  std::vector<Bound> bound;
  std::vector<std::size_t> missing;  // columns of the result that these records do not have
  std::uint64_t reach = 0;           // bytes that a record must have at hand
  std::uint32_t rows = 1;            // of a counters block
  std::size_t staged_bytes = 0;      // of a counters block of one row what its columns need; 0: too long
  std::optional<std::uint64_t> time_offset;  // of an event's time
};

class TableDecoder final : private ScanVisitor {
 public:
  // Both outlive the decoder. Of the query `limit` is not looked at.
  TableDecoder(const Dataset& dataset, const ResolvedQuery& query);

  // Begins a file, named by its index in the dataset; what was left of the one before is dropped.
  void open(std::size_t file);

  // Hands over the next rows of the file. False behind the last. At most `limit` rows. Faults go to the list
  // of the dataset. Throws std::bad_alloc.
  [[nodiscard]] bool next(std::uint64_t limit, ArrowArray* out);

  std::size_t rows_of_last_batch() const { return last_rows_; }
  // Roughly, and no less than its texts and labels take.
  std::uint64_t bytes_of_last_batch() const { return last_bytes_; }
  std::uint64_t pages_passed_over() const { return pages_passed_over_; }

 private:
  PageUse on_page(const PageBlock& page, const Place& place) override;
  bool on_events(const EventsBlock& block) override;
  bool on_counters(const CountersBlock& block) override;
  void on_metrics(const MetricsBlock& block) override;
  bool on_blob(const BlobBlock&) override { return true; }
  void on_fault(const Fault& fault) override;

  const Binding& event_binding(LoadedSchema& schema, std::size_t type_index);
  const std::shared_ptr<const Binding>& counters_binding(LoadedSchema& schema);
  void bind(Binding& binding, const std::vector<ColumnType>& types, std::size_t first_column,
            const std::string& schema_id, const std::vector<std::uint32_t>* sets);

  // Each adds rows of the block at hand until it or the batch is full, and drops the block at its end.
  void drain();
  void drain_events();
  void drain_counters();
  void drain_metrics();
  void stage_counters(const CountersBlock& block, const std::shared_ptr<const Binding>& binding);
  void flush_staged();

  bool is_in_range(std::uint64_t time) const {
    return time >= query_.query.since && time <= query_.query.until;
  }
  std::size_t room() const { return batch_rows_ - rows_; }
  void add_events(std::size_t first, std::size_t count);
  void add_extras(const Place& place, std::size_t count);
  void add_times(std::size_t column, std::uint64_t time, std::size_t count);
  void add_constant(ExtraColumn column, std::string_view text, std::size_t count);
  void choose_source(const Place& place);
  bool next_metrics_batch();
  bool is_selected(std::size_t metric);
  bool add_samples(const metrics::MetricSamples& samples);
  std::size_t add_labels(Column& column, std::size_t count, bool& are_utf8);
  void add_metrics(Column& column, const metrics::MetricSamples& samples);
  void metrics_fault(const char* words);
  void begin_batch();
  void fault(const Place& place, FaultKind kind, const std::string& words);

  const Dataset& dataset_;
  const ResolvedQuery& query_;
  std::size_t most_batch_rows_;
  std::uint64_t row_bytes_;        // of the result, roughly
  std::uint64_t table_row_bytes_;  // roughly, in a file
  bool has_extras_;                // columns that the table itself does not have
  bool needs_source_;
  const std::vector<std::string>* metric_patterns_;  // null: all metrics
  std::size_t batch_rows_ = 0;                       // of the batch at hand

  std::map<std::string, std::unique_ptr<TypeCache>> caches_;  // by schema folder
  const FileInfo* file_ = nullptr;
  std::optional<FileScan> scan_;
  FaultRecorder* recorder_ = nullptr;  // of the step at hand
  Place place_;                        // of the block at hand
  bool is_file_selected_ = false;

  // The source of the page at hand, and of the block at hand.
  std::string page_source_id_;
  std::string page_source_tag_;
  std::string_view source_id_;
  std::string_view source_tag_;
  bool is_source_selected_ = true;

  std::vector<Column> columns_;
  std::size_t rows_ = 0;
  std::size_t last_rows_ = 0;
  std::uint64_t last_bytes_ = 0;
  std::size_t expected_rows_ = 0;             // of the next batch, if it is not full before
  std::vector<std::size_t> last_text_bytes_;  // of each column, per batch
  std::uint64_t pages_passed_over_ = 0;

  // The block whose rows are being added.
  std::optional<EventsBlock> events_;
  std::optional<CountersBlock> counters_;
  const Binding* binding_ = nullptr;  // kept with the schema of the block
  std::size_t next_row_ = 0;
  std::size_t end_row_ = 0;
  SampleReader metrics_{UnknownMetrics::fault};
  bool has_metrics_ = false;
  bool has_samples_ = false;
  std::size_t next_sample_ = 0;
  // Of each metric that the blocks at hand name, when it is known: whether the conditions select it, and its
  // index in the column of metrics.
  std::vector<std::optional<bool>> selected_metrics_;
  std::vector<std::int32_t> metric_indices_;
  std::vector<std::int32_t> sample_indices_;
  std::vector<double> sample_values_;

  // Counters blocks are copied side by side and become columns together.
  Buffer staged_;
  std::shared_ptr<const Binding> staged_binding_;  // outlives the schema that it was made for
  std::size_t staged_count_ = 0;
};

}  // namespace qvx::columns
