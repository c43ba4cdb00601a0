// The module qvx._core: data sets, surveys and streams of columns for the Python package, which gives them
// their public form. Everything that reads files runs without the interpreter's lock.
#include <nanobind/nanobind.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <future>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "qvx/columns/dataset.h"
#include "qvx/columns/query.h"
#include "qvx/columns/survey.h"
#include "qvx/columns/table_stream.h"

namespace nb = nanobind;
using namespace qvx::columns;

namespace {

const char* kind_name(TableKind kind) {
  switch (kind) {
    case TableKind::events:
      return "events";
    case TableKind::counters:
      return "counters";
    case TableKind::metrics:
      break;
  }
  return "metrics";
}

nb::object times_of(const TimeRange& times) {
  if (times.first > times.last) return nb::none();
  return nb::make_tuple(times.first, times.last);
}

// Does the work on a thread of its own, without the interpreter's lock, and looks after signals meanwhile:
// one whose handler raises stops the work, and what it raised goes on.
template <typename Work>
auto interruptible(const Work& work) {
  std::promise<std::invoke_result_t<Work, std::stop_token>> promise;
  auto result = promise.get_future();
  std::jthread worker([&](const std::stop_token& stop) {
    try {
      promise.set_value(work(stop));
    } catch (...) {
      promise.set_exception(std::current_exception());
    }
  });
  const nb::gil_scoped_release unlocked;
  while (result.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
    const nb::gil_scoped_acquire locked;
    if (PyErr_CheckSignals() == 0) continue;
    worker.request_stop();
    nb::python_error raised;  // takes it over before the lock is given back
    {
      const nb::gil_scoped_release unlocked_again;
      worker.join();
    }
    throw raised;
  }
  return result.get();
}

class Data {
 public:
  // Paths are bytes, as the file system has them.
  Data(const std::vector<nb::bytes>& files, const nb::bytes& schema_folder) {
    std::vector<std::string> paths;
    for (const nb::bytes& file : files)
      paths.emplace_back(file.c_str(), file.size());
    std::string schema(schema_folder.c_str(), schema_folder.size());
    const nb::gil_scoped_release unlocked;
    data_ = std::make_shared<Dataset>(std::move(paths), std::move(schema));
  }

  const Dataset& data() const { return *data_; }
  const std::shared_ptr<Dataset>& shared() const { return data_; }

  // (name, kind, provider, columns as (name, metadata), schema identifiers)
  nb::list tables() const {
    nb::list all;
    for (const Table& table : data_->tables()) {
      nb::list columns;
      for (const ColumnType& column : table.columns) {
        nb::dict metadata;
        for (const auto& [key, value] : column.metadata)
          metadata[key.c_str()] = value;
        columns.append(nb::make_tuple(column.name, metadata));
      }
      all.append(nb::make_tuple(table.name, kind_name(table.kind), table.provider, columns, table.schemas));
    }
    return all;
  }

  // (path, bytes, readable, source id, source tag, first and last time that the header states)
  nb::list files() const {
    nb::list all;
    for (const FileInfo& file : data_->files())
      all.append(nb::make_tuple(nb::bytes(file.path.data(), file.path.size()), file.size, file.readable,
                                file.source_id, file.source_tag, file.first_timestamp, file.last_timestamp));
    return all;
  }

  nb::list faults() const {
    nb::list all;
    for (const DataFault& fault : data_->faults().list())
      all.append(nb::make_tuple(nb::bytes(fault.file.data(), fault.file.size()), fault.offset, fault.kind,
                                fault.words, fault.page_offset));
    return all;
  }
  std::uint64_t faults_left_out() const { return data_->faults().left_out(); }

