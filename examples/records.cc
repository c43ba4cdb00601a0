// Sums up data files record by record: for each event type the records, for each metric and counter its last
// value.
//
//   records <schema folder> <data file>...

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include "qvx/scan/data_file_reader.h"

namespace {

using qvx::DataFileReader;
using qvx::Field;
using qvx::Record;

// Values of any type as text; of an array the first.
std::string value_text(const Record& record, const qvx::FieldPlace& field) {
  if (const auto text = record.get<std::string_view>(field)) return '"' + std::string(*text) + '"';
  if (const auto number = record.get<std::uint64_t>(field)) return std::to_string(*number);
  if (const auto number = record.get<std::int64_t>(field)) return std::to_string(*number);
  if (const auto number = record.get<double>(field)) return std::to_string(*number);
  return "none";
}

struct Summary {
  std::map<std::string, std::uint64_t> events;  // by type
  std::map<std::string, std::string> last;      // of counters and metrics

  void add(const Record& record) {
    switch (record.kind()) {
      case qvx::RecordKind::event:
        ++events[record.type().name()];
        break;
      case qvx::RecordKind::counters:
        for (const Field& field : record.type().fields())
          last[field.name] = value_text(record, field);
        break;
      case qvx::RecordKind::sample:
        last[std::string(record.metric())] = value_text(record, record.type().fields().front());
        break;
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <schema folder> <data file>...\n", argv[0]);
    return 1;
  }
  DataFileReader reader(argv[1]);
  Summary summary;
  int status = 0;
  for (int file = 2; file < argc; ++file) {
    if (reader.open(argv[file]))
      for (const Record& record : reader.records())
        summary.add(record);
    for (const qvx::Fault& fault : reader.faults())
      std::fprintf(stderr, "%s: byte %" PRIu64 ": %s\n", argv[file], fault.place.offset, fault.words.c_str());
    if (reader.failed()) status = 1;
  }
  for (const auto& [type, count] : summary.events)
    std::printf("%s: %" PRIu64 " records\n", type.c_str(), count);
  for (const auto& [name, value] : summary.last)
    std::printf("%s: last %s\n", name.c_str(), value.c_str());
  return status;
}
