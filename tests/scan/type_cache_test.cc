#include "qvx/scan/type_cache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "tests/reader/reader_files.h"
#include "tests/support/failing_allocations.h"
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
  // Without schemas when loading failed.
  TypeSet load(const std::vector<std::string_view>& events = {kEventsId},
               std::string_view counters = kCountersId) {
    std::vector<qvx_schema_id> ids;
    for (const std::string_view text : events)
      ids.push_back(text.empty() ? qvx_schema_id{} : id_of(text));
    TypeSet set;
    ok_ = cache_.load(ids, counters.empty() ? qvx_schema_id{} : id_of(counters), set);
    EXPECT_EQ(ok_, set.counters != nullptr);
    return set;
  }

  const ReaderFiles files_;
  TypeCache cache_{files_.path("schema")};
  bool ok_ = false;
  LogCapture log_{QVX_LOG_INFO};
};

std::string first_field(const TypeSet& types, std::size_t slot = 0) {
  const LoadedSchema* const schema = types.find(slot, 0);
  return schema == nullptr ? "" : schema->events->types[0]->fields[0]->field_name.value_or("");
}

TEST_F(TypeCacheTest, SameIdentifierGivesTheSameSchemaAgain) {
  files_.write_schema(kOtherId, kUsualEvents);
  const TypeSet first = load();
  ASSERT_EQ(first.events.size(), 1u);
  EXPECT_EQ(load().events[0], first.events[0]);
  const TypeSet both = load({kOtherId, kEventsId});
  EXPECT_EQ(both.events[1], first.events[0]);
  EXPECT_EQ(both.counters, first.counters);
  EXPECT_NE(both.events[0], first.events[0]);
}

TEST_F(TypeCacheTest, IdentifierMayNameEventsInOneSetAndCountersInAnother) {
  files_.write_schema(kOtherId, kUsualEvents);
  EXPECT_NE(load({kOtherId}, "").events[0], nullptr);
  files_.write_schema(kOtherId, test::kUsualCounters);
  EXPECT_EQ(load({}, kOtherId).counters->counters->groups.size(), 1u);
}

TEST_F(TypeCacheTest, SetWithoutCountersHasNone) {
  EXPECT_TRUE(load({kEventsId}, "").counters->counters->groups.empty());
}

TEST_F(TypeCacheTest, OrderOfIdentifiersIsTheOrderOfSchemas) {
  files_.write_schema(kOtherId, test::events_schema_with_field("other"));
  EXPECT_EQ(first_field(load({kEventsId, kOtherId}), 1), "other");
  EXPECT_EQ(first_field(load({kOtherId, kEventsId}), 1), "v");
}

TEST_F(TypeCacheTest, EmptyIdentifiersTakeNoSlot) {
  const TypeSet types = load({"", kEventsId, ""}, "");
  EXPECT_EQ(first_field(types, 0), "v");
  EXPECT_EQ(types.events.size(), 1u);
}

TEST_F(TypeCacheTest, ReplacedSchemaFileIsReadAnew) {
  EXPECT_EQ(first_field(load()), "v");
  files_.write_schema(kEventsId, test::events_schema_with_field("renamed"));
  EXPECT_EQ(first_field(load()), "renamed");
  EXPECT_EQ(load().events, load().events);
}

TEST_F(TypeCacheTest, SchemaFileMovedIntoPlaceIsReadAnew) {
  EXPECT_EQ(first_field(load()), "v");
  const std::string fresh = files_.write("fresh", test::events_schema_with_field("w"));
  std::filesystem::rename(fresh, files_.path("schema/schema_" + std::string(kEventsId) + ".json"));
  EXPECT_EQ(first_field(load()), "w");
}

TEST_F(TypeCacheTest, SchemaFileWithOtherTimesIsReadAnew) {
  const std::string path = files_.path("schema/schema_" + std::string(kEventsId) + ".json");
  const auto modified = [&path](long seconds, long nanoseconds) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  };
  modified(1000000000, 5);
  const TypeSet first = load();
  modified(1000000001, 5);
  const TypeSet later = load();
  EXPECT_NE(later.events, first.events);
  modified(1000000001, 6);
  const TypeSet last = load();
  EXPECT_NE(last.events, later.events);
  EXPECT_EQ(load().events, last.events);
}

