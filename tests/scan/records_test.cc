// Types of records of schemas put together by hand, which may lack what those from files have.
#include "qvx/scan/records.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qvx/data/schema/schema.h"
#include "qvx/scan/type_cache.h"
#include "tests/support/counters_builder.h"

namespace qvx {
namespace {

TEST(RecordTypesOfHand, FieldsWithoutANameOrATypeAreFields) {
  qvx_type_definition byte;
  byte.id = 18;
  qvx_type_definition unknown;
  unknown.id = 23;  // neither built in nor made of fields
  LoadedSchema loaded;
  loaded.events.reset(qvx_schema_create("net", 1));
  loaded.events->types.push_back(std::make_unique<qvx_type_definition>());
  qvx_type_definition& type = *loaded.events->types[0];
  type.name = "t";
  type.size = 3;
  for (std::uint64_t at = 0; at < 3; ++at) {
    type.fields.push_back(std::make_unique<qvx_field_definition>());
    type.fields[at]->offset = at;
    type.fields[at]->type_size = 1;
  }
  type.fields[0]->type = &byte;
  type.fields[1]->field_name = "b";
  type.fields[2]->field_name = "c";
  type.fields[2]->type = &unknown;

  const RecordType& record = RecordTypes::of_events(loaded, 0);
  ASSERT_EQ(record.fields().size(), 3u);
  EXPECT_EQ(record.fields()[0].name, "");
  EXPECT_EQ(record.fields()[0].kind, FieldKind::u8);
  EXPECT_EQ(record.fields()[1].kind, FieldKind::none);
  EXPECT_EQ(record.fields()[2].kind, FieldKind::none);
}

TEST(RecordTypesOfHand, NumbersOfOneKindWithAGapBetweenThemAreTwoRanges) {
  qvx_type_definition byte;
  byte.id = 18;
  LoadedSchema loaded;
  loaded.events.reset(qvx_schema_create("net", 1));
  loaded.events->types.push_back(std::make_unique<qvx_type_definition>());
  qvx_type_definition& type = *loaded.events->types[0];
  type.name = "t";
  type.size = 4;
  for (const std::uint64_t offset : {0, 1, 3}) {
    const auto& field = type.fields.emplace_back(std::make_unique<qvx_field_definition>());
    field->field_name = std::to_string(offset);
    field->offset = offset;
    field->type_size = 1;
    field->type = &byte;
  }
  const std::vector<FieldRange>& ranges = RecordTypes::of_events(loaded, 0).ranges();
  ASSERT_EQ(ranges.size(), 2u);
  EXPECT_EQ(ranges[0].first, 0u);
  EXPECT_EQ(ranges[0].count, 2u);
  EXPECT_EQ(ranges[1].first, 2u);
  EXPECT_EQ(ranges[1].count, 1u);
  EXPECT_EQ(ranges[1].offset, 3u);
}

TEST(RecordTypesOfHand, CounterAndGroupWithoutANameAreAField) {
  LoadedSchema loaded;
  loaded.counters = test::make_schema({test::make_group(0, 1, {{"a", QVX_COUNTER_UINT64}})});
  loaded.counters->groups[0]->counters[0]->name.reset();
  const RecordType& record = RecordTypes::of_counters(loaded);
  ASSERT_EQ(record.fields().size(), 1u);
  EXPECT_EQ(record.fields()[0].name, "unset.");
  EXPECT_EQ(record.fields()[0].kind, FieldKind::u64);
}

}  // namespace
}  // namespace qvx
