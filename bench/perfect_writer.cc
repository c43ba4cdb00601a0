// The upper yardstick: what a reader could be at best that knew all schemas when it was compiled. Prints the
// same NDJSON as the reader for the benchmark's files and nothing else: names and offsets are constants,
// nothing is looked up, checked or kept. Numbers become text by the library's own routines, so what is
// measured is the cost of being general.
//
//   qvx_perfect_writer events|counters|metrics <file>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "qvx/plan/plan_values.h"
#include "qvx/support/bytes.h"
#include "qvx/support/clock.h"
#include "qvx/support/number.h"

namespace {

constexpr std::size_t kFileHeader = 256;
constexpr std::size_t kCounters = 100;
constexpr std::size_t kSamples = 100;

// Written out when it cannot take another record.
class Output {
 public:
  static constexpr std::size_t kSize = 256 * 1024;
  static constexpr std::size_t kRecord = 16 * 1024;

  char* room() {
    if (at_ > buffer_.get() + kSize - kRecord) flush();
    return at_;
  }
  void commit(char* end) { at_ = end; }
  bool flush() {
    for (const char* from = buffer_.get(); ok_ && from != at_;) {
      const ssize_t count = write(STDOUT_FILENO, from, static_cast<std::size_t>(at_ - from));
      ok_ = count > 0;
      from += count;
    }
    at_ = buffer_.get();
    return ok_;
  }

 private:
  std::unique_ptr<char[]> buffer_ = std::make_unique_for_overwrite<char[]>(kSize);
  char* at_ = buffer_.get();
  bool ok_ = true;
};

template <std::size_t kSize>
char* put(char* out, const char (&literal)[kSize]) {
  std::memcpy(out, literal, kSize - 1);
  return out + kSize - 1;
}

template <typename T>
char* put_integer(char* out, const std::byte* from) {
  return qvx::write_decimal(out, std::uint64_t{qvx::load_le<T>(from)});
}

char* put_double(char* out, const std::byte* from) {
  return qvx::write_json_double(out, qvx::load_le<double>(from));
}

// ---- events ----

constexpr std::size_t kEventUnit = 64 * 1024;
constexpr std::size_t kEvent = 77;

char* put_event(char* out, const std::byte* record) {
  out = put_integer<std::uint64_t>(put(out, "{\"timestamp\":"), record);
  out = put_integer<std::uint32_t>(put(out, ",\"node\":"), record + 8);
  out = put_integer<std::uint16_t>(put(out, ",\"cpu\":"), record + 12);
  out = qvx::write_printable<true>(put(out, ",\"device\":\""), record + 14, 16);
  out = qvx::write_json_number(put(out, "\",\"job_id\":"), qvx::load_le<std::uint64_t>(record + 30));
  out = qvx::write_json_number(put(out, ",\"bytes_received\":"), qvx::load_le<std::uint64_t>(record + 38));
  out = put_integer<std::uint32_t>(put(out, ",\"packets_received\":"), record + 46);
  out = put_integer<std::uint16_t>(put(out, ",\"errors\":"), record + 50);
  out = put_integer<std::uint8_t>(put(out, ",\"state\":"), record + 52);
  out = put_double(put(out, ",\"load_average\":"), record + 53);
  out = put_double(put(out, ",\"temperature\":"), record + 61);
  out = put_double(put(out, ",\"utilisation\":"), record + 69);
  return put(out, "}\n");
}

void put_events(Output& output, const std::byte* unit, qvx::LocalTimeText&) {
  const std::byte* const end = unit + kEventUnit - 16;
  for (const std::byte* block = unit; block < end && block[3] == std::byte{'E'};) {
    const auto count = std::to_integer<unsigned>(block[15]);
    block += 16;
    for (unsigned i = 0; i < count; ++i, block += kEvent)
      output.commit(put_event(output.room(), block));
  }
}

// ---- names that have a number ----

// Copied in one piece of this size.
constexpr std::size_t kPiece = 32;

struct Name {
  std::array<char, kPiece> text{};
  std::size_t size = 0;

