#include "qvx/reader/loaded_types.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/reader/reader_files.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::kCountersId;
using test::kEventsId;
using test::kUsualEvents;
using test::LogCapture;
using test::ReaderFiles;

constexpr std::string_view kOtherId = "e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2";

qvx_schema_id id_of(std::string_view text) {
  qvx_schema_id id;
  EXPECT_TRUE(schema_id_parse(std::string(text).c_str(), id));
  return id;
}

class TypeCacheTest : public testing::Test {
 protected:
  std::shared_ptr<LoadedTypes> load(const std::vector<std::string_view>& events = {kEventsId},
                                    std::string_view counters = kCountersId) {
    std::vector<qvx_schema_id> ids;
    for (const std::string_view text : events)
      ids.push_back(text.empty() ? qvx_schema_id{} : id_of(text));
    return cache_.load(ids, counters.empty() ? qvx_schema_id{} : id_of(counters));
  }

  const ReaderFiles files_;
  ReaderOptions options_ = files_.options();
  TypeCache cache_{options_};
  LogCapture log_{QVX_LOG_INFO};
};

std::string first_field(LoadedTypes& types, std::size_t schema = 0) {
  const EventType* const type = types.event_type(schema, 0);
  return type == nullptr ? "" : type->type->fields[0]->field_name.value_or("");
}

TEST_F(TypeCacheTest, SameIdentifiersGiveTheSameTypesAgain) {
  const auto first = load();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(load(), first);
}

TEST_F(TypeCacheTest, OtherIdentifiersGiveOtherTypes) {
  files_.write_schema(kOtherId, kUsualEvents);
  const auto first = load();
  EXPECT_NE(load({kOtherId}), first);
  EXPECT_NE(load({kEventsId, kOtherId}), first);
  EXPECT_NE(load({kEventsId}, ""), first);
  EXPECT_EQ(load(), first);
}

TEST_F(TypeCacheTest, OrderOfIdentifiersIsTheOrderOfSchemas) {
  files_.write_schema(kOtherId, test::events_schema_with_field("other"));
  EXPECT_EQ(first_field(*load({kEventsId, kOtherId}), 1), "other");
  EXPECT_EQ(first_field(*load({kOtherId, kEventsId}), 1), "v");
}

TEST_F(TypeCacheTest, EmptyIdentifiersTakeNoSlot) {
  const auto types = load({"", kEventsId, ""}, "");
  ASSERT_NE(types, nullptr);
  EXPECT_EQ(first_field(*types, 0), "v");
  EXPECT_EQ(types->event_type(1, 0), nullptr);
}

TEST_F(TypeCacheTest, ReplacedSchemaFileIsReadAnew) {
  EXPECT_EQ(first_field(*load()), "v");
  files_.write_schema(kEventsId, test::events_schema_with_field("renamed"));
  EXPECT_EQ(first_field(*load()), "renamed");
  EXPECT_EQ(load(), load());
}

TEST_F(TypeCacheTest, SchemaFileMovedIntoPlaceIsReadAnew) {
  EXPECT_EQ(first_field(*load()), "v");
  const std::string fresh = files_.write("fresh", test::events_schema_with_field("w"));
  std::filesystem::rename(fresh, files_.path("schema/schema_" + std::string(kEventsId) + ".json"));
  EXPECT_EQ(first_field(*load()), "w");
}

TEST_F(TypeCacheTest, RemovedSchemaFileFailsAlthoughItWasLoaded) {
  ASSERT_NE(load(), nullptr);
  const std::string path = files_.path("schema/schema_" + std::string(kCountersId) + ".json");
  std::filesystem::remove(path);
  EXPECT_EQ(load(), nullptr);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
            (std::vector<std::string>{
                "Failed reading counters schema JSON from file '" + path + "': No such file or directory",
                "Failed to load counters schema from file: " + path}));
}

TEST_F(TypeCacheTest, FailureIsNotRemembered) {
  EXPECT_EQ(load({kOtherId}), nullptr);
  EXPECT_EQ(load({kOtherId}), nullptr);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR).size(), 4u);
  files_.write_schema(kOtherId, kUsualEvents);
  EXPECT_NE(load({kOtherId}), nullptr);
}

TEST_F(TypeCacheTest, LoadThatHadSomethingToSayIsDoneAnewAndSaysItAgain) {
  std::string text(test::kUsualCounters);
  text.replace(text.find("1.5.0"), 5, "2.0.0");
  files_.write_schema(kCountersId, text);
  const auto first = load();
  ASSERT_NE(first, nullptr);
  EXPECT_NE(load(), first);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR).size(), 2u);
}

TEST_F(TypeCacheTest, TraceIsSaidForEveryLoad) {
  LogCapture trace(QVX_LOG_DEBUG);
  load();
  const std::size_t once = trace.messages().size();
  EXPECT_GT(once, 0u);
  load();
  EXPECT_EQ(trace.messages().size(), 2 * once);
}

TEST_F(TypeCacheTest, TypesOutliveTheirPlaceInTheCache) {
  const auto first = load();
  for (int at = 0; at < 200; ++at) {
    char id[33];
    std::snprintf(id, sizeof id, "%032x", at + 1);
    files_.write_schema(id, kUsualEvents);
    ASSERT_NE(load({id}, ""), nullptr);
  }
  EXPECT_EQ(first_field(*first), "v");
  EXPECT_NE(load(), first);
}

TEST_F(TypeCacheTest, TypeOutsideTheSchemasIsNone) {
  const auto types = load();
  EXPECT_NE(types->event_type(0, 0), nullptr);
  EXPECT_EQ(types->event_type(0, 1), nullptr);
  EXPECT_EQ(types->event_type(1, 0), nullptr);
  EXPECT_EQ(types->event_type(255, 65535), nullptr);
}

TEST_F(TypeCacheTest, PatternsSelectTypesByName) {
  EXPECT_TRUE(load()->event_type(0, 0)->selected);
  options_.exclude_counters = make_string_array({"SAMPLE"});
  TypeCache excluding(options_);
  const std::vector<qvx_schema_id> ids = {id_of(kEventsId)};
  EXPECT_FALSE(excluding.load(ids, {})->event_type(0, 0)->selected);
  options_.exclude_counters = make_string_array();
  options_.include_counters = make_string_array({"other", "sam*"});
  TypeCache including(options_);
  EXPECT_TRUE(including.load(ids, {})->event_type(0, 0)->selected);
}

}  // namespace
}  // namespace qvx
