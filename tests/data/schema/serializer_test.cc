#include "qvx/data/schema/serializer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/counters_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/record_bytes.h"

namespace qvx::data {
namespace {

using test::make_group;
using test::RecordBytes;

using Lines = std::vector<std::string>;

constexpr std::uint64_t kTime = 1700000000123456;
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// A page whose data area holds the bytes.
std::vector<std::byte> page_of(Bytes data) {
  std::vector<std::byte> page(720 + data.size());
  std::copy(data.begin(), data.end(), page.begin() + 720);
  store_le<std::uint64_t>(page.data() + 12, page.size());
  return page;
}

qvx_adapter_info adapter(std::string_view name, std::string_view guid_end) {
  const auto put = [](auto& to, const std::string& text) { text.copy(to.data(), to.size()); };
  qvx_adapter_info info;
  put(info.name, std::string(name));
  put(info.node_guid, "a0000000000000" + std::string(guid_end));
  put(info.system_image_guid, "b0000000000000" + std::string(guid_end));
  put(info.port_1_guid, "c0000000000000" + std::string(guid_end));
  put(info.port_2_guid, "d0000000000000" + std::string(guid_end));
  return info;
}

RecordBytes counters_block(std::uint64_t time = kTime) {
  return RecordBytes().add_text("QVXD", 8).add(time);
}

RecordBytes& add_events_header(RecordBytes& bytes, std::uint8_t schema, std::uint16_t type,
                               std::uint8_t count, std::uint64_t time = kTime) {
  return bytes.add_text("QVXE", 4).add(time).add(schema).add(type).add(count);
}

class InfluxSerializerTest : public testing::Test {
 protected:
  InfluxSerializerTest() : types_(qvx_type_system_create()) {}

  void set_counters(std::initializer_list<qvx_counter_group*> groups) {
    types_->counters_schema.reset(test::make_schema(groups).release());
  }

  // Adds a type to the only event schema.
  void add_type(const char* name, const std::vector<qvx_field_info>& fields,
                const std::vector<const char*>& index_names = {}) {
    if (types_->schemas.empty()) {
      ASSERT_NE(qvx_type_system_new_schema(types_.get(), "net", 1, nullptr), nullptr);
    }
    qvx_schema* const schema = types_->schemas[0].get();
    std::uint8_t index = 0;
    ASSERT_EQ(qvx_schema_add_type(schema, name, fields.data(), fields.size(), &index), 0);
    if (index_names.empty()) return;
    ASSERT_EQ(qvx_schema_set_field_indexes(schema, index, index_names.data(), index_names.size()), 0);
  }

  Lines lines(Bytes data, std::vector<qvx_adapter_info> adapters = {}) {
    const std::vector<std::byte> page = page_of(data);
    InfluxSerializer serializer;
    const Lines made = serializer.serialize(page, adapters, *types_);
    std::string text;
    {
      OutputSink sink(text, 16);
      serializer.write(page, adapters, *types_, sink);
    }
    std::string joined;
    for (const std::string& line : made)
      joined += line + "\n";
    EXPECT_EQ(text, joined);
    return made;
  }

