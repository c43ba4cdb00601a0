#include "qvx/data/schema/record_json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/allocation_sweep.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/record_bytes.h"
#include "tests/support/type_set.h"

namespace qvx {
namespace {

using test::RecordBytes;
using test::TypeSet;

using Text = std::optional<std::string>;

class RecordJsonTest : public testing::Test {
 protected:
  Text compact(const qvx_type_definition& type, const RecordBytes& record) {
    return qvx_record_to_json(&type, record.bytes(), json::Style::compact);
  }
  // The text of a record whose only field, named "a", is of this type.
  Text one(const char* type_name, const RecordBytes& record, std::uint32_t array_length = 1) {
    qvx_type_definition& type = types_.make();
    types_.add(type, "a", type_name, array_length);
    return compact(type, record);
  }

  TypeSet types_;
};

TEST_F(RecordJsonTest, EveryBuiltInTypeIsReadByItsWidthAndSign) {
  const RecordBytes ones = RecordBytes().add(std::uint64_t{0xFFFFFFFFFFFFFFFF});
  for (const char* const type : {"bool", "char", "unsigned char", "uint8_t"})
    EXPECT_EQ(one(type, ones), R"({"a":255})") << type;
  for (const char* const type : {"unsigned short", "uint16_t"})
    EXPECT_EQ(one(type, ones), R"({"a":65535})") << type;
  for (const char* const type : {"unsigned int", "uint32_t"})
    EXPECT_EQ(one(type, ones), R"({"a":4294967295})") << type;
  for (const char* const type : {"unsigned long", "unsigned long long", "uint64_t", "timestamp"})
    EXPECT_EQ(one(type, ones), R"({"a":1.8446744073709552e+19})") << type;
  for (const char* const type :
       {"int8_t", "short", "int16_t", "int", "int32_t", "long", "long long", "int64_t"})
    EXPECT_EQ(one(type, ones), R"({"a":-1})") << type;
  EXPECT_EQ(one("float", RecordBytes().add(0.1F)), R"({"a":0.10000000149011612})");
  EXPECT_EQ(one("double", RecordBytes().add(0.1)), R"({"a":0.10000000000000001})");
}

TEST_F(RecordJsonTest, IntegersBeyond2To53AreRounded) {
  EXPECT_EQ(one("uint64_t", RecordBytes().add(std::uint64_t{9007199254740993})), R"({"a":9007199254740992})");
  EXPECT_EQ(one("int64_t", RecordBytes().add(std::int64_t{-9007199254740993})), R"({"a":-9007199254740992})");
  EXPECT_EQ(one("uint64_t", RecordBytes().add(std::uint64_t{100000000000000000})), R"({"a":1e+17})");
}

TEST_F(RecordJsonTest, NegativeZeroKeepsItsSign) {
  EXPECT_EQ(one("double", RecordBytes().add(-0.0)), R"({"a":-0})");
  EXPECT_EQ(one("float", RecordBytes().add(-0.0F)), R"({"a":-0})");
}

TEST_F(RecordJsonTest, ValueThatIsNoNumberFailsTheRecord) {
  for (const double value :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(one("double", RecordBytes().add(value)), std::nullopt);
    EXPECT_EQ(one("float", RecordBytes().add(static_cast<float>(value))), std::nullopt);
    EXPECT_EQ(one("double", RecordBytes().add(1.0).add(value), 2), std::nullopt);
  }
}

TEST_F(RecordJsonTest, CharacterArrayEndsAtTheFirstNul) {
  EXPECT_EQ(one("char", RecordBytes().add_text("eth0", 8), 8), R"({"a":"eth0"})");
  EXPECT_EQ(one("unsigned char", RecordBytes().add_text("eth0", 8), 8), R"({"a":"eth0"})");
}

TEST_F(RecordJsonTest, CharacterArrayEndsAtTheFirstUnprintableByte) {
  EXPECT_EQ(one("char",
                RecordBytes().add_text("ab\x01"
                                       "cd",
                                       8),
                8),
            R"({"a":"ab"})");
  EXPECT_EQ(one("char", RecordBytes().add_text("ab\x7F", 3), 3), R"({"a":"ab"})");
  EXPECT_EQ(one("char", RecordBytes().add_text("ab\xC3\xA9", 4), 4), R"({"a":"ab"})");
  EXPECT_EQ(one("char", RecordBytes().add_text("\n", 2), 2), R"({"a":""})");
}

TEST_F(RecordJsonTest, CharacterArrayMayBeFullAndIsEscaped) {
  EXPECT_EQ(one("char", RecordBytes().add_text("abcdefghijklmnop", 11), 11), R"({"a":"abcdefghijk"})");
  EXPECT_EQ(one("char", RecordBytes().add_text("\"\\/ ~", 5), 5), R"({"a":"\"\\/ ~"})");
}

TEST_F(RecordJsonTest, SingleCharacterIsANumber) {
  EXPECT_EQ(one("char", RecordBytes().add_text("A", 1)), R"({"a":65})");
  EXPECT_EQ(one("unsigned char", RecordBytes().add_text("\xFF", 1)), R"({"a":255})");
}

TEST_F(RecordJsonTest, ArrayOfNumbersIsAnArray) {
  const RecordBytes record = RecordBytes().add(std::uint32_t{1}).add(std::uint32_t{2}).add(std::uint32_t{3});
  EXPECT_EQ(one("uint32_t", record, 3), R"({"a":[1,2,3]})");
  EXPECT_EQ(one("uint8_t", RecordBytes().add_text("ab", 2), 2), R"({"a":[97,98]})");
}

TEST_F(RecordJsonTest, NestedRecordIsANestedObjectInFieldOrder) {
  qvx_type_definition& point = types_.make("point");
  types_.add(point, "y", "int16_t");
  types_.add(point, "x", "int16_t");
  qvx_type_definition& type = types_.make();
  types_.add(type, "id", "uint8_t");
  types_.add(type, "at", point);
  types_.add(type, "end", "uint8_t");
  const RecordBytes record =
      RecordBytes().add(std::uint8_t{7}).add(std::int16_t{-1}).add(std::int16_t{2}).add(std::uint8_t{9});
  EXPECT_EQ(compact(type, record), R"({"id":7,"at":{"y":-1,"x":2},"end":9})");
}

TEST_F(RecordJsonTest, PrettyTextHasAValueALine) {
  qvx_type_definition& point = types_.make("point");
  types_.add(point, "x", "uint8_t");
  qvx_type_definition& empty = types_.make("empty");
  qvx_type_definition& type = types_.make();
  types_.add(type, "id", "uint8_t");
  types_.add(type, "numbers", "uint8_t", 2);
  types_.add(type, "points", point, 2);
  types_.add(type, "empty", empty);
  const RecordBytes record = RecordBytes().add_text("\x01\x02\x03\x04\x05", 6);
  EXPECT_EQ(qvx_record_to_json(&type, record.bytes(), json::Style::pretty), R"({
    "id": 1,
    "numbers": [
        2,
        3
    ],
    "points": [
        {
            "x": 4
        },
        {
            "x": 5
        }
    ],
    "empty": {}
})");
}

