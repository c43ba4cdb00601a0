// The C interface beyond what the C program of tests/install uses.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "qvx/columns/arrow_c.h"
#include "qvx/qvx.h"
#include "tests/data/sample_builder.h"
#include "tests/support/temp_dir.h"

namespace {

const std::string kData = QVX_TEST_DATA_DIR "/../examples/data/";

struct Close {
  void operator()(qvx_reader* reader) const { qvx_reader_destroy(reader); }
  void operator()(qvx_field* field) const { qvx_field_destroy(field); }
};
using Reader = std::unique_ptr<qvx_reader, Close>;
using FieldPtr = std::unique_ptr<qvx_field, Close>;

Reader make_reader() {
  return Reader(qvx_reader_create((kData + "schema").c_str()));
}

FieldPtr field(const char* name) {
  return FieldPtr(qvx_field_create(name));
}

const qvx_record* find(qvx_reader* reader, const std::string& table) {
  while (const qvx_record* record = qvx_reader_next(reader))
    if (qvx_table_name(qvx_record_table(record)) == table) return record;
  return nullptr;
}

TEST(CInterface, GivesNumbersOnlyWhereTheyAreHeldExactly) {
  const Reader reader = make_reader();
  ASSERT_EQ(qvx_reader_open(reader.get(), (kData + "events.bin").c_str()), 1);
  const qvx_record* const record = find(reader.get(), "job_started");
  ASSERT_NE(record, nullptr);
  const FieldPtr job = field("job"), priority = field("priority"), user = field("user");
  std::uint64_t whole = 1;
  std::int64_t with_sign = 2;
  double fraction = 3;
  EXPECT_EQ(qvx_record_u64(record, job.get(), 0, &whole), 1);
  EXPECT_EQ(whole, 48100u);
  EXPECT_EQ(qvx_record_u64(record, priority.get(), 0, &whole), 0);
  EXPECT_EQ(whole, 48100u);
  EXPECT_EQ(qvx_record_i64(record, priority.get(), 0, &with_sign), 1);
  EXPECT_EQ(with_sign, 58);
  EXPECT_EQ(qvx_record_double(record, priority.get(), 0, &fraction), 1);
  EXPECT_EQ(fraction, 58);
  EXPECT_EQ(qvx_record_u64(record, user.get(), 0, &whole), 0);
  const char* text = "unchanged";
  std::size_t length = 9;
  EXPECT_EQ(qvx_record_text(record, job.get(), 0, &text, &length), 0);
  EXPECT_STREQ(text, "unchanged");
}

TEST(CInterface, EndsArraysAndListsAtTheirLength) {
  const Reader reader = make_reader();
  ASSERT_EQ(qvx_reader_open(reader.get(), (kData + "events.bin").c_str()), 1);
  ASSERT_EQ(qvx_reader_table_count(reader.get()), 7u);
  EXPECT_EQ(qvx_reader_table(reader.get(), 7), nullptr);
  EXPECT_EQ(qvx_table_field_name(qvx_reader_table(reader.get(), 0), 3), nullptr);
  EXPECT_EQ(qvx_table_field_type(qvx_reader_table(reader.get(), 0), 3), nullptr);
  const qvx_record* const record = find(reader.get(), "job_started");
  ASSERT_NE(record, nullptr);
  const FieldPtr nodes = field("nodes"), third = field("nodes[2]"), none = field("no such field");
  std::uint64_t node = 0;
  EXPECT_EQ(qvx_record_length(record, nodes.get()), 4u);
  EXPECT_EQ(qvx_record_u64(record, nodes.get(), 3, &node), 1);
  EXPECT_EQ(node, 59u);
  EXPECT_EQ(qvx_record_u64(record, nodes.get(), 4, &node), 0);
  EXPECT_EQ(qvx_record_u64(record, nodes.get(), ~std::size_t{0}, &node), 0);
  EXPECT_EQ(qvx_record_u64(record, third.get(), 0, &node), 1);
  EXPECT_EQ(node, 51u);
  EXPECT_EQ(qvx_record_length(record, none.get()), 0u);
}

TEST(CInterface, ReadsNothingBehindClose) {
  const Reader reader = make_reader();
  EXPECT_EQ(qvx_reader_next(reader.get()), nullptr);
  ASSERT_EQ(qvx_reader_open(reader.get(), (kData + "events.bin").c_str()), 1);
  ASSERT_NE(qvx_reader_next(reader.get()), nullptr);
  qvx_reader_close(reader.get());
  EXPECT_EQ(qvx_reader_next(reader.get()), nullptr);
  EXPECT_EQ(qvx_reader_table_count(reader.get()), 0u);
  EXPECT_EQ(qvx_reader_failed(reader.get()), 0);
  EXPECT_STREQ(qvx_reader_error(reader.get()), "");
}

TEST(CInterface, TellsWhyAFileCannotBeOpened) {
  const Reader reader = make_reader();
  EXPECT_EQ(qvx_reader_open(reader.get(), "/nowhere/at/all.bin"), 0);
  EXPECT_EQ(qvx_reader_failed(reader.get()), 1);
  EXPECT_STREQ(qvx_reader_error(reader.get()),
               "Failed to open data file /nowhere/at/all.bin: No such file or directory");
  EXPECT_EQ(qvx_reader_fault_count(reader.get()), 1u);
  qvx_fault fault = {7, "kind", "words"};
  EXPECT_EQ(qvx_reader_fault(reader.get(), 1, &fault), 0);
  EXPECT_EQ(fault.offset, 7u);
  EXPECT_EQ(qvx_reader_fault(reader.get(), 0, &fault), 1);
  EXPECT_STREQ(fault.kind, "open_failed");
}

TEST(CInterface, NamesMetricsAndLabels) {
  const Reader reader = make_reader();
  ASSERT_EQ(qvx_reader_open(reader.get(), (kData + "metrics.bin").c_str()), 1);
  const qvx_record* const record = qvx_reader_next(reader.get());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(qvx_table_kind_of(qvx_record_table(record)), QVX_SAMPLE);
  const char* text = nullptr;
  std::size_t length = 0;
  EXPECT_EQ(qvx_record_metric(record, &text, &length), 1);
  EXPECT_EQ(std::string(text, length), "net_received_bytes");
  EXPECT_EQ(qvx_record_label(record, "no such label", &text, &length), 0);
  EXPECT_STREQ(qvx_library_version(), "1.22.1");
}

// A field of each type, in the order of the sizes below, and a record of it.
class CInterfaceTypes : public testing::Test {
 protected:
  CInterfaceTypes() {
    struct Row {
      const char* type;
      std::size_t size;
    };
    constexpr Row kRows[] = {{"bool", 1},    {"uint8_t", 1},  {"int8_t", 1}, {"uint16_t", 2},
                             {"int16_t", 2}, {"uint32_t", 4}, {"int", 4},    {"uint64_t", 8},
                             {"int64_t", 8}, {"float", 4},    {"double", 8}, {"char", 1},
                             {"inner", 1}};
    std::string fields;
    std::size_t offset = 0;
    for (const auto& [type, size] : kRows) {
      const bool is_text = std::string_view(type) == "char";
      fields += std::string(fields.empty() ? "" : ",") + R"({"field_name": "f_)" + type +
                R"(", "description": "", "counting_mode": "ABSOLUTE", "type_name": ")" + type +
                R"(", "offset": )" + std::to_string(offset) + R"(, "type_size": )" + std::to_string(size) +
                (is_text ? R"(, "array_length": 4)" : "") + "}";
      offset += is_text ? 4 : size;
    }
    const std::string inner =
        R"({"name": "inner", "size": 1, "fields": [{"field_name": "x", "description": "",)"
        R"( "counting_mode": "ABSOLUTE", "type_name": "uint8_t", "offset": 0, "type_size": 1}]})";
    const qvx_schema_id id = qvx::test::id_of_byte(0xE1);
    temp_.write_file(qvx::test::schema_file_name(id),
                     R"({"title": "Quorvex schema", "qvx_version": "1.5.0", "provider_name": "p",)"
                     R"( "provider_version": "1.0.0", "types": [)" +
                         inner + R"(, {"name": "every", "size": )" + std::to_string(offset) +
                         R"(, "fields": [)" + fields + "]}]}");
    using qvx::test::le;
    const std::string record = le(std::uint8_t{1}) + le(std::uint8_t{200}) + le(std::int8_t{-5}) +
                               le(std::uint16_t{60000}) + le(std::int16_t{-6}) +
                               le(std::uint32_t{4000000000}) + le(std::int32_t{-7}) +
                               le(std::uint64_t{1} << 63) + le(std::int64_t{-9007199254740993}) + le(0.5F) +
                               le(2.5) + "text" + le(std::uint8_t{9});
    qvx::test::FileHeader header;
    header.event_schema_ids = {id};
    path_ = temp_.write_file(
        "a.bin", qvx::test::sample_file(
                     header, {qvx::test::events_block({.timestamp = 77, .type_index = 1}, {record})}));
  }

  qvx::test::TempDir temp_;
  std::string path_;
};