  TypeSystemPtr types_;
};

TEST_F(InfluxSerializerTest, MeasurementsOfCountersHaveTheirTags) {
  const InfluxSerializer serializer;
  using Keys = std::vector<std::string_view>;
  const auto keys = [&](std::size_t index) {
    const auto& from = serializer.measurements()[index].tag_keys;
    return Keys(from.begin(), from.end());
  };
  EXPECT_STREQ(serializer.measurements()[0].name, "hca_counters");
  EXPECT_EQ(keys(0), (Keys{"hca_name", "node_guid", "system_image_guid"}));
  EXPECT_STREQ(serializer.measurements()[1].name, "hca_port_counters");
  EXPECT_EQ(keys(1), (Keys{"hca_name", "node_guid", "port_num", "port_guid"}));
  EXPECT_STREQ(serializer.measurements()[2].name, "cpu_counters");
  EXPECT_EQ(keys(2), (Keys{"node_guid", "system_image_guid", "cpu_num"}));
  EXPECT_STREQ(serializer.measurements()[3].name, "node_counters");
  EXPECT_EQ(keys(3), (Keys{"node_guid", "system_image_guid"}));
}

TEST_F(InfluxSerializerTest, CountersAreSplitByAdapterPortAndGranularity) {
  set_counters({make_group(0, 1,
                           {{"hcx4_1:2:xmit", QVX_COUNTER_UINT64},
                            {"free memory", QVX_COUNTER_FP64},
                            {"hcx4_0.errors", QVX_COUNTER_INT64},
                            {"hcx4_0:1:xmit", QVX_COUNTER_UINT64},
                            {"hcx4_0:1:rcv", QVX_COUNTER_UINT64},
                            {"hcx9_0:1:lost", QVX_COUNTER_UINT64}}),
                make_group(1, 2, {{"load", QVX_COUNTER_FP64}})});
  const RecordBytes block = counters_block()
                                .add(std::uint64_t{21})
                                .add(0.5)
                                .add(std::int64_t{-3})
                                .add(std::uint64_t{11})
                                .add(std::uint64_t{12})
                                .add(std::uint64_t{99})
                                .add(1.25);
  EXPECT_EQ(
      lines(block.bytes(), {adapter("hcx4_0", "01"), adapter("hcx4_1", "02")}),
      (Lines{
          "hca_counters,hca_name=hcx4_0,node_guid=0xa000000000000001,system_image_guid=0xb000000000000001 "
          "errors=-3i 1700000000123456000",
          "hca_port_counters,hca_name=hcx4_0,node_guid=0xa000000000000001,port_num=1,"
          "port_guid=0xc000000000000001 xmit=11i,rcv=12i 1700000000123456000",
          "hca_port_counters,hca_name=hcx4_1,node_guid=0xa000000000000002,port_num=2,"
          "port_guid=0xd000000000000002 xmit=21i 1700000000123456000",
          "cpu_counters,node_guid=0xa000000000000001,system_image_guid=0xb000000000000001,cpu_num=0 "
          "load=1.250000 1700000000123456000",
          "node_counters,node_guid=0xa000000000000001,system_image_guid=0xb000000000000001 "
          "free\\ memory=0.500000,hcx9_0:1:lost=99i 1700000000123456000",
      }));
}

TEST_F(InfluxSerializerTest, UnknownTagsAreLeftOut) {
  set_counters({make_group(0, 1, {{"a", QVX_COUNTER_INT64}}), make_group(1, 1, {{"b", QVX_COUNTER_INT64}})});
  const RecordBytes block = counters_block().add(std::int64_t{1}).add(std::int64_t{2});
  EXPECT_EQ(lines(block.bytes()), (Lines{"cpu_counters,cpu_num=0 b=2i 1700000000123456000",
                                         "node_counters a=1i 1700000000123456000"}));
  qvx_adapter_info nameless = adapter("", "01");
  EXPECT_EQ(lines(block.bytes(), {nameless, adapter("hcx4_0", "02")})[1],
            "node_counters a=1i 1700000000123456000");
}

TEST_F(InfluxSerializerTest, LongestAdapterNameWithASeparatorBehindItOwnsACounter) {
  set_counters({make_group(0, 1,
                           {{"hcx4_1:a", QVX_COUNTER_INT64},
                            {"hcx4_10:b", QVX_COUNTER_INT64},
                            {"hcx4_1_2:c", QVX_COUNTER_INT64},
                            {"hcx4_1", QVX_COUNTER_INT64}})});
  const RecordBytes block =
      counters_block().add(std::int64_t{1}).add(std::int64_t{2}).add(std::int64_t{3}).add(std::int64_t{4});
  const auto named = [](const char* name) {
    qvx_adapter_info info;
    std::string_view(name).copy(info.name.data(), info.name.size());
    return info;
  };
  EXPECT_EQ(lines(block.bytes(), {named("hcx4_1"), named("hcx4_1_2"), named("hcx4_10")}),
            (Lines{"hca_counters,hca_name=hcx4_1 a=1i 1700000000123456000",
                   "hca_counters,hca_name=hcx4_1_2 c=3i 1700000000123456000",
                   "hca_counters,hca_name=hcx4_10 b=2i 1700000000123456000",
                   "node_counters hcx4_1=4i 1700000000123456000"}));
}

TEST_F(InfluxSerializerTest, LettersBehindAnAdapterNameBelongToTheNameOfTheCounter) {
  set_counters({make_group(
      0, 1,
      {{"hcx4_1A", QVX_COUNTER_INT64}, {"hcx4_1a", QVX_COUNTER_INT64}, {"hcx4_1~f", QVX_COUNTER_INT64}})});
  const RecordBytes block = counters_block().add(std::int64_t{1}).add(std::int64_t{2}).add(std::int64_t{3});
  qvx_adapter_info info;
  std::string_view("hcx4_1").copy(info.name.data(), info.name.size());
  EXPECT_EQ(lines(block.bytes(), {info}), (Lines{"hca_counters,hca_name=hcx4_1 f=3i 1700000000123456000",
                                                 "node_counters hcx4_1A=1i,hcx4_1a=2i 1700000000123456000"}));
}

TEST_F(InfluxSerializerTest, CountersThatAreAbsentOrHaveNoNameAreLeftOut) {
  set_counters(
      {make_group(0, 1, {{"a", QVX_COUNTER_INT64}, {"b", QVX_COUNTER_INT64}, {"c", QVX_COUNTER_INT64}})});
  auto& counters = types_->counters_schema->groups[0]->counters;
  counters[0].reset();
  counters[1]->name.reset();
  const RecordBytes block = counters_block().add(std::int64_t{1}).add(std::int64_t{2}).add(std::int64_t{3});
  EXPECT_EQ(lines(block.bytes()), Lines{"node_counters c=3i 1700000000123456000"});
}

TEST_F(InfluxSerializerTest, GroupsWithMoreThanOneSetShowTheSetThatIsInTheBlock) {
  set_counters({make_group(2, 3, {{"a", QVX_COUNTER_INT64}}), make_group(0, 0, {{"b", QVX_COUNTER_INT64}})});
  const RecordBytes block = counters_block().add(std::int64_t{1}).add(std::int64_t{2});
  EXPECT_EQ(lines(block.bytes()), Lines{"node_counters,set=0 a=1i 1700000000123456000"});
}

TEST_F(InfluxSerializerTest, CounterValuesThatAServerRefusesAreLeftOut) {
  set_counters({make_group(0, 1,
                           {{"nan", QVX_COUNTER_FP64},
                            {"large", QVX_COUNTER_UINT64},
                            {"bytes", QVX_COUNTER_STRING, 2},
                            {"most", QVX_COUNTER_BIT64},
                            {"text", QVX_COUNTER_STRING, 8},
                            {"\xFF", QVX_COUNTER_INT64}})});
  const auto block = [](double nan, std::uint64_t large, std::string_view bytes) {
    return counters_block()
        .add(nan)
        .add(large)
        .add_text(bytes, 2)
        .add(std::uint64_t{9223372036854775807U})
        .add_text("a\"\\ ,=", 8)
        .add(std::int64_t{1});
  };
  EXPECT_EQ(lines(block(kNan, 9223372036854775808U, "\xFF").bytes()),
            Lines{R"(node_counters most=9223372036854775807i,text="a\"\\ ,=" 1700000000123456000)"});
  EXPECT_EQ(lines(block(-0.5, 5, "ok").bytes()),
            Lines{"node_counters nan=-0.500000,large=5i,bytes=\"ok\",most=9223372036854775807i,"
                  R"(text="a\"\\ ,=" 1700000000123456000)"});
}

TEST_F(InfluxSerializerTest, LineWithoutFieldsIsNotWritten) {
  set_counters({make_group(0, 1, {{"a", QVX_COUNTER_FP64}, {"b", QVX_COUNTER_FP64}})});
  EXPECT_EQ(lines(counters_block().add(kNan).add(kNan).bytes()), Lines{});
  EXPECT_EQ(lines(counters_block().add(kNan).add(1.0).bytes()),
            Lines{"node_counters b=1.000000 1700000000123456000"});
}

TEST_F(InfluxSerializerTest, OfOneNameTheLastCounterIsWritten) {
  set_counters({make_group(0, 1, {{"a", QVX_COUNTER_INT64}, {"b", QVX_COUNTER_INT64}}),
                make_group(0, 1, {{"a", QVX_COUNTER_INT64}})});
  EXPECT_EQ(lines(counters_block().add(std::int64_t{1}).add(std::int64_t{2}).add(std::int64_t{3}).bytes()),
            Lines{"node_counters b=2i,a=3i 1700000000123456000"});
}

TEST_F(InfluxSerializerTest, EventsAreLinesOfTheirTypeWithATimeOfTheirOwn) {
  add_type("point", {{"x", "", "int16_t", 0, 1}});
  add_type("my job,1",
           {{"node", "", "uint32_t", 0, 1},
            {"user", "", "char", 0, 8},
            {"load", "", "double", 0, 1},
            {"flags", "", "uint64_t", 0, 1},
            {"ok", "", "bool", 0, 1},
            {"pos", "", "point", 0, 1},
            {"path", "", "point", 0, 2},
            {"list", "", "uint8_t", 0, 3},
            {"na me", "", "char", 0, 4}},
           {"user", "node"});
  RecordBytes block;
  add_events_header(block, 0, 1, 2);
  const auto add_record = [&](std::uint32_t node, std::string_view user, double load, std::uint64_t flags) {
    block.add(node).add_text(user, 8).add(load).add(flags).add(std::uint8_t{2}).add(std::int16_t{-5});
    block.add(std::int16_t{1}).add(std::int16_t{2}).add_text("abc", 3).add_text("q\"\\", 4);
  };
  add_record(7, "li chen", 0.5, 9);
  add_record(8, "", kNan, 9223372036854775808U);
  EXPECT_EQ(lines(block.bytes()),
            (Lines{R"(my\ job\,1,user=li\ chen,node=7 load=0.500000,flags=9i,ok=true,pos.x=-5i,path.0.x=1i,)"
                   R"(path.1.x=2i,na\ me="q\"\\" 1700000000123456000)",
                   R"(my\ job\,1,node=8 ok=true,pos.x=-5i,path.0.x=1i,path.1.x=2i,na\ me="q\"\\" )"
                   R"(1700000000123456001)"}));
}

TEST_F(InfluxSerializerTest, NumberOfEveryKindMayEndWithThePage) {
  struct Kind {
    const char* name;
    std::string bytes;
    const char* line;
  };
  const Kind kinds[] = {
      {"uint8_t", "\1", "e v=1i 1700000000123456000"},
      {"int16_t", {"\1\0", 2}, "e v=1i 1700000000123456000"},
      {"uint32_t", {"\1\0\0\0", 4}, "e v=1i 1700000000123456000"},
      {"float", {"\0\0\x80\x3F", 4}, "e v=1.000000 1700000000123456000"},
      {"int64_t", {"\1\0\0\0\0\0\0\0", 8}, "e v=1i 1700000000123456000"},
      {"double", {"\0\0\0\0\0\0\xF0\x3F", 8}, "e v=1.000000 1700000000123456000"},
  };
  for (const auto& [name, bytes, line] : kinds) {
    types_.reset(qvx_type_system_create());
    add_type("e", {{"v", "", name, 0, 1}});
    RecordBytes block;
    add_events_header(block, 0, 0, 1).add_text(bytes, bytes.size());
    EXPECT_EQ(lines(block.bytes()), Lines{line}) << name;
  }
}

TEST_F(InfluxSerializerTest, TagsOfEveryKind) {
  add_type("t",
           {{"b", "", "bool", 0, 1},
            {"f", "", "float", 0, 1},
            {"u", "", "uint64_t", 0, 1},
            {"s", "", "char", 0, 8},
            {"v", "", "int8_t", 0, 1}},
           {"b", "f", "u", "s"});
  const auto line = [&](float f, std::string_view s) {
    RecordBytes block;
    add_events_header(block, 0, 0, 1);
    block.add(std::uint8_t{0})
        .add(f)
        .add(std::uint64_t{18446744073709551615U})
        .add_text(s, 8)
        .add(std::int8_t{-1});
    return lines(block.bytes());
  };
  EXPECT_EQ(line(1.5F, "a,b=c\\"),
            Lines{R"(t,b=false,f=1.500000,u=18446744073709551615,s=a\,b\=c_ v=-1i 1700000000123456000)"});
  EXPECT_EQ(line(std::numeric_limits<float>::infinity(), "\x01z"),
            Lines{"t,b=false,u=18446744073709551615 v=-1i 1700000000123456000"});
  // The printable characters are those from the blank to the tilde.
  EXPECT_EQ(line(1.0F, "\x7Fz"),
            Lines{"t,b=false,f=1.000000,u=18446744073709551615 v=-1i 1700000000123456000"});
  EXPECT_EQ(line(1.0F, " ~\x7Fz"),
            Lines{R"(t,b=false,f=1.000000,u=18446744073709551615,s=\ ~ v=-1i 1700000000123456000)"});
  EXPECT_EQ(line(1.0F, "~"),
            Lines{"t,b=false,f=1.000000,u=18446744073709551615,s=~ v=-1i 1700000000123456000"});
}

TEST_F(InfluxSerializerTest, OddNamesAreMadeAcceptable) {
  add_type("#a\n\\",
           {{"k\t=\\", "", "int8_t", 0, 1}, {"", "", "int8_t", 0, 1}, {"\xFF", "", "int8_t", 0, 1}});
  RecordBytes block;
  add_events_header(block, 0, 0, 1).add(std::int8_t{1}).add(std::int8_t{2}).add(std::int8_t{3});
  EXPECT_EQ(lines(block.bytes()), Lines{"_a__ k_\\=_=1i 1700000000123456000"});
}

TEST_F(InfluxSerializerTest, NamesKeepWhatIsOddOnlyElsewhere) {
  add_type("a#b=c\x7F", {{"k#\x7F", "", "int8_t", 0, 1}, {"a,b c", "", "int8_t", 0, 1}});
  add_type("\xFF", {{"v", "", "int8_t", 0, 1}});
  RecordBytes block;
  add_events_header(block, 0, 0, 1).add(std::int8_t{1}).add(std::int8_t{2});
  add_events_header(block, 0, 1, 1).add(std::int8_t{3});
  EXPECT_EQ(lines(block.bytes()), Lines{R"(a#b=c_ k#_=1i,a\,b\ c=2i 1700000000123456000)"});
}

TEST_F(InfluxSerializerTest, OnlySingleValuesAndTextsWithANameBecomeTags) {
  add_type("point", {{"x", "", "int8_t", 0, 1}});
  add_type("t",
           {{"list", "", "int8_t", 0, 2},
            {"at", "", "point", 0, 1},
            {"\xFF", "", "int8_t", 0, 1},
            {"ok", "", "int8_t", 0, 1},
            {"v", "", "int8_t", 0, 1}},
           {"list", "at", "\xFF", "ok"});
  RecordBytes block;
  add_events_header(block, 0, 1, 1);
  for (std::int8_t value = 1; value <= 6; ++value)
    block.add(value);
  EXPECT_EQ(lines(block.bytes()), Lines{"t,ok=5 at.x=3i,v=6i 1700000000123456000"});
}

TEST_F(InfluxSerializerTest, TimesThatAServerDoesNotTakeHaveNoLine) {
  set_counters({make_group(0, 1, {{"a", QVX_COUNTER_INT64}})});
  EXPECT_EQ(lines(counters_block(9223372036854775).add(std::int64_t{1}).bytes()),
            Lines{"node_counters a=1i 9223372036854775000"});
  EXPECT_EQ(lines(counters_block(9223372036854776).add(std::int64_t{1}).bytes()), Lines{});
  EXPECT_EQ(lines(counters_block(18446744073709551615U).add(std::int64_t{1}).bytes()), Lines{});
}

// The walk.

class InfluxPageWalkTest : public InfluxSerializerTest {
 protected:
  InfluxPageWalkTest() {
    set_counters({make_group(0, 1, {{"a", QVX_COUNTER_INT64}})});
    add_type("e", {{"v", "", "uint8_t", 0, 1}});
  }

