// Every allocation of the C interface fails, alone and with all behind it: nothing is thrown into C, and no
// record is missing unless that is told.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "qvx/columns/arrow_c.h"
#include "qvx/qvx.h"
#include "tests/support/allocation_sweep.h"

namespace {

using qvx::test::sweep_allocations;

const std::string kData = QVX_TEST_DATA_DIR "/../examples/data/";
const std::string kSchemas = kData + "schema";

struct Close {
  void operator()(qvx_reader* reader) const { qvx_reader_destroy(reader); }
  void operator()(qvx_field* field) const { qvx_field_destroy(field); }
};
using Reader = std::unique_ptr<qvx_reader, Close>;
using FieldPtr = std::unique_ptr<qvx_field, Close>;

struct Count {
  std::size_t tables = 0;
  std::size_t records = 0;
  std::size_t values = 0;  // of the fields asked for
  std::size_t names = 0;   // of fields

  friend bool operator==(const Count&, const Count&) = default;
};

class CInterfaceShortMemory : public testing::TestWithParam<const char*> {
 protected:
  // Nothing when something failed and that was told.
  std::optional<Count> count() {
    const Reader reader(qvx_reader_create(kSchemas.c_str()));
    const FieldPtr time(qvx_field_create("timestamp"));
    const FieldPtr value(qvx_field_create("value"));
    const FieldPtr nested(qvx_field_create("use.a name that is longer than a string keeps within itself"));
    if (reader == nullptr || time == nullptr || value == nullptr || nested == nullptr) return std::nullopt;
    if (qvx_reader_open(reader.get(), path_.c_str()) == 0) {
      says_why_ =
          says_why_ && qvx_reader_failed(reader.get()) != 0 && *qvx_reader_error(reader.get()) != '\0';
      is_closed_ =
          is_closed_ && qvx_reader_table_count(reader.get()) == 0 && qvx_reader_next(reader.get()) == nullptr;
      return std::nullopt;
    }
    Count counted;
    counted.tables = qvx_reader_table_count(reader.get());
    for (std::size_t i = 0; i < counted.tables; ++i)
      counted.names += qvx_table_field_count(qvx_reader_table(reader.get(), i));
    while (const qvx_record* const record = qvx_reader_next(reader.get())) {
      ++counted.records;
      for (qvx_field* const field : {time.get(), value.get(), nested.get()}) {
        double number = 0;
        counted.values += static_cast<std::size_t>(qvx_record_double(record, field, 0, &number));
        counted.values += qvx_record_length(record, field);
      }
      const char* text = nullptr;
      std::size_t length = 0;
      counted.values += static_cast<std::size_t>(qvx_record_label(record, "host", &text, &length));
      counted.values += static_cast<std::size_t>(qvx_record_metric(record, &text, &length));
    }
    if (qvx_reader_failed(reader.get()) != 0) {
      says_why_ = says_why_ && *qvx_reader_error(reader.get()) != '\0';
      return std::nullopt;
    }
    return counted;
  }

  const std::string path_ = kData + GetParam();
  bool says_why_ = true;
  bool is_closed_ = true;  // when it could not be opened
};

TEST_P(CInterfaceShortMemory, LosesNoRecord) {
  const auto whole = count();
  ASSERT_TRUE(whole);
  ASSERT_GT(whole->records, 10U);
  sweep_allocations([&] { return count(); }, [&](const auto& made) { return made == whole; });
  EXPECT_TRUE(says_why_);
  EXPECT_TRUE(is_closed_);
}

INSTANTIATE_TEST_SUITE_P(Files, CInterfaceShortMemory,
                         testing::Values("events.bin", "counters.bin", "metrics.bin", "snappy_pages.bin",
                                         "schemas.bin"));

TEST(CInterfaceArrow, LosesNoRowWhenMemoryIsShort) {
  const std::string path = kData + "events.bin";
  const char* const paths[] = {path.c_str()};
  bool says_why = true;
  const auto rows = [&]() -> std::optional<std::int64_t> {
    ArrowArrayStream stream;
    char words[200] = "";
    if (qvx_open_arrow(paths, 1, kSchemas.c_str(), "job_started", &stream, words, sizeof words) == 0) {
      says_why = says_why && *words != '\0';
      return std::nullopt;
    }
    ArrowSchema schema{};
    bool is_whole = stream.get_schema(&stream, &schema) == 0 && schema.n_children == 6;
    if (schema.release != nullptr) schema.release(&schema);
    std::int64_t count = 0;
    for (;;) {
      ArrowArray batch{};
      if (stream.get_next(&stream, &batch) != 0) {
        is_whole = false;
        break;
      }
      if (batch.release == nullptr) break;
      count += batch.length;
      batch.release(&batch);
    }
    stream.release(&stream);
    return is_whole ? std::optional(count) : std::nullopt;
  };
  ASSERT_EQ(rows(), 18);
  sweep_allocations(rows, [](const auto& made) { return made == 18; });
  EXPECT_TRUE(says_why);
}

}  // namespace
