// Reads Arrow arrays back, by the published format and nothing else: rows as JSON text.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/columns/arrow_c.h"
#include "qvx/columns/table_stream.h"
#include "qvx/support/json_text.h"
#include "qvx/support/number.h"

namespace qvx::test {

// How values are spelt: integers exactly, or all as records in JSON have them: as doubles, and booleans as 0
// and 1.
enum class Numbers { exact, json };

struct ReleaseSchema {
  void operator()(ArrowSchema* schema) const {
    if (schema->release != nullptr) schema->release(schema);
    delete schema;
  }
};
struct ReleaseArray {
  void operator()(ArrowArray* array) const {
    if (array->release != nullptr) array->release(array);
    delete array;
  }
};
using OwnedSchema = std::unique_ptr<ArrowSchema, ReleaseSchema>;
using OwnedArray = std::unique_ptr<ArrowArray, ReleaseArray>;

class ArrowValues {
 public:
  ArrowValues(const ArrowSchema& schema, const ArrowArray& array, Numbers numbers)
      : schema_(schema), array_(array), numbers_(numbers), format_(schema.format) {}

  bool is_null(std::int64_t row) const {
    row += array_.offset;
    return array_.n_buffers > 0 && array_.buffers[0] != nullptr && array_.null_count != 0 &&
           !bit(array_.buffers[0], row);
  }

  std::string text(std::int64_t row) const {
    if (is_null(row)) return "null";
    const std::int64_t at = row + array_.offset;
    if (schema_.dictionary != nullptr)
      return ArrowValues(*schema_.dictionary, *array_.dictionary, numbers_).text(value<std::int32_t>(at));
    switch (format_[0]) {
      case 'b':
        if (numbers_ == Numbers::json) return bit(array_.buffers[1], at) ? "1" : "0";
        return bit(array_.buffers[1], at) ? "true" : "false";
      case 'C':
        return number(std::uint64_t{value<std::uint8_t>(at)});
      case 'c':
        return number(std::int64_t{value<std::int8_t>(at)});
      case 'S':
        return number(std::uint64_t{value<std::uint16_t>(at)});
      case 's':
        return number(std::int64_t{value<std::int16_t>(at)});
      case 'I':
        return number(std::uint64_t{value<std::uint32_t>(at)});
      case 'i':
        return number(std::int64_t{value<std::int32_t>(at)});
      case 'L':
        return number(value<std::uint64_t>(at));
      case 'l':
      case 't':
        return number(value<std::int64_t>(at));
      case 'f':
        return number(double{value<float>(at)});
      case 'g':
        return number(value<double>(at));
      case 'u':
        return quoted(at);
      case '+':
        return nested(at);
      default:
        ADD_FAILURE() << "format " << format_;
        return "?";
    }
  }

 private:
  static bool bit(const void* bits, std::int64_t at) {
    return (static_cast<const std::uint8_t*>(bits)[at / 8] >> (at % 8) & 1) != 0;
  }

  template <typename T>
  T value(std::int64_t at) const {
    T value;
    std::memcpy(&value,
                static_cast<const char*>(array_.buffers[1]) + at * static_cast<std::int64_t>(sizeof value),
                sizeof value);
    return value;
  }

  template <typename T>
  std::string number(T value) const {
    if constexpr (std::is_integral_v<T>)
      if (numbers_ == Numbers::exact) return std::to_string(value);
    char buffer[kNumberRoom];
    return std::string(buffer, write_json_number(buffer, value));
  }

  std::string quoted(std::int64_t at) const {
    const auto begin = value<std::int32_t>(at);
    const auto end = value<std::int32_t>(at + 1);
    std::string out;
    json::append_quoted(
        out, {static_cast<const char*>(array_.buffers[2]) + begin, static_cast<std::size_t>(end - begin)});
    return out;
  }

  ArrowValues child(int index) const { return {*schema_.children[index], *array_.children[index], numbers_}; }

  std::string nested(std::int64_t at) const {
    std::string out;
    if (format_ == "+s") {
      for (int i = 0; i < array_.n_children; ++i) {
        std::string name;
        json::append_quoted(name, schema_.children[i]->name);
        out += (i > 0 ? "," : "") + name + ":" + child(i).text(at);
      }
      return "{" + out + "}";
    }
    if (format_ == "+m") {
      const ArrowValues entries = child(0);
      for (std::int64_t i = value<std::int32_t>(at); i < value<std::int32_t>(at + 1); ++i)
        out += (out.empty() ? "" : ",") +
               ("{" + entries.child(0).text(i) + ":" + entries.child(1).text(i) + "}");
      return "[" + out + "]";
    }
    const std::int64_t count = std::stoll(std::string(format_.substr(3)));
    for (std::int64_t i = 0; i < count; ++i)
      out += (i > 0 ? "," : "") + child(0).text(at * count + i);
    return "[" + out + "]";
  }

  const ArrowSchema& schema_;
  const ArrowArray& array_;
  Numbers numbers_;
  std::string_view format_;
};

inline std::map<std::string, std::string> metadata(const ArrowSchema& schema) {
  std::map<std::string, std::string> all;
  const char* from = schema.metadata;
  if (from == nullptr) return all;
  const auto number = [&from] {
    std::int32_t value;
    std::memcpy(&value, from, sizeof value);
    from += sizeof value;
    return value;
  };
  const auto text = [&] {
    const std::int32_t size = number();
    from += size;
    return std::string(from - size, static_cast<std::size_t>(size));
  };
  for (std::int32_t left = number(); left > 0; --left) {
    const std::string key = text();
    all[key] = text();
  }
  return all;
}

struct ReadTable {
  OwnedSchema schema;
  std::vector<std::string> rows;         // as compact JSON objects
  std::vector<std::int64_t> batch_rows;  // of each batch
};

inline ReadTable read_all(columns::TableStream& stream, Numbers numbers = Numbers::exact) {
  ReadTable table;
  table.schema.reset(new ArrowSchema{});
  stream.schema(table.schema.get());
  for (;;) {
    const OwnedArray batch(new ArrowArray{});
    if (!stream.next(batch.get())) break;
    table.batch_rows.push_back(batch->length);
    const ArrowValues values(*table.schema, *batch, numbers);
    for (std::int64_t row = 0; row < batch->length; ++row)
      table.rows.push_back(values.text(row));
  }
  return table;
}

}  // namespace qvx::test