  static RecordBytes& add_counters(RecordBytes& bytes, std::int64_t value) {
    return bytes.add_text("QVXD", 8).add(std::uint64_t{1}).add(value);
  }
  static RecordBytes& add_event(RecordBytes& bytes, std::uint8_t value) {
    return add_events_header(bytes, 0, 0, 1, 1).add(value);
  }
};

TEST_F(InfluxPageWalkTest, BlocksFollowOneAnotherWithoutGaps) {
  RecordBytes data;
  add_event(add_counters(add_event(data, 1), 2), 3);
  EXPECT_EQ(lines(data.bytes()), (Lines{"e v=1i 1000", "node_counters a=2i 1000", "e v=3i 1000"}));
}

TEST_F(InfluxPageWalkTest, SchemasBlocksArePassedOverByTheirSize) {
  RecordBytes data;
  data.add_text("QVXS", 4).add(std::uint16_t{40}).add_text("QVXD", 34);
  add_event(data, 1);
  EXPECT_EQ(lines(data.bytes()), Lines{"e v=1i 1000"});
}

TEST_F(InfluxPageWalkTest, SchemasBlockShorterThanItselfOrLongerThanWhatIsLeftIsPassedOverByteByByte) {
  for (const std::uint16_t size : {std::uint16_t{15}, std::uint16_t{40}}) {
    RecordBytes data;
    data.add_text("QVXS", 4).add(size).add_text("", 10);
    add_event(data, 1);
    EXPECT_EQ(lines(data.bytes()), Lines{"e v=1i 1000"}) << size;
  }
}

TEST_F(InfluxPageWalkTest, EventsBlockWithoutEventsIsItsHeader) {
  RecordBytes data;
  add_events_header(data, 0, 0, 0, 1);
  add_event(data, 1);
  EXPECT_EQ(lines(data.bytes()), Lines{"e v=1i 1000"});
}

TEST_F(InfluxPageWalkTest, OnlyTheFourthByteCountsWhereABlockIsExpected) {
  RecordBytes data;
  data.add_text("xyzD", 8).add(std::uint64_t{1}).add(std::int64_t{5});
  add_event(data, 1);
  EXPECT_EQ(lines(data.bytes()), (Lines{"node_counters a=5i 1000", "e v=1i 1000"}));
}

TEST_F(InfluxPageWalkTest, AWholeMagicCountsWhereTheNextBlockIsSearchedFor) {
  RecordBytes data;
  // Of no kind, then bytes that look like a block's fourth one, and a whole block.
  data.add_text("QVXZ", 4).add_text("abcD", 4).add_text("", 3);
  add_event(data, 1);
  EXPECT_EQ(lines(data.bytes()), Lines{"e v=1i 1000"});
}

TEST_F(InfluxPageWalkTest, EventsOfUnknownTypeArePassedOver) {
  for (const auto& [schema, type] : {std::pair<std::uint8_t, std::uint16_t>{1, 0}, {0, 1}, {255, 65535}}) {
    RecordBytes data;
    add_events_header(data, schema, type, 1, 1).add(std::uint8_t{9});
    add_event(data, 1);
    EXPECT_EQ(lines(data.bytes()), Lines{"e v=1i 1000"}) << int{schema};
  }
}

TEST_F(InfluxPageWalkTest, BlockCutByTheEndOfThePageHasNoLine) {
  RecordBytes data;
  add_event(data, 1);
  add_counters(data, 2);
  test::for_every_truncation(data.bytes(), [&](Bytes cut) {
    EXPECT_EQ(lines(cut), cut.size() < 17 ? Lines{} : Lines{"e v=1i 1000"}) << cut.size();
  });
}

TEST_F(InfluxPageWalkTest, PageEndsAtItsFilledBytes) {
  RecordBytes data;
  add_event(add_event(data, 1), 2);
  std::vector<std::byte> page = page_of(data.bytes());
  InfluxSerializer serializer;
  const auto lines_with = [&](std::uint64_t filled) {
    store_le(page.data() + 12, filled);
    return serializer.serialize(page, {}, *types_).size();
  };
  EXPECT_EQ(lines_with(720 + 34), 2U);
  EXPECT_EQ(lines_with(std::numeric_limits<std::uint64_t>::max()), 2U);
  EXPECT_EQ(lines_with(720 + 33), 1U);
  EXPECT_EQ(lines_with(720), 0U);
  EXPECT_EQ(lines_with(0), 0U);
  store_le<std::uint64_t>(page.data() + 12, 720 + 34);
  const test::GuardedBuffer header(std::vector<std::byte>(page.begin(), page.begin() + 719));
  EXPECT_EQ(serializer.serialize(header.bytes(), {}, *types_), Lines{});
}

TEST_F(InfluxPageWalkTest, TypeSystemWithoutCountersSchemaHasNoCounters) {
  types_->counters_schema.reset();
  RecordBytes data;
  add_event(add_counters(data, 2), 1);
  EXPECT_EQ(lines(data.bytes()), Lines{"e v=1i 1000"});
}

}  // namespace
}  // namespace qvx::data