TEST_F(CInterfaceTypes, FieldsNameTheirTypes) {
  const Reader reader(qvx_reader_create(temp_.path().c_str()));
  ASSERT_EQ(qvx_reader_open(reader.get(), path_.c_str()), 1);
  const qvx_table* const table = qvx_reader_table(reader.get(), 1);
  EXPECT_STREQ(qvx_table_name(table), "every");
  EXPECT_EQ(qvx_table_kind_of(table), QVX_EVENT);
  std::string types;
  for (std::size_t i = 0; i < qvx_table_field_count(table); ++i)
    types += std::string(qvx_table_field_name(table, i)) + " " + qvx_table_field_type(table, i) + "\n";
  EXPECT_EQ(
      types,
      "f_bool bool\nf_uint8_t u8\nf_int8_t i8\nf_uint16_t u16\nf_int16_t i16\nf_uint32_t u32\nf_int i32\n"
      "f_uint64_t u64\nf_int64_t i64\nf_float f32\nf_double f64\nf_char text\nf_inner record\n");
}

TEST_F(CInterfaceTypes, ValuesOfEveryTypeComeAsTheTypesThatHoldThem) {
  const Reader reader(qvx_reader_create(temp_.path().c_str()));
  ASSERT_EQ(qvx_reader_open(reader.get(), path_.c_str()), 1);
  const qvx_record* const record = qvx_reader_next(reader.get());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(qvx_record_time(record), 77u);
  std::string numbers;
  for (const char* const type : {"bool", "uint8_t", "int8_t", "uint16_t", "int16_t", "uint32_t", "int",
                                 "uint64_t", "int64_t", "float", "double", "char"}) {
    const FieldPtr of = field((std::string("f_") + type).c_str());
    std::uint64_t whole = 0;
    std::int64_t with_sign = 0;
    double fraction = 0;
    numbers += type;
    if (qvx_record_u64(record, of.get(), 0, &whole) != 0) numbers += " " + std::to_string(whole);
    if (qvx_record_i64(record, of.get(), 0, &with_sign) != 0) numbers += " " + std::to_string(with_sign);
    if (qvx_record_double(record, of.get(), 0, &fraction) != 0) numbers += " " + std::to_string(fraction);
    numbers += "\n";
  }
  EXPECT_EQ(
      numbers,
      "bool 1 1 1.000000\nuint8_t 200 200 200.000000\nint8_t -5 -5.000000\nuint16_t 60000 60000 "
      "60000.000000\n"
      "int16_t -6 -6.000000\nuint32_t 4000000000 4000000000 4000000000.000000\nint -7 -7.000000\n"
      "uint64_t 9223372036854775808\nint64_t -9007199254740993\nfloat 0.500000\ndouble 2.500000\nchar\n");
  const FieldPtr text_field = field("f_char");
  const char* text = nullptr;
  std::size_t length = 0;
  EXPECT_EQ(qvx_record_text(record, text_field.get(), 0, &text, &length), 1);
  EXPECT_EQ(std::string(text, length), "text");
  EXPECT_EQ(qvx_record_text(record, text_field.get(), 1, &text, &length), 0);
}