TEST_F(RecordJsonTest, RecordWithoutFieldsIsAnEmptyObject) {
  EXPECT_EQ(compact(types_.make(), RecordBytes().add_text("", 1)), "{}");
}

TEST_F(RecordJsonTest, KeysAreQuotedAndEscapedAsTheyAre) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a \"b\"\n", "uint8_t");
  types_.add(type, "x.y", "uint8_t");
  types_.add(type, "", "uint8_t");
  types_.add(type, "\xFF", "uint8_t");
  EXPECT_EQ(compact(type, RecordBytes().add_text("\x01\x02\x03\x04", 4)),
            "{\"a \\\"b\\\"\\n\":1,\"x.y\":2,\"\":3,\"\xFF\":4}");
}

TEST_F(RecordJsonTest, RepeatedNameStandsAtItsFirstPlaceWithItsLastValue) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t");
  types_.add(type, "b", "uint8_t");
  types_.add(type, "a", "char", 2);
  types_.add(type, "b", "uint8_t");
  types_.add(type, "a", "uint8_t");
  EXPECT_EQ(compact(type, RecordBytes().add_text("\x01\x02xx\x03\x04", 6)), R"({"a":4,"b":3})");
}

TEST_F(RecordJsonTest, ValueHiddenByARepeatedNameMustBeANumberAllTheSame) {
  qvx_type_definition& inner = types_.make("inner");
  types_.add(inner, "v", "double");
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "double");
  types_.add(type, "b", inner);
  types_.add(type, "c", "double", 2);
  types_.add(type, "d", inner, 2);
  for (const char* const name : {"a", "b", "c", "d"})
    types_.add(type, name, "uint8_t");
  for (int nan_at = -1; nan_at < 6; ++nan_at) {
    RecordBytes record;
    for (int i = 0; i < 6; ++i)
      record.add(i == nan_at ? std::numeric_limits<double>::quiet_NaN() : 1.0);
    record.add_text("\x01\x02\x03\x04", 4);
    const Text expected = nan_at < 0 ? Text(R"({"a":1,"b":2,"c":3,"d":4})") : std::nullopt;
    EXPECT_EQ(compact(type, record), expected) << nan_at;
  }
}

TEST_F(RecordJsonTest, OffsetsAndStridesAreTakenAsWritten) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t").offset = 3;
  qvx_field_definition& array = types_.add(type, "b", "uint16_t", 2);
  array.offset = 1;
  array.type_size = 1;
  EXPECT_EQ(compact(type, RecordBytes().add_text("\x01\x02\x03\x04\x05", 5)), R"({"a":4,"b":[770,1027]})");
}

TEST_F(RecordJsonTest, FieldMayReachIntoTheBytesBehindItsRecord) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t").offset = 4;
  type.size = 1;
  EXPECT_EQ(compact(type, RecordBytes().add_text("\x01\x02\x03\x04\x05", 5)), R"({"a":5})");
  EXPECT_EQ(compact(type, RecordBytes().add_text("\x01\x02\x03\x04", 4)), std::nullopt);
}