  constexpr void add(std::string_view more) {
    for (const char letter : more)
      text[size++] = letter;
  }
};

template <std::size_t kCount>
constexpr std::array<Name, kCount> numbered(std::string_view first, std::string_view before,
                                            std::string_view after) {
  std::array<Name, kCount> names;
  for (std::size_t at = 0; at < kCount; ++at) {
    names[at].add(at == 0 ? first : before);
    if (at >= 10) names[at].add({"0123456789" + at / 10, 1});
    names[at].add({"0123456789" + at % 10, 1});
    names[at].add(after);
  }
  return names;
}

char* put_name(char* out, const Name& name) {
  std::memcpy(out, name.text.data(), kPiece);
  return out + name.size;
}

char* put_time(char* out, std::uint64_t timestamp, qvx::LocalTimeText& clock) {
  out = qvx::write_json_number(put(out, "{\"timestamp\":"), timestamp);
  out = put(out, ",\"@timestamp\":\"");
  return out + clock.write(out, timestamp);
}

// ---- counters ----

constexpr std::size_t kCountersUnit = 16 + 8 * kCounters;
constexpr auto kCounterNames = numbered<kCounters>("\"hw_counter_", ",\"hw_counter_", "\":");

void put_counters(Output& output, const std::byte* unit, qvx::LocalTimeText& clock) {
  char* out = put_time(output.room(), qvx::load_le<std::uint64_t>(unit + 8), clock);
  out = put(out, "\",\"groups\":[{\"granularity\":\"NODE\",\"name\":\"node\",\"counter_sets\":[{");
  for (std::size_t at = 0; at < kCounters; ++at)
    out = qvx::write_json_number(put_name(out, kCounterNames[at]),
                                 qvx::load_le<std::uint64_t>(unit + 16 + 8 * at));
  output.commit(put(out, "}]}]}\n"));
}

// ---- metrics ----

constexpr std::size_t kMetricsUnit = 2835;
constexpr std::size_t kFirstSample = 1819;
constexpr auto kMetricNames = numbered<kSamples>("{\"hw_counter_13_", "},{\"hw_counter_13_", "\":");

void put_metrics(Output& output, const std::byte* unit, qvx::LocalTimeText& clock) {
  const std::byte* sample = unit + kFirstSample;
  char* out = put_time(output.room(), qvx::load_le<std::uint64_t>(sample - 12), clock);
  out = put(out,
            "\",\"labels\":[{\"cluster\":\"alpha\"},{\"host\":\"node-1113\"},{\"device\":\"hcx4_0\"},"
            "{\"port\":\"1\"},{\"role\":\"compute\"}],\"metrics\":[");
  for (std::size_t at = 0; at < kSamples; ++at, sample += 10)
    out = qvx::write_json_number(put_name(out, kMetricNames[qvx::load_le<std::uint16_t>(sample)]),
                                 qvx::load_le<std::uint64_t>(sample + 2));
  output.commit(put(out, "}]}\n"));
}

// Reads as many data blocks at once as fit into a quarter of a mebibyte.
template <typename Put>
int print_file(int file, std::size_t unit_size, Put&& put_unit) {
  const std::size_t most = Output::kSize / unit_size * unit_size;
  const auto units = std::make_unique_for_overwrite<std::byte[]>(most);
  Output output;
  qvx::LocalTimeText clock;
  for (ssize_t count = 0; (count = read(file, units.get(), most)) > 0;) {
    for (const std::byte* unit = units.get(); unit < units.get() + count; unit += unit_size)
      put_unit(output, unit, clock);
  }
  return output.flush() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const int file = argc == 3 ? open(argv[2], O_RDONLY) : -1;
  if (file < 0 || lseek(file, kFileHeader, SEEK_SET) != kFileHeader) return 1;
  const std::string_view what = argv[1];
  if (what == "events") return print_file(file, kEventUnit, put_events);
  if (what == "counters") return print_file(file, kCountersUnit, put_counters);
  return print_file(file, kMetricsUnit, put_metrics);
}
