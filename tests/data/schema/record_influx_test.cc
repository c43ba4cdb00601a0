#include "qvx/data/schema/record_influx.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "tests/support/allocation_sweep.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/record_bytes.h"
#include "tests/support/type_set.h"

namespace qvx {
namespace {

using test::RecordBytes;
using test::TypeSet;

using Text = std::optional<std::string>;

class RecordInfluxTest : public testing::Test {
 protected:
  Text line(const qvx_type_definition& type, const RecordBytes& record) {
    return qvx_record_to_influx(&type, record.bytes());
  }
  Text one(const char* type_name, const RecordBytes& record, std::uint32_t array_length = 1) {
    qvx_type_definition& type = types_.make();
    types_.add(type, "a", type_name, array_length);
    return line(type, record);
  }

  TypeSet types_;
};

TEST_F(RecordInfluxTest, IntegersHaveTheSignedSuffixWhateverTheirType) {
  const RecordBytes ones = RecordBytes().add(std::uint64_t{0xFFFFFFFFFFFFFFFF});
  for (const char* const type : {"char", "unsigned char", "uint8_t"})
    EXPECT_EQ(one(type, ones), "a=255i") << type;
  for (const char* const type : {"unsigned short", "uint16_t"})
    EXPECT_EQ(one(type, ones), "a=65535i") << type;
  for (const char* const type : {"unsigned int", "uint32_t"})
    EXPECT_EQ(one(type, ones), "a=4294967295i") << type;
  for (const char* const type : {"unsigned long", "unsigned long long", "uint64_t", "timestamp"})
    EXPECT_EQ(one(type, ones), "a=18446744073709551615i") << type;
  for (const char* const type :
       {"int8_t", "short", "int16_t", "int", "int32_t", "long", "long long", "int64_t"})
    EXPECT_EQ(one(type, ones), "a=-1i") << type;
}

TEST_F(RecordInfluxTest, ValuesOfEveryKind) {
  EXPECT_EQ(one("int16_t", RecordBytes().add(std::int16_t{-5})), "a=-5i");
  EXPECT_EQ(one("uint64_t", RecordBytes().add(std::uint64_t{7})), "a=7i");
  EXPECT_EQ(one("double", RecordBytes().add(0.5)), "a=0.500000");
  EXPECT_EQ(one("float", RecordBytes().add(0.1F)), "a=0.100000");
  EXPECT_EQ(one("bool", RecordBytes().add(std::uint8_t{2})), "a=true");
  EXPECT_EQ(one("bool", RecordBytes().add(std::uint8_t{0})), "a=false");
  EXPECT_EQ(one("int64_t", RecordBytes().add(std::numeric_limits<std::int64_t>::min())),
            "a=-9223372036854775808i");
  EXPECT_EQ(one("double", RecordBytes().add(-0.0)), "a=-0.000000");
}

TEST_F(RecordInfluxTest, NanAndInfinitiesArePrinted) {
  EXPECT_EQ(one("double", RecordBytes().add(std::numeric_limits<double>::quiet_NaN())), "a=nan");
  EXPECT_EQ(one("float", RecordBytes().add(-std::numeric_limits<float>::infinity())), "a=-inf");
}

TEST_F(RecordInfluxTest, FieldSetOfNumbersARecordAndAText) {
  qvx_type_definition& pos = types_.make("pos");
  types_.add(pos, "x", "double");
  types_.add(pos, "y", "double");
  qvx_type_definition& type = types_.make();
  types_.add(type, "id", "uint32_t");
  types_.add(type, "pos", pos);
  types_.add(type, "name", "char", 8);
  const RecordBytes record = RecordBytes().add(std::uint32_t{7}).add(1.5).add(2.0).add_text("eth0", 8);
  EXPECT_EQ(line(type, record), R"(id=7i,pos.x=1.500000,pos.y=2.000000,name="eth0")");
}

TEST_F(RecordInfluxTest, PlanEndsTheLine) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "bool");
  EXPECT_EQ(compile_influx_plan(type)->text(RecordBytes().add_text("", 1).bytes()), "a=false\n");
}

