#include "qvx/counters/counters_tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <exception>
#include <string_view>

#include "qvx/data/block.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"
#include "qvx/support/number.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

constexpr std::size_t kColumnWidth = 20;
// Room for one cell: the longest double has 309 digits before its point.
constexpr std::size_t kCellRoom = kFixedNumberRoom + 2 * kColumnWidth;

char* put(char* out, std::string_view text) {
  return out + text.copy(out, text.size());
}

// Right-aligned in the width; longer text pushes the cell wider.
char* put_aligned(char* out, std::string_view text, std::size_t width) {
  if (text.size() < width) {
    std::memset(out, ' ', width - text.size());
    out += width - text.size();
  }
  return put(out, text);
}

char* put_fixed3(char* to, double value) {
  if (std::isnan(value)) return put(to, std::signbit(value) ? "-nan" : "nan");
  return std::to_chars(to, to + kFixedNumberRoom, value, std::chars_format::fixed, 3).ptr;
}

char* put_hexadecimal(char* to, std::uint64_t value) {
  char* const end = std::to_chars(to, to + kNumberRoom, value, 16).ptr;
  for (char* digit = to; digit != end; ++digit)
    if (*digit >= 'a') *digit = static_cast<char>(*digit - 'a' + 'A');
  return end;
}

// The slot's first bytes as text, which may go on into the slots behind it.
char* put_text_cell(char* out, Bytes from_slot) {
  std::string_view text = as_text(from_slot.first(std::min(from_slot.size(), kColumnWidth)));
  text = text.substr(0, text.find('\0'));
  return put(put_aligned(out, text, kColumnWidth), " |");
}

char* put_cell(char* out, std::uint32_t data_type, Bytes values, std::uint64_t slot) {
  const std::uint64_t offset = slot * kCounterSlotSize;
  const Bytes from_slot = offset < values.size() ? values.subspan(offset) : Bytes();
  char* const cell = out;
  *out++ = ' ';
  if (data_type == QVX_COUNTER_STRING) return put_text_cell(out, from_slot);
  std::array<std::byte, kCounterSlotSize> bytes{};
  std::copy_n(from_slot.begin(), std::min(from_slot.size(), bytes.size()), bytes.begin());
  char digits[kFixedNumberRoom];
  const auto text_to = [&digits](const char* end) {
    return std::string_view(digits, static_cast<std::size_t>(end - digits));
  };
  switch (data_type) {
    case QVX_COUNTER_UINT64: {
      const auto value = load_le<std::uint64_t>(bytes.data());
      return put(put_aligned(out, text_to(write_decimal(digits, value)), kColumnWidth), "(u) |");
    }
    case QVX_COUNTER_FP64: {
      const auto value = load_le<double>(bytes.data());
      return put(put_aligned(out, text_to(put_fixed3(digits, value)), 16), " |");
    }
    case QVX_COUNTER_BIT64: {
      const auto value = load_le<std::uint64_t>(bytes.data());
      return put(put_aligned(out, text_to(put_hexadecimal(digits, value)), kColumnWidth), " |");
    }
    default:
      return write_table_cell(cell, kColumnWidth, load_le<std::int64_t>(bytes.data()));
  }
}

}  // namespace

