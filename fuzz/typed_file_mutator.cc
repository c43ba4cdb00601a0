// Changes a schema and the data that it decodes together, so that most inputs get past the checks of sizes
// and reach the plans: types get, lose and change fields, sizes and offsets are put right again, and the file
// is made anew from the types. Some lies are left in on purpose.
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/typed_input.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace {

using namespace qvx;
using Random = std::minstd_rand;

constexpr std::size_t kLargestFile = 4096;
constexpr std::size_t kMostTypes = 12;
constexpr std::size_t kMostFields = 12;

std::size_t below(Random& random, std::size_t end) {
  return end == 0 ? 0 : random() % end;
}

bool one_in(Random& random, std::size_t n) {
  return below(random, n) == 0;
}

template <typename T>
std::string le(T value) {
  std::string bytes(sizeof value, '\0');
  store_le(bytes.data(), value);
  return bytes;
}

// ---- schemas
// -------------------------------------------------------------------------------------------------------

struct Builtin {
  const char* name;
  std::uint32_t size;
};

constexpr Builtin kBuiltins[] = {{"uint8_t", 1},   {"int8_t", 1},        {"uint16_t", 2},    {"int16_t", 2},
                                 {"uint32_t", 4},  {"int32_t", 4},       {"uint64_t", 8},    {"int64_t", 8},
                                 {"float", 4},     {"double", 8},        {"char", 1},        {"bool", 1},
                                 {"timestamp", 8}, {"unsigned char", 1}, {"no_such_type", 4}};

constexpr double kOddNumbers[] = {0,   1,          2,          3,          7,     8,        127,
                                  128, 255,        256,        65535,      65536, 16777216, 1 << 30,
                                  -1,  2147483647, 4294967295, 4294967296, 1e19,  0.5};

double odd_number(Random& random) {
  return kOddNumbers[below(random, std::size(kOddNumbers))];
}

json::Array* member_array(json::Value& object, std::string_view name) {
  json::Object* const members = object.as_object();
  json::Value* const value = members == nullptr ? nullptr : members->find(name);
  return value == nullptr ? nullptr : value->as_array();
}

void set_number(json::Value& object, std::string_view name, double number) {
  if (json::Object* const members = object.as_object()) static_cast<void>(members->set_number(name, number));
}

double number_of(const json::Value& object, std::string_view name, double otherwise) {
  const json::Object* const members = object.as_object();
  return members == nullptr ? otherwise : members->number_at(name).value_or(otherwise);
}

std::string text_of(const json::Value& object, std::string_view name) {
  const json::Object* const members = object.as_object();
  const std::string* const text = members == nullptr ? nullptr : members->string_at(name);
  return text == nullptr ? std::string() : *text;
}

json::Value field(std::string_view name, std::string_view type_name) {
  json::Object made;
  static_cast<void>(made.set_string("field_name", name) && made.set_string("description", "") &&
                    made.set_string("type_name", type_name) && made.set_string("counting_mode", "ABSOLUTE") &&
                    made.set_number("offset", 0) && made.set_number("type_size", 1) &&
                    made.set_number("index", 0));
  return json::Value(std::move(made));
}

json::Value type(std::string_view name) {
  json::Object made;
  json::Array fields;
  fields.push_back(field("a", "uint8_t"));
  static_cast<void>(made.set_string("name", name) && made.set_number("size", 1));
  made.set("fields", json::Value(std::move(fields)));
  return json::Value(std::move(made));
}

// A built-in type, or one of the schema: also a later one, or the type itself.
std::string some_type_name(Random& random, const json::Array& types) {
  if (!types.empty() && one_in(random, 3)) return text_of(types[below(random, types.size())], "name");
  return kBuiltins[below(random, std::size(kBuiltins))].name;
}

void change_field(Random& random, json::Value& changed, const json::Array& types) {
  json::Object* const members = changed.as_object();
  if (members == nullptr) return;
  constexpr std::string_view kNumbers[] = {"offset", "type_size", "index", "array_length"};
  switch (below(random, 5)) {
    case 0:
      static_cast<void>(members->set_string("type_name", some_type_name(random, types)));
      break;
    case 1:
      set_number(changed, "array_length", static_cast<double>(below(random, 20)));
      break;
    case 2:
      set_number(changed, kNumbers[below(random, std::size(kNumbers))], odd_number(random));
      break;
    case 3:
      static_cast<void>(members->set_string("counting_mode", one_in(random, 2) ? "RUNNING_SUM" : "ABSOLUTE"));
      break;
    default:
      static_cast<void>(
          members->set_string("field_name", std::string(1, static_cast<char>('a' + below(random, 8)))));
      break;
  }
}

void change_type(Random& random, json::Value& changed, const json::Array& types) {
  json::Array* const fields = member_array(changed, "fields");
  if (fields == nullptr) return;
  const std::size_t at = below(random, fields->size());
  switch (below(random, 6)) {
    case 0:
      if (fields->size() < kMostFields)
        fields->push_back(
            field(std::string(1, static_cast<char>('a' + below(random, 26))), some_type_name(random, types)));
      break;
    case 1:
      if (!fields->empty()) fields->erase(fields->begin() + static_cast<std::ptrdiff_t>(at));
      break;
    case 2:
      if (one_in(random, 3)) set_number(changed, "size", odd_number(random));
      break;
    default:
      if (!fields->empty()) change_field(random, (*fields)[at], types);
      break;
  }
}

double size_of_type(const json::Array& types, const std::string& name) {
  for (const Builtin& builtin : kBuiltins)
    if (name == builtin.name) return builtin.size;
  for (const json::Value& known : types)
    if (text_of(known, "name") == name) return number_of(known, "size", 0);
  return 1;
}

// Fields behind one another, each of the size of its type.
void repair_sizes(json::Array& types) {
  for (json::Value& repaired : types) {
    json::Array* const fields = member_array(repaired, "fields");
    if (fields == nullptr) continue;
    double offset = 0;
    for (json::Value& each : *fields) {
      const double size = size_of_type(types, text_of(each, "type_name"));
      set_number(each, "offset", offset);
      set_number(each, "type_size", size);
      offset += size * std::max(1.0, number_of(each, "array_length", 1));
    }
    set_number(repaired, "size", offset);
  }
}

void change_events_schema(Random& random, json::Value& schema) {
  json::Array* const types = member_array(schema, "types");
  if (types == nullptr) return;
  if (types->empty() || (types->size() < kMostTypes && one_in(random, 6)))
    types->push_back(type("t" + std::to_string(types->size())));
  for (std::size_t left = 1 + below(random, 4); left > 0; --left)
    change_type(random, (*types)[below(random, types->size())], *types);
  if (!one_in(random, 4)) repair_sizes(*types);
}

void change_counters_schema(Random& random, json::Value& schema) {
  json::Array* const groups = member_array(schema, "counter_groups");
  if (groups == nullptr || groups->empty()) return;
  json::Value& group = (*groups)[below(random, groups->size())];
  json::Array* const counters = member_array(group, "counters");
  if (counters == nullptr) return;
  constexpr std::string_view kTypes[] = {"UINT64", "INT64", "FP64", "STRING", "BIT64", "TIMESTAMP", "NONE"};
  switch (below(random, 5)) {
    case 0:
      if (groups->size() < kMostTypes) groups->push_back(json::Value(group));
      return;
    case 1:
      set_number(group, "num_counter_sets",
                 one_in(random, 2) ? odd_number(random) : static_cast<double>(below(random, 9)));
      return;
    case 2:
      if (!counters->empty() && counters->size() < kMostFields)
        counters->push_back(json::Value(counters->back()));
      break;
    case 3:
      if (counters->size() > 1) counters->pop_back();
      break;
    default:
      if (counters->empty()) break;
      json::Value& counter = (*counters)[below(random, counters->size())];
      if (json::Object* const members = counter.as_object())
        static_cast<void>(members->set_string("data_type", kTypes[below(random, std::size(kTypes))]));
      set_number(counter, "length",
                 one_in(random, 3) ? odd_number(random) : static_cast<double>(below(random, 33)));
      break;
  }
  if (!one_in(random, 4)) set_number(group, "num_counters", static_cast<double>(counters->size()));
}

void change_text(Random& random, std::string& text, void (*change)(Random&, json::Value&)) {
  auto schema = json::parse(text);
  if (!schema) return;
  change(random, *schema);
  if (const auto changed = json::to_text(*schema, json::Style::compact)) text = *changed;
}

// ---- data
// ----------------------------------------------------------------------------------------------------------

std::string some_bytes(Random& random, std::size_t size) {
  constexpr std::string_view kTexts[] = {"eth0", "caf\xc3\xa9", "\xff\xfe", "a\"b\\c\n", ""};
  std::string bytes;
  while (bytes.size() < size) {
    switch (below(random, 5)) {
      case 0:
        bytes += le(static_cast<std::uint64_t>(below(random, 1000)));
        break;
      case 1:
        bytes += le(0.25 * static_cast<double>(below(random, 1 << 20)));
        break;
      case 2:
        bytes += kTexts[below(random, std::size(kTexts))];
        bytes += '\0';
        break;
      case 3:
        bytes.append(8, one_in(random, 2) ? '\xff' : '\0');
        break;
      default:
        bytes += le(static_cast<std::uint32_t>(random()));
        break;
    }
  }
  bytes.resize(size);
  return bytes;
}

std::string events_block(Random& random, const json::Array& types) {
  const std::size_t index = below(random, types.size() + (one_in(random, 16) ? 1 : 0));
  const double stated = index < types.size() ? number_of(types[index], "size", 1) : 1;
  const auto size = static_cast<std::size_t>(std::clamp(stated, 0.0, 600.0));
  const std::size_t count = 1 + below(random, 3);
  std::string block = "QVXE" + le(std::uint64_t{1'700'000'000'000'000} + random() % 100'000'000) + '\0';
  block += le(static_cast<std::uint16_t>(index)) + static_cast<char>(count + (one_in(random, 16) ? 1 : 0));
  return block + some_bytes(random, size * count);
}

std::string counters_block(Random& random) {
  return "QVXD" + std::string(4, '\0') + le(std::uint64_t{1'700'000'000'000'000} + random() % 100'000'000) +
         some_bytes(random, 8 * below(random, 40));
}

std::string deflated(const std::string& plain) {
  z_stream stream{};
  if (deflateInit2(&stream, 1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) return {};
  std::string packed(deflateBound(&stream, static_cast<uLong>(plain.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
  stream.avail_in = static_cast<uInt>(plain.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(packed.size() - stream.avail_out);
  deflateEnd(&stream);
  return packed;
}

// One literal.
std::string snappied(const std::string& plain) {
  const std::size_t size = plain.size();
  std::string packed;
  packed += static_cast<char>(0x80 | (size & 0x7F));
  packed += static_cast<char>(size >> 7 & 0x7F);
  return packed + '\xf4' + le(static_cast<std::uint16_t>(size - 1)) + plain;
}

std::string page_block(Random& random, const std::string& chain) {
  const bool gzip = one_in(random, 2);
  const std::string packed = gzip ? deflated(chain) : snappied(chain);
  std::string block = "QVXP\x1a";
  block += gzip ? 'G' : 'S';
  block += le(static_cast<std::uint32_t>(packed.size())) + std::string(16, '\1') + "\x01h\x01t";
  return block + packed + "qvxp";
}

std::string file_header(std::uint32_t block_size) {
  std::string header = "QVXF\x01\x07";
  header += le(std::uint16_t{0}) + le(std::uint64_t{256}) + std::string(80, 'h') + std::string(16, '\1');
  header +=
      le(block_size) + std::string(16, '\xc1') + std::string(16, '\xe1') + std::string(104, '\0') + "qvxf";
  return header;
}

// A file of data blocks that hold records of the types, or counters, plain or as pages.
std::string make_file(Random& random, const std::string& events_text) {
  auto schema = json::parse(events_text);
  json::Array* const types = schema ? member_array(*schema, "types") : nullptr;
  const auto block_size = static_cast<std::uint32_t>(256 << below(random, 4));
  std::string file = file_header(block_size);
  for (std::size_t left = 1 + below(random, 3); left > 0 && file.size() < kLargestFile; --left) {
    std::string chain;
    if (types == nullptr || types->empty() || one_in(random, 3)) {
      chain = counters_block(random);
    } else {
      for (std::size_t blocks = 1 + below(random, 3); blocks > 0; --blocks)
        chain += events_block(random, *types);
    }
    if (one_in(random, 3) && chain.size() < 0x3FFF) chain = page_block(random, chain);
    chain.resize(block_size);
    file += chain;
  }
  return file;
}

void mutate_bytes(std::string& bytes, std::size_t room) {
  const std::size_t size = std::min(bytes.size(), room);
  bytes.resize(room);
  bytes.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(bytes.data()), size, room));
}

// What every file must have, so that a change of it is seen in the blocks.
void repair_header(std::string& file) {
  if (file.size() < 256) return;
  const std::string usual = file_header(256);
  std::copy_n(usual.begin(), 8, file.begin());
  file.replace(252, 4, "qvxf");
  const auto block_size = load_le<std::uint32_t>(reinterpret_cast<const std::byte*>(file.data() + 112));
  if (block_size < 16 || block_size > 65536) file.replace(112, 4, le(std::uint32_t{256}));
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned int seed) {
  Random random(seed);
  fuzz::TypedInput input = fuzz::split_typed_input({reinterpret_cast<const char*>(data), size});
  const std::size_t room = std::min(kLargestFile, max_size / 2 + 1);
  switch (below(random, 10)) {
    case 0:
    case 1:
    case 2:
      mutate_bytes(input.file, room);
      if (!one_in(random, 8)) repair_header(input.file);
      break;
    case 3:
      change_text(random, input.counters, change_counters_schema);
      input.file = make_file(random, input.events);
      break;
    case 4:
      mutate_bytes(input.events, room);
      std::erase(input.events, '\0');
      break;
    case 5:
      mutate_bytes(input.counters, room);
      std::erase(input.counters, '\0');
      break;
    case 6:
      input.choice = static_cast<std::uint8_t>(random());
      break;
    case 7:
      input.file = make_file(random, input.events);
      break;
    default:
      change_text(random, input.events, change_events_schema);
      if (!one_in(random, 3)) input.file = make_file(random, input.events);
      break;
  }
  const std::string joined = fuzz::join(input);
  const std::size_t taken = std::min(joined.size(), max_size);
  std::copy_n(joined.begin(), taken, reinterpret_cast<char*>(data));
  return taken;
}