TEST_F(TypeCacheTest, SchemaFileWhosePermissionsWereChangedIsReadAnew) {
  const std::string path = files_.path("schema/schema_" + std::string(kEventsId) + ".json");
  const TypeSet first = load();
  // The clock that files are marked with ticks a hundred times a second and more.
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  do {
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    ASSERT_EQ(stat(path.c_str(), &after), 0);
  } while (after.st_ctim.tv_nsec == before.st_ctim.tv_nsec);
  EXPECT_NE(load().events, first.events);
}

TEST_F(TypeCacheTest, RemovedSchemaFileFailsAlthoughItWasLoaded) {
  load();
  ASSERT_TRUE(ok_);
  const std::string path = files_.path("schema/schema_" + std::string(kCountersId) + ".json");
  std::filesystem::remove(path);
  load();
  EXPECT_FALSE(ok_);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
            (std::vector<std::string>{
                "Failed reading counters schema JSON from file '" + path + "': No such file or directory",
                "Failed to load counters schema from file: " + path}));
}

TEST_F(TypeCacheTest, FailureIsNotRemembered) {
  load({kOtherId});
  load({kOtherId});
  EXPECT_FALSE(ok_);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR).size(), 4u);
  files_.write_schema(kOtherId, kUsualEvents);
  load({kOtherId});
  EXPECT_TRUE(ok_);
}

TEST_F(TypeCacheTest, SchemaThatHadSomethingToSayIsKeptAndSaysItAgain) {
  std::string text(test::kUsualCounters);
  text.replace(text.find("1.5.0"), 5, "2.0.0");
  files_.write_schema(kCountersId, text);
  const TypeSet first = load();
  const std::vector<std::string> said = log_.texts(QVX_LOG_ERROR);
  ASSERT_EQ(said.size(), 1u);
  EXPECT_EQ(load().counters, first.counters);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), (std::vector<std::string>{said[0], said[0]}));
}

TEST_F(TypeCacheTest, SchemaWhoseMessagesCouldNotBeKeptIsReadAnewAndSaysThemAgain) {
  std::string text(test::kUsualCounters);
  text.replace(text.find("1.5.0"), 5, "2.0.0");
  files_.write_schema(kCountersId, text);
  const qvx_schema_id id = id_of(kCountersId);
  bool any_failed = true;
  int loaded_all_the_same = 0;
  for (std::size_t successes = 0; any_failed; ++successes) {
    TypeCache cache(files_.path("schema"));
    TypeSet set;
    bool ok = false;
    qvx_logger_set_level(0);  // the capture takes memory, too
    try {
      const test::FailingAllocations failing(successes, test::FailingAllocations::Failing::once);
      ok = cache.load({}, id, set);
      any_failed = failing.any_failed();
    } catch (const std::bad_alloc&) {
      any_failed = true;
    }
    qvx_logger_set_level(QVX_LOG_INFO);
    if (!ok) continue;
    if (any_failed) ++loaded_all_the_same;
    log_.clear();
    ASSERT_TRUE(cache.load({}, id, set));
    EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
              std::vector<std::string>{
                  "Version '2.0.0' of parsing schema is incompatible with current schema version '1.5.0'"})
        << successes;
  }
  EXPECT_GT(loaded_all_the_same, 0);
}

TEST_F(TypeCacheTest, LoadBehindOneThatMemoryWasTooShortForIsWhole) {
  const qvx_schema_id events = id_of(kEventsId);
  for (const qvx_schema_id& counters : {qvx_schema_id{}, id_of(kCountersId)}) {
    const std::size_t groups = schema_id_is_empty(counters) ? 0 : 1;
    bool any_failed = true;
    for (std::size_t successes = 0; any_failed; ++successes) {
      TypeCache cache(files_.path("schema"));
      TypeSet set;
      qvx_logger_set_level(0);  // the capture takes memory, too
      try {
        const test::FailingAllocations failing(successes, test::FailingAllocations::Failing::once);
        static_cast<void>(cache.load({&events, 1}, counters, set));
        any_failed = failing.any_failed();
      } catch (const std::bad_alloc&) {
        any_failed = true;
      }
      qvx_logger_set_level(QVX_LOG_INFO);
      ASSERT_TRUE(cache.load({&events, 1}, counters, set)) << successes;
      EXPECT_EQ(first_field(set), "v");
      ASSERT_NE(set.counters->counters, nullptr) << successes;
      EXPECT_EQ(set.counters->counters->groups.size(), groups) << successes;
    }
  }
}

