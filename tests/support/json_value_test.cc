#include "qvx/support/json_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"

namespace qvx::json {
namespace {

std::string compact(const Value& value) {
  return to_text(value, Style::compact).value_or("(no text)");
}

std::string compact(const Object& object) {
  return compact(Value(object));
}

Value from(std::string_view text) {
  auto value = parse(text);
  EXPECT_TRUE(value) << text;
  return value ? *value : Value();
}

Object object_from(std::string_view text) {
  const Value value = from(text);
  return value.as_object() != nullptr ? *value.as_object() : Object();
}

std::string numbered(std::string name, std::size_t number) {
  name += std::to_string(number);
  return name;
}

// Arrays and objects in turn around a number.
Value nested(std::size_t levels) {
  Value value = Value::integer(1);
  for (std::size_t i = 0; i < levels; ++i) {
    if (i % 2 == 0) {
      Array array;
      array.push_back(std::move(value));
      value = Value(std::move(array));
    } else {
      Object object;
      object.set("a", std::move(value));
      value = Value(std::move(object));
    }
  }
  return value;
}

TEST(JsonValue, NumbersThatJsonCannotHoldAreNotMade) {
  EXPECT_FALSE(Value::number(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(Value::number(-std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(Value::number(std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(Value::number(-std::numeric_limits<double>::infinity()));
  ASSERT_TRUE(Value::number(std::numeric_limits<double>::max()));
  EXPECT_EQ(Value::number(-0.5)->as_number(), -0.5);
}

TEST(JsonValue, StringsThatAreNotUtf8AreNotMade) {
  EXPECT_FALSE(Value::string("caf\xE9"));
  EXPECT_FALSE(Value::string("\xED\xA0\x80"));
  ASSERT_TRUE(Value::string("caf\xC3\xA9"));
  EXPECT_EQ(*Value::string("caf\xC3\xA9")->as_string(), "caf\xC3\xA9");
  EXPECT_EQ(*Value::raw_string("caf\xE9").as_string(), "caf\xE9");
}

TEST(JsonValue, IntegersBecomeTheNearestDouble) {
  EXPECT_EQ(Value::integer(std::uint64_t{18446744073709551615U}).as_number(), 18446744073709551616.0);
  EXPECT_EQ(Value::integer(std::int64_t{9007199254740993}).as_number(), 9007199254740992.0);
  EXPECT_EQ(Value::integer(-7).as_number(), -7.0);
}

TEST(JsonValue, EachKindAnswersOnlyToItself) {
  const Value values[] = {Value(),        Value::boolean(true), Value::integer(1), Value::raw_string("s"),
                          Value(Array{}), Value(Object{})};
  const Kind kinds[] = {Kind::null, Kind::boolean, Kind::number, Kind::string, Kind::array, Kind::object};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    EXPECT_EQ(values[i].kind(), kinds[i]);
    EXPECT_EQ(values[i].is_null(), kinds[i] == Kind::null);
    EXPECT_EQ(values[i].as_boolean().has_value(), kinds[i] == Kind::boolean);
    EXPECT_EQ(values[i].as_number().has_value(), kinds[i] == Kind::number);
    EXPECT_EQ(values[i].as_string() != nullptr, kinds[i] == Kind::string);
    EXPECT_EQ(values[i].as_array() != nullptr, kinds[i] == Kind::array);
    EXPECT_EQ(values[i].as_object() != nullptr, kinds[i] == Kind::object);
  }
}

TEST(JsonValue, CopiesShareNothing) {
  Value original = from(R"({"a":[1,{"b":2}]})");
  const Value copy = original;
  original.as_object()->find("a")->as_array()->at(1).as_object()->set("b", Value::raw_string("changed"));
  EXPECT_EQ(compact(copy), R"({"a":[1,{"b":2}]})");
  EXPECT_EQ(compact(original), R"({"a":[1,{"b":"changed"}]})");
}

TEST(JsonValue, AMovedValueIsNullAndAPartCanReplaceTheWhole) {
  Value value = from(R"({"a":[1,{"b":[true]}],"c":2})");
  Value moved = std::move(value);
  EXPECT_TRUE(value.is_null());
  EXPECT_EQ(value.as_object(), nullptr);
  moved = std::move(moved.as_object()->find("a")->as_array()->at(1));
  EXPECT_EQ(compact(moved), R"({"b":[true]})");
  moved = moved.as_object()->find("b")->as_array()->at(0);
  EXPECT_EQ(compact(moved), "true");
}

// Leaks and double frees are for the sanitizers to see.
TEST(JsonValue, TreesOfEveryShapeAreDestroyed) {
  for (const char* const text :
       {"[]", "{}", "[[]]", "[[],[]]", "[[1],[2],[3]]", R"([[[1,[2]],{"a":[3]}],4,{"b":{"c":5,"d":[6]}},[]])",
        R"({"a":{"b":{"c":{}}},"d":["x",["y",["z"]]]})"}) {
    Value value = from(text);
    EXPECT_EQ(compact(value), text);
    value = Value();
    EXPECT_TRUE(value.is_null());
  }
  Value deep = nested(200000);
  EXPECT_EQ(deep.kind(), Kind::object);
}

TEST(JsonValue, DeepValuesAreCopiedAndDestroyed) {
  Value deep = nested(2048);
  Value copy = deep;
  deep = Value();
  EXPECT_EQ(compact(copy).size(), 1024U * 2 + 1024U * 6 + 1);
}

TEST(JsonObject, MembersKeepTheOrderOfAddition) {
  Object object;
  object.set("z", Value::integer(1));
  object.set("a", Value::integer(2));
  object.set("m", Value::integer(3));
  EXPECT_EQ(compact(object), R"({"z":1,"a":2,"m":3})");
}

TEST(JsonObject, SetReplacesWhereTheMemberStands) {
  Object object = object_from(R"({"a":1,"b":2,"c":3})");
  object.set("b", Value::raw_string("new"));
  EXPECT_EQ(compact(object), R"({"a":1,"b":"new","c":3})");
}

TEST(JsonObject, AddRefusesANameThatExists) {
  Object object;
  EXPECT_TRUE(object.add("a", Value::integer(1)));
  EXPECT_FALSE(object.add("a", Value::integer(2)));
  EXPECT_TRUE(object.add("", Value::integer(3)));
  EXPECT_FALSE(object.add("", Value::integer(4)));
  EXPECT_EQ(compact(object), R"({"a":1,"":3})");
}

TEST(JsonObject, SettingWhatCannotBeMadeChangesNothing) {
  Object object = object_from(R"({"a":1})");
  EXPECT_FALSE(object.set_number("a", std::nan("")));
  EXPECT_FALSE(object.set_string("a", "\xFF"));
  EXPECT_FALSE(object.set_string("b", "\xFF"));
  EXPECT_EQ(compact(object), R"({"a":1})");
  EXPECT_TRUE(object.set_number("a", 2.5));
  EXPECT_TRUE(object.set_string("b", "t"));
  EXPECT_EQ(compact(object), R"({"a":2.5,"b":"t"})");
}

TEST(JsonObject, ManyMembersAreFoundReplacedAndRefusedLikeFew) {
  for (const std::size_t count : {15U, 16U, 17U, 18U, 1000U}) {
    Object object;
    for (std::size_t i = 0; i < count; ++i)
      ASSERT_TRUE(object.add(numbered("m", i), Value::integer(i)));
    EXPECT_EQ(object.size(), count);
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_FALSE(object.add(numbered("m", i), Value()));
      EXPECT_EQ(object.number_at(numbered("m", i)), static_cast<double>(i));
    }
    EXPECT_EQ(object.find("m"), nullptr);
    object.set("m3", Value::raw_string("third"));
    EXPECT_EQ(*object.members()[3].value.as_string(), "third");

    Object copy = object;
    Object moved = std::move(object);
    copy.set("m4", Value());
    EXPECT_EQ(moved.number_at("m4"), 4.0);
    EXPECT_TRUE(copy.find("m4")->is_null());
    EXPECT_TRUE(moved.add("more", Value()));
    EXPECT_EQ(copy.find("more"), nullptr);
    EXPECT_EQ(moved.size(), count + 1);
    copy = moved;
    EXPECT_EQ(copy.members().back().name, "more");
    EXPECT_FALSE(copy.add("more", Value()));
  }
}

// Searched one by one these are 5 * 10^9 comparisons, minutes instead of a blink.
TEST(JsonObject, ManyMembersTakeNoQuadraticTime) {
  Object object;
  const std::string prefix(24, 'x');
  for (std::size_t i = 0; i < 100000; ++i)
    ASSERT_TRUE(object.add(numbered(prefix, i), Value()));
  EXPECT_FALSE(object.add(prefix + "99999", Value()));
}

TEST(JsonObject, DottedSetMakesTheObjectsOnTheWay) {
  Object object;
  EXPECT_TRUE(object.set_dotted("timestamp", Value::integer(5)));
  EXPECT_TRUE(object.set_dotted("hcx4_0.node_guid", Value::raw_string("n")));
  EXPECT_TRUE(object.set_dotted("hcx4_0.system_image_guid", Value::raw_string("s")));
  EXPECT_TRUE(object.set_dotted("x.y.z.w", Value::boolean(true)));
  EXPECT_TRUE(object.set_dotted("x.y.v", Value()));
  EXPECT_TRUE(object.set_dotted("x.y.z.w", Value::boolean(false)));
  EXPECT_EQ(compact(object), R"({"timestamp":5,"hcx4_0":{"node_guid":"n","system_image_guid":"s"},)"
                             R"("x":{"y":{"z":{"w":false},"v":null}}})");
}

TEST(JsonObject, DottedSetFailsWhenSomethingElseIsInTheWay) {
  Object object = object_from(R"({"a":1,"b":{"c":[]}})");
  EXPECT_FALSE(object.set_dotted("a.x", Value()));
  EXPECT_FALSE(object.set_dotted("b.c.x", Value()));
  EXPECT_FALSE(object.set_dotted("b.c.x.y", Value()));
  EXPECT_EQ(compact(object), R"({"a":1,"b":{"c":[]}})");
  EXPECT_TRUE(object.set_dotted("b.c", Value::integer(2)));
  EXPECT_EQ(compact(object), R"({"a":1,"b":{"c":2}})");
}

TEST(JsonObject, EmptyPartsOfADottedNameAreEmptyNames) {
  Object object;
  EXPECT_TRUE(object.set_dotted("a..b", Value::integer(1)));
  EXPECT_TRUE(object.set_dotted(".c", Value::integer(2)));
  EXPECT_TRUE(object.set_dotted("c.", Value::integer(3)));
  EXPECT_EQ(compact(object), R"({"a":{"":{"b":1}},"":{"c":2},"c":{"":3}})");
  ASSERT_NE(object.find_dotted("a..b"), nullptr);
  EXPECT_EQ(object.find_dotted("a..b")->as_number(), 1.0);
}

TEST(JsonObject, DottedFindFollowsObjectsOnly) {
  const Object object = object_from(R"({"a":{"b":{"c":7}},"d":[1],"e.f":8})");
  ASSERT_NE(object.find_dotted("a.b.c"), nullptr);
  EXPECT_EQ(object.find_dotted("a.b.c")->as_number(), 7.0);
  EXPECT_EQ(object.find_dotted("a.b")->kind(), Kind::object);
  EXPECT_EQ(object.find_dotted("d")->kind(), Kind::array);
  EXPECT_EQ(object.find_dotted("d.0"), nullptr);
  EXPECT_EQ(object.find_dotted("a.x.c"), nullptr);
  EXPECT_EQ(object.find_dotted("a.b.c.d"), nullptr);
  EXPECT_EQ(object.find_dotted("e.f"), nullptr);
}

TEST(JsonObject, AccessByKindWantsTheKind) {
  const Object object = object_from(R"({"b":true,"n":1,"s":"t","a":[1,2],"o":{"x":null},"z":null})");
  EXPECT_EQ(object.boolean_at("b"), true);
  EXPECT_EQ(object.number_at("n"), 1.0);
  ASSERT_NE(object.string_at("s"), nullptr);
  EXPECT_EQ(*object.string_at("s"), "t");
  ASSERT_NE(object.array_at("a"), nullptr);
  EXPECT_EQ(object.array_at("a")->size(), 2U);
  ASSERT_NE(object.object_at("o"), nullptr);
  EXPECT_EQ(object.object_at("o")->size(), 1U);
  for (const char* const name : {"z", "missing", "s"}) {
    EXPECT_EQ(object.boolean_at(name), std::nullopt);
    EXPECT_EQ(object.number_at(name), std::nullopt);
    EXPECT_EQ(object.array_at(name), nullptr);
    EXPECT_EQ(object.object_at(name), nullptr);
  }
  EXPECT_EQ(object.string_at("n"), nullptr);
  EXPECT_EQ(object.string_at("missing"), nullptr);
}

TEST(JsonMatches, EveryMemberOfThePatternMustBeThereWithItsKind) {
  const Value pattern = from(R"({"name":"","size":0,"fields":[],"flag":true,"more":{}})");
  EXPECT_TRUE(matches(pattern, from(R"({"name":"n","size":4,"fields":[],"flag":false,"more":{}})")));
  EXPECT_TRUE(
      matches(pattern, from(R"({"x":1,"more":{"y":1},"flag":true,"fields":[1],"size":4,"name":"n"})")));
  EXPECT_FALSE(matches(pattern, from(R"({"name":"n","size":"4","fields":[],"flag":true,"more":{}})")));
  EXPECT_FALSE(matches(pattern, from(R"({"name":"n","size":4,"fields":{},"flag":true,"more":{}})")));
  EXPECT_FALSE(matches(pattern, from(R"({"name":null,"size":4,"fields":[],"flag":true,"more":{}})")));
  EXPECT_FALSE(matches(pattern, from(R"({"name":"n","size":4,"fields":[],"flag":true,"other":{}})")));
  EXPECT_FALSE(matches(pattern, from("[]")));
  EXPECT_FALSE(matches(pattern, Value()));
}

TEST(JsonMatches, FewerMembersThanThePatternFail) {
  EXPECT_FALSE(matches(from(R"({"a":1,"b":2})"), from(R"({"a":1})")));
  EXPECT_FALSE(matches(from(R"({"a":1})"), from("{}")));
}

TEST(JsonMatches, EmptyArraysAndObjectsAcceptAnyOfTheirKind) {
  EXPECT_TRUE(matches(from("[]"), from(R"([1,"a",null])")));
  EXPECT_TRUE(matches(from("{}"), from(R"({"a":1})")));
  EXPECT_FALSE(matches(from("[]"), from("{}")));
  EXPECT_FALSE(matches(from("{}"), from("[]")));
}

TEST(JsonMatches, PatternsReachInto) {
  const Value pattern = from(R"({"a":{"b":{"c":0}},"l":[{"n":""}]})");
  EXPECT_TRUE(matches(pattern, from(R"({"a":{"b":{"c":9,"d":1}},"l":[{"n":"x"},{"n":"y","m":1}]})")));
  EXPECT_TRUE(matches(pattern, from(R"({"a":{"b":{"c":9}},"l":[]})")));
  EXPECT_FALSE(matches(pattern, from(R"({"a":{"b":{"c":"9"}},"l":[]})")));
  EXPECT_FALSE(matches(pattern, from(R"({"a":{"b":{"c":9}},"l":[{"n":"x"},{"m":"y"}]})")));
}

}  // namespace
}  // namespace qvx::json