  nb::dict survey(unsigned threads) {
    const Survey found =
        interruptible([&](std::stop_token stop) { return qvx::columns::survey(*data_, threads, stop); });
    nb::list tables;
    for (const TableSurvey& table : found.tables)
      tables.append(
          nb::make_tuple(table.name, kind_name(table.kind), table.rows, table.blocks, times_of(table.times)));
    nb::list sources;
    for (const SourceSurvey& source : found.sources)
      sources.append(
          nb::make_tuple(source.id, source.tag, source.files, source.rows, times_of(source.times)));
    nb::list files;
    for (const FileSurvey& file : found.files) {
      nb::dict one;
      one["path"] = nb::bytes(file.path.data(), file.path.size());
      one["bytes"] = file.bytes;
      one["failed"] = file.failed;
      one["rows"] = file.rows;
      one["pages"] = file.pages;
      one["packed_bytes"] = file.packed_bytes;
      one["unpacked_bytes"] = file.unpacked_bytes;
      one["bytes_lost"] = file.bytes_lost;
      one["records_lost"] = file.records_lost;
      one["times"] = times_of(file.times);
      files.append(one);
    }
    nb::dict all;
    all["tables"] = tables;
    all["sources"] = sources;
    all["files"] = files;
    return all;
  }

 private:
  std::shared_ptr<Dataset> data_;
};

// A query whose names were checked. Each stream of it reads the files anew.
class BoundQuery {
 public:
  BoundQuery(const Data& data, const std::string& table, std::vector<std::string> columns,
             std::optional<std::uint64_t> since, std::optional<std::uint64_t> until,
             std::vector<std::pair<std::string, std::vector<std::string>>> where,
             std::optional<std::uint64_t> limit, std::size_t batch_rows, unsigned threads, bool in_order,
             bool trust_page_times)
      : data_(data.shared()) {
    Query query;
    query.table = table;
    query.columns = std::move(columns);
    query.since = since.value_or(0);
    query.until = until.value_or(Query::kNoEnd);
    query.where = std::move(where);
    query.limit = limit.value_or(Query::kNoEnd);
    query.batch_rows = batch_rows;
    query.threads = threads;
    query.in_order = in_order;
    query.trust_page_times = trust_page_times;
    resolved_ = resolve(*data_, query);
  }

  nb::capsule schema() const {
    auto* const schema = new ArrowSchema{};
    nb::capsule capsule(schema, "arrow_schema", [](void* pointer) noexcept {
      auto* const owned = static_cast<ArrowSchema*>(pointer);
      if (owned->release != nullptr) owned->release(owned);
      delete owned;
    });
    TableStream(data_, resolved_).schema(schema);
    return capsule;
  }

  nb::capsule stream() {
    auto* const stream = new ArrowArrayStream{};
    nb::capsule capsule(stream, "arrow_array_stream", [](void* pointer) noexcept {
      auto* const owned = static_cast<ArrowArrayStream*>(pointer);
      if (owned->release != nullptr) owned->release(owned);
      delete owned;
    });
    auto source = std::make_unique<TableStream>(data_, resolved_);
    progress_ = source->progress();
    export_stream(std::move(source), stream);
    return capsule;
  }

  // Of the stream that was made last: rows, files, bytes of files, pages passed over.
  nb::tuple progress() const {
    if (progress_ == nullptr) return nb::make_tuple(0, 0, 0, 0);
    return nb::make_tuple(progress_->rows.load(), progress_->files.load(), progress_->bytes.load(),
                          progress_->pages_passed_over.load());
  }

 private:
  std::shared_ptr<Dataset> data_;
  ResolvedQuery resolved_;
  std::shared_ptr<const Progress> progress_;
};

}  // namespace

NB_MODULE(_core, module) {
  // It would be told on standard error of what is still in use when the interpreter ends.
  nb::set_leak_warnings(false);
  nb::class_<Data>(module, "Data")
      .def(nb::init<const std::vector<nb::bytes>&, const nb::bytes&>(), nb::arg("paths"), nb::arg("schema"))
      .def("tables", &Data::tables)
      .def("files", &Data::files)
      .def("faults", &Data::faults)
      .def("faults_left_out", &Data::faults_left_out)
      .def("survey", &Data::survey, nb::arg("threads"));
  nb::class_<BoundQuery>(module, "BoundQuery")
      .def(nb::init<const Data&, const std::string&, std::vector<std::string>, std::optional<std::uint64_t>,
                    std::optional<std::uint64_t>,
                    std::vector<std::pair<std::string, std::vector<std::string>>>,
                    std::optional<std::uint64_t>, std::size_t, unsigned, bool, bool>())
      .def("schema", &BoundQuery::schema)
      .def("stream", &BoundQuery::stream)
      .def("progress", &BoundQuery::progress);
}