TEST(CInterface, FieldBehindTheLastBytesIsAbsent) {
  using namespace qvx::test;
  const TempDir temp;
  const qvx_schema_id id = id_of_byte(0xE2);
  temp.write_file(schema_file_name(id),
                  R"({"title": "Quorvex schema", "qvx_version": "1.5.0", "provider_name": "p",)"
                  R"( "provider_version": "1.0.0", "types": [{"name": "ahead", "size": 2, "fields": [)"
                  R"({"field_name": "v", "description": "", "counting_mode": "ABSOLUTE",)"
                  R"( "type_name": "uint16_t", "offset": 2, "type_size": 2}]}]})");
  FileHeader header;
  header.event_schema_ids = {id};
  const std::string page = page_block({}, events_block({}, {le(std::uint16_t{1}), le(std::uint16_t{2})}));
  const std::string path = temp.write_file("a.bin", sample_file(header, {page}));
  const Reader reader(qvx_reader_create(temp.path().c_str()));
  ASSERT_EQ(qvx_reader_open(reader.get(), path.c_str()), 1);
  const FieldPtr v = field("v");
  std::uint64_t value = 7;
  const qvx_record* record = qvx_reader_next(reader.get());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(qvx_record_length(record, v.get()), 1u);
  EXPECT_EQ(qvx_record_u64(record, v.get(), 0, &value), 1);
  EXPECT_EQ(value, 2u);
  record = qvx_reader_next(reader.get());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(qvx_record_length(record, v.get()), 0u);
  EXPECT_EQ(qvx_record_u64(record, v.get(), 0, &value), 0);
  EXPECT_EQ(value, 2u);
  EXPECT_EQ(qvx_reader_next(reader.get()), nullptr);
  EXPECT_EQ(qvx_reader_failed(reader.get()), 0);
}

