// The C interface beyond what the C program of tests/install uses.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "qvx/columns/arrow_c.h"
#include "qvx/qvx.h"
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