TEST_F(TypeCacheTest, TraceOfSchemasIsSaidForEveryLoad) {
  load({}, "");  // makes the built-in types, once
  LogCapture trace(QVX_LOG_DEBUG);
  const TypeSet first = load();
  const std::size_t once = trace.messages().size();
  EXPECT_GT(once, 0u);
  EXPECT_EQ(load().events, first.events);
  EXPECT_EQ(trace.messages().size(), 2 * once);
}

// Two schemas named in changing order are two schemas, however often the order changes.
TEST_F(TypeCacheTest, ListsInChangingOrderTakeNoFurtherMemory) {
  files_.write_schema(kOtherId, test::events_schema_with_field("other"));
  load({kEventsId, kOtherId});
  const std::size_t bytes = cache_.bytes();
  EXPECT_GT(bytes, 0u);
  for (unsigned pattern = 0; pattern < 4096; ++pattern) {
    std::vector<std::string_view> ids;
    for (unsigned bit = 0; bit < 12; ++bit)
      ids.push_back((pattern >> bit & 1U) != 0 ? kOtherId : kEventsId);
    ASSERT_EQ(first_field(load(ids), 11), (pattern & 2048U) != 0 ? "other" : "v");
  }
  EXPECT_EQ(cache_.bytes(), bytes);
}

std::string numbered_id(int number) {
  char id[33];
  std::snprintf(id, sizeof id, "%032x", number);
  return id;
}

struct LargeNotes final : SchemaNotes {
  std::size_t bytes() const override { return 1000000; }
};

TEST_F(TypeCacheTest, SchemasUsedLongestAgoAreForgottenBeyondTheLimit) {
  TypeCache small(files_.path("schema"), 4500000);
  std::vector<std::weak_ptr<LoadedSchema>> loaded;
  TypeSet set;
  for (int at = 1; at <= 10; ++at) {
    files_.write_schema(numbered_id(at), kUsualEvents);
    const qvx_schema_id id = id_of(numbered_id(at));
    ASSERT_TRUE(small.load({&id, 1}, {}, set));
    set.events[0]->notes = std::make_unique<LargeNotes>();
    ASSERT_TRUE(small.load({&id, 1}, {}, set));
    loaded.push_back(set.events[0]);
  }
  // The one in use does not count.
  for (int at = 1; at <= 10; ++at)
    EXPECT_EQ(loaded[at - 1].expired(), at <= 5) << at;
}

TEST_F(TypeCacheTest, SetsKeepSchemasThatTheCacheForgot) {
  TypeCache none(files_.path("schema"), 0);
  TypeSet first;
  const qvx_schema_id events = id_of(kEventsId);
  ASSERT_TRUE(none.load({&events, 1}, {}, first));
  TypeSet second;
  const qvx_schema_id other = id_of(kOtherId);
  files_.write_schema(kOtherId, kUsualEvents);
  ASSERT_TRUE(none.load({&other, 1}, {}, second));
  EXPECT_EQ(first_field(first), "v");
}

TEST_F(TypeCacheTest, SchemaInUseStaysWhileLaterOnesAreForgotten) {
  TypeCache none(files_.path("schema"), 0);
  TypeSet held;
  const qvx_schema_id events = id_of(kEventsId);
  ASSERT_TRUE(none.load({&events, 1}, {}, held));
  TypeSet set;
  const qvx_schema_id other = id_of(kOtherId);
  files_.write_schema(kOtherId, kUsualEvents);
  ASSERT_TRUE(none.load({&other, 1}, {}, set));
  const std::weak_ptr<LoadedSchema> later = set.events[0];
  ASSERT_TRUE(none.load({}, {}, set));
  EXPECT_TRUE(later.expired());
  ASSERT_TRUE(none.load({&events, 1}, {}, set));
  EXPECT_EQ(set.events, held.events);
}

TEST_F(TypeCacheTest, TypeOutsideTheSchemasIsNone) {
  const TypeSet types = load();
  EXPECT_NE(types.find(0, 0), nullptr);
  EXPECT_EQ(types.find(0, 1), nullptr);
  EXPECT_EQ(types.find(1, 0), nullptr);
  EXPECT_EQ(types.find(255, 65535), nullptr);
}

}  // namespace
}  // namespace qvx