TEST(CInterface, TellsCountersFromSamples) {
  const Reader reader = make_reader();
  ASSERT_EQ(qvx_reader_open(reader.get(), (kData + "counters.bin").c_str()), 1);
  const qvx_record* const record = qvx_reader_next(reader.get());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(qvx_table_kind_of(qvx_record_table(record)), QVX_COUNTERS);
  EXPECT_EQ(qvx_record_time(record), 1700000000000000u);
  const char* text = nullptr;
  std::size_t length = 0;
  EXPECT_EQ(qvx_record_metric(record, &text, &length), 0);
  EXPECT_STREQ(qvx_table_field_name(qvx_record_table(record), 5), "node.kernel");
  EXPECT_STREQ(qvx_table_field_type(qvx_record_table(record), 5), "text");
  EXPECT_EQ(qvx_record_text(record, field("kernel").get(), 0, &text, &length), 1);
  EXPECT_EQ(std::string_view(text, length), "6.1.0-13-arm64");
}

TEST(CInterface, HandsATableOverAsAnArrowStream) {
  const std::string path = kData + "events.bin";
  const char* const paths[] = {path.c_str()};
  ArrowArrayStream stream;
  char words[200] = "";
  ASSERT_EQ(qvx_open_arrow(paths, 1, nullptr, "job_started", &stream, words, sizeof words), 1) << words;
  ArrowSchema schema;
  ASSERT_EQ(stream.get_schema(&stream, &schema), 0);
  std::string columns;
  for (std::int64_t i = 0; i < schema.n_children; ++i)
    columns += std::string(schema.children[i]->name) + " " + schema.children[i]->format + ", ";
  schema.release(&schema);
  EXPECT_EQ(columns, "timestamp tsu:UTC, job I, user u, command u, nodes +w:4, priority s, ");
  ArrowArray batch;
  ASSERT_EQ(stream.get_next(&stream, &batch), 0);
  EXPECT_EQ(batch.length, 18);
  batch.release(&batch);
  ASSERT_EQ(stream.get_next(&stream, &batch), 0);
  EXPECT_EQ(batch.release, nullptr);
  stream.release(&stream);
}

TEST(CInterface, EndsAnArrowStreamWithTheFirstFault) {
  const qvx::test::TempDir folder;
  std::string bytes = qvx::test::read_file(kData + "events.bin");
  bytes[256 + 3 * 1024 + 13] = 99;  // the type of the second block of jobs
  const std::string path = folder.write_file("damaged.bin", bytes);
  const char* const paths[] = {path.c_str()};
  ArrowArrayStream stream;
  char words[200] = "";
  const std::string schemas = kData + "schema";
  ASSERT_EQ(qvx_open_arrow(paths, 1, schemas.c_str(), "job_started", &stream, words, sizeof words), 1);
  ArrowArray batch;
  ASSERT_EQ(stream.get_next(&stream, &batch), 0);
  EXPECT_EQ(batch.length, 3);
  batch.release(&batch);
  EXPECT_EQ(stream.get_next(&stream, &batch), EIO);
  const std::string error = stream.get_last_error(&stream);
  EXPECT_EQ(error, path + ": Type definition 1:99 not found");
  stream.release(&stream);
}

TEST(CInterface, SaysWhyThereIsNoArrowStream) {
  const std::string path = kData + "events.bin";
  const char* const paths[] = {path.c_str()};
  ArrowArrayStream stream;
  char words[16] = "";
  EXPECT_EQ(qvx_open_arrow(paths, 1, nullptr, "no_such_table", &stream, words, sizeof words), 0);
  EXPECT_STREQ(words, "no table \"no_su");  // cut to the room there is
}

}  // namespace