TEST_F(RecordInfluxTest, TextEndsAtTheFirstUnprintableByteAndIsNotEscaped) {
  EXPECT_EQ(one("char",
                RecordBytes().add_text("ab\x01"
                                       "cd",
                                       8),
                8),
            R"(a="ab")");
  EXPECT_EQ(one("unsigned char", RecordBytes().add_text("a\"b\\", 4), 4), "a=\"a\"b\\\"");
  EXPECT_EQ(one("char", RecordBytes().add_text("", 3), 3), R"(a="")");
}

TEST_F(RecordInfluxTest, SingleCharacterIsANumber) {
  EXPECT_EQ(one("char", RecordBytes().add_text("A", 1)), "a=65i");
}

TEST_F(RecordInfluxTest, ArrayOfNumbersContributesNothing) {
  EXPECT_EQ(one("uint32_t", RecordBytes().add_text("", 12), 3), "");
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t");
  types_.add(type, "b", "uint8_t", 2);
  types_.add(type, "c", "uint8_t");
  EXPECT_EQ(line(type, RecordBytes().add_text("\x01\x02\x03\x04", 4)), "a=1i,c=4i");
}

TEST_F(RecordInfluxTest, ElementsOfAnArrayOfRecordsAreNumbered) {
  qvx_type_definition& inner = types_.make("inner");
  types_.add(inner, "v", "uint8_t");
  qvx_type_definition& port = types_.make("port");
  types_.add(port, "up", "bool");
  types_.add(port, "in", inner, 2);
  qvx_type_definition& type = types_.make();
  types_.add(type, "p", port, 2);
  EXPECT_EQ(line(type, RecordBytes().add_text({"\x01\x02\x03\x00\x05\x06", 6}, 6)),
            "p.0.up=true,p.0.in.0.v=2i,p.0.in.1.v=3i,p.1.up=false,p.1.in.0.v=5i,p.1.in.1.v=6i");
}

TEST_F(RecordInfluxTest, RepeatedNamesAreAllWritten) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t");
  types_.add(type, "a", "uint8_t");
  EXPECT_EQ(line(type, RecordBytes().add_text("\x01\x02", 2)), "a=1i,a=2i");
}

TEST_F(RecordInfluxTest, RecordWithoutPartsIsEmpty) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "nothing", types_.make("empty"));
  EXPECT_EQ(line(type, RecordBytes()), "");
}

TEST_F(RecordInfluxTest, FieldOfUnknownTypeFailsTheRecord) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t").type = nullptr;
  EXPECT_EQ(line(type, RecordBytes().add_text("", 2)), std::nullopt);
  qvx_type_definition& strange = types_.make("strange");
  strange.id = 23;
  strange.size = 1;
  qvx_type_definition& other = types_.make();
  types_.add(other, "a", strange);
  EXPECT_EQ(line(other, RecordBytes().add_text("", 2)), std::nullopt);
}

TEST_F(RecordInfluxTest, TruncatedRecordHasNoText) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint32_t");
  types_.add(type, "b", "char", 20);
  types_.add(type, "c", "double");
  const RecordBytes record =
      RecordBytes().add(std::uint32_t{1}).add_text("01234567890123456789", 20).add(1.0);
  EXPECT_EQ(line(type, record), R"(a=1i,b="01234567890123456789",c=1.000000)");
  test::for_every_truncation(record.bytes(), [&](Bytes bytes) {
    EXPECT_EQ(qvx_record_to_influx(&type, bytes), std::nullopt) << bytes.size();
  });
}

TEST_F(RecordInfluxTest, ShortMemoryMakesNoTextAndThrowsNothing) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint32_t");
  types_.add(type, "a name that is longer than a string keeps within itself", "double");
  const RecordBytes record = RecordBytes().add(std::uint32_t{1}).add(1.0);
  const auto text = [&] { return qvx_record_to_influx(&type, record.bytes()); };
  const auto whole = text();
  ASSERT_TRUE(whole.has_value());
  test::sweep_allocations(text, [&](const std::optional<std::string>& made) { return made == whole; });
}

}  // namespace
}  // namespace qvx