TEST_F(RecordJsonTest, FieldOfUnknownTypeFailsTheRecord) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t");
  types_.add(type, "b", "uint8_t").type = nullptr;
  EXPECT_EQ(compact(type, RecordBytes().add_text("", 2)), std::nullopt);
}

TEST_F(RecordJsonTest, BuiltInTypeOfUnknownIdFailsTheRecord) {
  qvx_type_definition& strange = types_.make("strange");
  strange.id = 23;
  strange.size = 1;
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", strange);
  EXPECT_EQ(compact(type, RecordBytes().add_text("", 2)), std::nullopt);
}

TEST_F(RecordJsonTest, TruncatedRecordHasNoText) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint32_t");
  types_.add(type, "b", "char", 20);
  types_.add(type, "c", "double", 3);
  const RecordBytes record =
      RecordBytes().add(std::uint32_t{1}).add_text("01234567890123456789", 20).add(1.0).add(2.0).add(3.0);
  EXPECT_EQ(compact(type, record), R"({"a":1,"b":"01234567890123456789","c":[1,2,3]})");
  test::for_every_truncation(record.bytes(), [&](Bytes bytes) {
    EXPECT_EQ(qvx_record_to_json(&type, bytes, json::Style::compact), std::nullopt) << bytes.size();
  });
}

TEST_F(RecordJsonTest, FieldHasItsOwnValue) {
  qvx_type_definition& point = types_.make("point");
  types_.add(point, "x", "int8_t");
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint16_t", 2);
  types_.add(type, "s", "char", 4);
  types_.add(type, "p", point);
  types_.add(type, "d", "double");
  const RecordBytes record = RecordBytes()
                                 .add(std::uint16_t{1})
                                 .add(std::uint16_t{65535})
                                 .add_text("ab", 4)
                                 .add(std::int8_t{-2})
                                 .add(std::numeric_limits<double>::quiet_NaN());
  const auto text = [&](std::size_t index, Bytes at_hand) {
    const std::optional<json::Value> value = qvx_field_to_json(type.fields[index].get(), at_hand);
    return value ? json::to_text(*value, json::Style::compact) : std::nullopt;
  };
  EXPECT_EQ(text(0, record.bytes()), "[1,65535]");
  EXPECT_EQ(text(1, record.bytes()), "\"ab\"");
  EXPECT_EQ(text(2, record.bytes()), R"({"x":-2})");
  EXPECT_EQ(text(3, record.bytes()), std::nullopt);
  EXPECT_EQ(qvx_field_to_json(nullptr, record.bytes()), std::nullopt);
  const test::LogCapture log;
  EXPECT_EQ(text(1, record.bytes().first(7)), std::nullopt);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            std::vector<std::string>{"Failed to serialize field s of type char[4] as string"});
}

TEST_F(RecordJsonTest, ValueOfABuiltInTypeIsANumber) {
  const RecordBytes ones = RecordBytes().add(std::uint64_t{0xFFFFFFFFFFFFFFFF});
  const auto number = [&](std::uint32_t id) {
    const std::optional<json::Value> value = qvx_builtin_to_json(id, ones.bytes());
    return value ? value->as_number() : std::nullopt;
  };
  for (const std::uint32_t id : {1, 2, 7, 18})
    EXPECT_EQ(number(id), 255) << id;
  for (const std::uint32_t id : {14, 3, 15, 4, 16, 5, 6, 17})
    EXPECT_EQ(number(id), -1) << id;
  for (const std::uint32_t id : {8, 19})
    EXPECT_EQ(number(id), 65535) << id;
  for (const std::uint32_t id : {9, 20})
    EXPECT_EQ(number(id), 4294967295) << id;
  for (const std::uint32_t id : {10, 11, 21, 22})
    EXPECT_EQ(number(id), 18446744073709551616.0) << id;
  for (const std::uint32_t id : {12, 13, 0, 23})
    EXPECT_EQ(number(id), std::nullopt) << id;
  EXPECT_EQ(qvx_builtin_to_json(13, RecordBytes().add(0.5).bytes())->as_number(), 0.5);
  EXPECT_EQ(qvx_builtin_to_json(12, RecordBytes().add(0.25F).bytes())->as_number(), 0.25);
  EXPECT_EQ(qvx_builtin_to_json(13, ones.bytes().first(7)), std::nullopt);
}

TEST_F(RecordJsonTest, ShortMemoryMakesNoTextAndThrowsNothing) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint32_t", 3);
  types_.add(type, "a name that is longer than a string keeps within itself", "double");
  const RecordBytes record =
      RecordBytes().add(std::uint32_t{1}).add(std::uint32_t{2}).add(std::uint32_t{3}).add(1.0);
  const auto text = [&] { return qvx_record_to_json(&type, record.bytes(), json::Style::pretty); };
  const auto whole = text();
  ASSERT_TRUE(whole.has_value());
  test::sweep_allocations(text, [&](const std::optional<std::string>& made) { return made == whole; });
}

}  // namespace
}  // namespace qvx