CountersTables::CountersTables(const qvx_counters_schema& schema) {
  constexpr std::size_t kCellWidth = kColumnWidth + 3;
  std::uint64_t values_left = kMaxCounterValues;
  for (const auto& from : schema.groups) {
    Group& group = groups_.emplace_back();
    const std::size_t columns = from->counters.size();
    const char* const granularity =
        from->num_counter_sets > 0 ? granularity_name(from->granularity) : nullptr;
    const std::string label = granularity != nullptr ? granularity : "";
    std::size_t width = kCellWidth * columns + 1;
    if (granularity != nullptr) {
      group.row_label_width = label.size();
      width += label.size() + 3;
    }
    const std::uint64_t row_values = std::max<std::uint64_t>(columns, 1);
    group.rows = std::min<std::uint64_t>(from->num_counter_sets, values_left / row_values);
    values_left -= group.rows * row_values;
    rows_left_out_ += from->num_counter_sets - group.rows;
    group.rule = std::string(width, '-') + "\n";
    group.head = group.rule;
    // Negative for a table without columns, which printf takes for left alignment and no precision.
    const int title_width = static_cast<int>(width) - static_cast<int>(kCellWidth);
    append_format(group.head, "| Counter values per %-*.*s |\n", title_width, title_width, label.c_str());
    group.head += group.rule + "|";
    if (granularity != nullptr) group.head += " " + label + " |";
    for (const auto& counter : from->counters) {
      append_format(group.head, " %*s |", static_cast<int>(kColumnWidth),
                    counter != nullptr && counter->name ? counter->name->c_str() : "");
      group.data_types.push_back(counter != nullptr ? counter->data_type : QVX_COUNTER_UNDEFINED);
    }
    group.head += "\n" + group.rule;
  }
}

void CountersTables::write(Bytes block, OutputSink& sink, LocalTimeText& clock) const {
  const CountersHeader header = counters_header_decode(block);
  char time[LocalTimeText::kRoom];
  std::size_t time_size = clock.write(time, header.timestamp);
  if (time_size == 0)
    time_size =
        static_cast<std::size_t>(write_decimal(time, static_cast<std::int64_t>(header.timestamp)) - time);
  sink.write("Data collected at ");
  sink.write({time, time_size});
  sink.write("\n");
  const Bytes values = block.subspan(std::min(block.size(), kCountersHeaderSize));
  for (const Group& group : groups_) {
    sink.write(group.head);
    write_rows(group, values, sink);
    sink.write(group.rule);
  }
  if (rows_left_out_ > 0) {
    QVX_LOG(QVX_LOG_WARNING, "Tables of a counters block end after %llu values: %llu rows are left out",
            static_cast<unsigned long long>(kMaxCounterValues),
            static_cast<unsigned long long>(rows_left_out_));
  }
}

std::size_t CountersTables::bytes() const {
  std::size_t bytes = sizeof *this + groups_.capacity() * sizeof(Group);
  for (const Group& group : groups_)
    bytes += group.head.capacity() + group.rule.capacity() +
             group.data_types.capacity() * sizeof group.data_types[0];
  return bytes;
}

void CountersTables::write_rows(const Group& group, Bytes values, OutputSink& sink) {
  for (std::uint64_t row = 0; row < group.rows; ++row) {
    char* out = sink.reserve(kNumberRoom + group.row_label_width);
    *out++ = '|';
    if (group.row_label_width > 0) {
      char digits[kNumberRoom];
      const char* const end = write_decimal(digits, row);
      *out++ = ' ';
      out = put_aligned(out, {digits, static_cast<std::size_t>(end - digits)}, group.row_label_width);
      out = put(out, " |");
    }
    sink.commit(out);
    for (std::size_t column = 0; column < group.data_types.size(); ++column) {
      const std::uint64_t slot = column + group.data_types.size() * row;
      sink.commit(put_cell(sink.reserve(kCellRoom), group.data_types[column], values, slot));
    }
    sink.write("\n");
  }
}

}  // namespace qvx

bool qvx_counters_block_print(std::FILE* stream, qvx::Bytes block,
                              const qvx_counters_schema* schema) noexcept {
  if (schema == nullptr) return false;
  try {
    std::string text;
    qvx::LocalTimeText clock;
    {
      qvx::OutputSink sink(text);
      qvx::CountersTables(*schema).write(block, sink, clock);
      if (!sink.flush()) return false;
    }
    return std::fwrite(text.data(), 1, text.size(), stream) == text.size();
  } catch (const std::exception&) {
    return false;
  }
}
