#include "qvx/data/schema/schema_writer.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/schema/schema_json.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "tests/support/env_guard.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::EnvGuard;
using test::LogCapture;
using test::LogMessage;
using test::TempDir;

using Messages = std::vector<LogMessage>;
using Names = std::vector<std::string>;

// An event schema and the pretty text of it, whose digest md5sum gave.
constexpr const char* kSchema =
    R"({"title":"Quorvex schema","qvx_version":"1.5.0","provider_name":"net","provider_version":"1.2.3","types":[]})";
constexpr const char* kPrettySchema =
    "{\n    \"title\": \"Quorvex schema\",\n    \"qvx_version\": \"1.5.0\",\n    \"provider_name\": "
    "\"net\",\n"
    "    \"provider_version\": \"1.2.3\",\n    \"types\": []\n}";
constexpr const char* kSchemaFile = "schema_db8e9f26676872fc70cc3c3795c7228d.json";

constexpr const char* kCounters = R"({"version":"1.5.0","counter_groups":[1]})";
constexpr const char* kCountersFile = "schema_a1663af15783699239f40d58eacd9598.json";

constexpr const char* kEmptyCounters = R"({"version":"1.5.0","counter_groups":[]})";

class SchemaWriterTest : public testing::Test {
 protected:
  SchemaWriterTest() : unset_("QVX_ALLOW_EMPTY_COUNTER_SCHEMA", nullptr), writer_(folder_.path().string()) {}

  // The names of the files in the folder, sorted.
  Names files() const {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  static Names sorted(Names names) {
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string error_of(const std::string& text) {
    try {
      writer_.onSchema(text);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no error";
  }

  EnvGuard unset_;
  TempDir folder_;
  SchemaWriter writer_;
  LogCapture log_{QVX_LOG_INFO};
};

TEST_F(SchemaWriterTest, SingleEventSchemaIsWrittenAsPrettyTextUnderItsDigest) {
  writer_.onSchema(kSchema);
  EXPECT_EQ(files(), Names{kSchemaFile});
  EXPECT_EQ(test::read_file(folder_.path() / kSchemaFile), kPrettySchema);
  EXPECT_EQ(log_.messages(),
            (Messages{{QVX_LOG_INFO, "qvx::SchemaWriter::onSchema() identified single event schema."}}));
}

TEST_F(SchemaWriterTest, WrittenFileReadBackAndWrittenAgainIsTheSame) {
  const std::string schema =
      R"({"provider_name":"net","types":[{"name":"t","size":4,"fields":[{"field_name":"\u00e9/\"","description":"",)"
      R"("type_name":"int","counting_mode":"ABSOLUTE","offset":0,"type_size":4,"index":1e17}]}],)"
      R"("provider_version":"1.0.0","qvx_version":"1.5.0"})";
  writer_.onSchema(schema);
  ASSERT_EQ(files().size(), 1U);
  const std::string first = files()[0];
  const std::string text = test::read_file(folder_.path() / first);
  const std::optional<json::Value> value = json::parse(text);
  ASSERT_TRUE(value);
  EXPECT_EQ(json::to_text(*value, json::Style::pretty), text);
  writer_.onSchema(text);
  EXPECT_EQ(files(), Names{first});
}

TEST_F(SchemaWriterTest, FileIsFoundByTheReaderOfSchemaFiles) {
  writer_.onSchema(kSchema);
  qvx_schema_id id;
  ASSERT_TRUE(schema_id_parse("db8e9f26676872fc70cc3c3795c7228d", id));
  const TypeSystemPtr ts(qvx_type_system_create());
  EXPECT_NE(qvx_type_system_load_schema_file(
                ts.get(), schema_file_path(folder_.path().c_str(), id).value_or("").c_str()),
            nullptr);
}

TEST_F(SchemaWriterTest, ExistingFileIsKeptAndReportedWhenItHoldsSomethingElse) {
  folder_.write_file(kSchemaFile, "older");
  writer_.onSchema(kSchema);
  EXPECT_EQ(test::read_file(folder_.path() / kSchemaFile), "older");
  EXPECT_EQ(log_.texts(QVX_LOG_WARNING), Names{"[schema writer] Existing file '" + folder_.file(kSchemaFile) +
                                               "' does not hold its schema"});
  folder_.write_file(kSchemaFile, "{}");
  log_.clear();
  writer_.onSchema(kSchema);
  EXPECT_EQ(test::read_file(folder_.path() / kSchemaFile), "{}");
  EXPECT_EQ(log_.texts(QVX_LOG_WARNING).size(), 1U);
  // The same schema in another spelling is no other schema.
  folder_.write_file(kSchemaFile, kSchema);
  log_.clear();
  writer_.onSchema(kSchema);
  EXPECT_EQ(test::read_file(folder_.path() / kSchemaFile), kSchema);
  EXPECT_TRUE(log_.texts(QVX_LOG_WARNING).empty());
}

TEST_F(SchemaWriterTest, InterruptedOpeningIsTriedAgain) {
  const test::FaultyCalls interrupted(test::Call::open, EINTR, 0, 4);
  writer_.onSchema(kSchema);
  EXPECT_TRUE(interrupted.any_failed());
  EXPECT_EQ(test::read_file(folder_.path() / kSchemaFile), kPrettySchema);
}

TEST_F(SchemaWriterTest, FileThatTheSystemLosesWhenItIsClosedIsNotThere) {
  {
    const test::FaultyCalls lost(test::Call::close, EIO, 0, 1);
    writer_.onSchema(kSchema);
    EXPECT_TRUE(lost.any_failed());
  }
  EXPECT_EQ(log_.texts(QVX_LOG_WARNING),
            (std::vector<std::string>{"[data] Failed writing schema file '" + folder_.file(kSchemaFile) +
                                      "': Input/output error"}));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(SchemaWriterTest, FileThatDoesNotGetItsNameIsRemoved) {
  {
    const test::FaultyCalls faults(test::Call::rename, EACCES);
    writer_.onSchema(kSchema);
    EXPECT_TRUE(faults.any_failed());
  }
  EXPECT_EQ(log_.texts(QVX_LOG_WARNING),
            (std::vector<std::string>{"[data] Failed writing schema file '" + folder_.file(kSchemaFile) +
                                      "': Permission denied"}));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(SchemaWriterTest, NewFileIsNeverSeenInPart) {
  const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watch < 0) GTEST_SKIP() << "no inotify here";
  ASSERT_GE(inotify_add_watch(watch, folder_.path().c_str(), IN_CREATE | IN_MODIFY | IN_MOVED_TO), 0);
  writer_.onSchema(kSchema);
  alignas(inotify_event) char events[8192];
  const ssize_t size = ::read(watch, events, sizeof events);
  ::close(watch);
  std::vector<std::uint32_t> of_the_file;
  for (ssize_t at = 0; at < size;) {
    const auto* const event = reinterpret_cast<const inotify_event*>(events + at);
    if (std::string_view(event->name) == kSchemaFile) of_the_file.push_back(event->mask);
    at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
  }
  EXPECT_EQ(of_the_file, std::vector<std::uint32_t>{IN_MOVED_TO});
}

TEST_F(SchemaWriterTest, LeftOverOfAWriterThatDiedStopsNoOtherAndIsNoSchema) {
  const std::string left_over = std::string(kSchemaFile) + "." + std::to_string(getpid()) + ".0.tmp";
  folder_.write_file(left_over, "half");
  writer_.onSchema(kSchema);
  EXPECT_EQ(files(), sorted({kSchemaFile, left_over}));
  EXPECT_EQ(test::read_file(folder_.path() / kSchemaFile), kPrettySchema);
  EXPECT_EQ(test::read_file(folder_.path() / left_over), "half");
}

TEST_F(SchemaWriterTest, ElementsThatAreNoObjectsAreLeftOutWithAMessage) {
  writer_.onSchema(std::string(R"({"version":"1.5.0","schemas":[1,)") + kSchema + R"(,"x",null,[]]})");
  EXPECT_EQ(files(), Names{kSchemaFile});
  EXPECT_EQ(log_.texts(QVX_LOG_WARNING), (Names{"[schema writer] Element #0 of \"schemas\" is no schema",
                                                "[schema writer] Element #2 of \"schemas\" is no schema",
                                                "[schema writer] Element #3 of \"schemas\" is no schema",
                                                "[schema writer] Element #4 of \"schemas\" is no schema"}));
}

TEST_F(SchemaWriterTest, SchemasOfATypeSystemAreWrittenOneByOne) {
  writer_.onSchema(std::string(R"({"version":"1.5.0","counters_schema":)") + kCounters + R"(,"schemas":[)" +
                   kSchema + ",{}]}");
  EXPECT_EQ(files(), sorted({kSchemaFile, kCountersFile, "schema_99914b932bd37a50b983c5e7c90ae93b.json"}));
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(SchemaWriterTest, EmptyCountersSchemaIsSkippedButTheSchemasAreWritten) {
  for (const char* const counters : {kEmptyCounters, "{}", "null", R"({"counter_groups":{}})"}) {
    const TempDir folder;
    log_.clear();
    SchemaWriter(folder.path().string())
        .onSchema(std::string(R"({"version":"1.5.0","counters_schema":)") + counters + R"(,"schemas":[)" +
                  kSchema + "]}");
    EXPECT_TRUE(std::filesystem::exists(folder.path() / kSchemaFile)) << counters;
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1) << counters;
    EXPECT_EQ(log_.messages(), (Messages{{QVX_LOG_INFO, "[schema writer] Skipping empty counters_schema."}}));
  }
}

TEST_F(SchemaWriterTest, SchemasWithoutACountersSchemaAreWritten) {
  writer_.onSchema(std::string(R"({"version":"1.4.0","schemas":[)") + kSchema + "]}");
  EXPECT_EQ(files(), Names{kSchemaFile});
}

TEST_F(SchemaWriterTest, ObjectWithCounterGroupsIsWrittenAsCountersSchema) {
  writer_.onSchema(kCounters);
  EXPECT_EQ(files(), Names{kCountersFile});
}

TEST_F(SchemaWriterTest, ObjectWithoutAnythingIsNotRecognised) {
  const std::string message =
      "[schema writer] schema was not recognized neither as type system nor as counters schema";
  EXPECT_EQ(error_of(R"({"version":"1.5.0"})"), message);
  EXPECT_EQ(error_of(kEmptyCounters), message);
  EXPECT_EQ(error_of(R"({"version":"1.5.0","counter_groups":1})"), message);
  EXPECT_TRUE(files().empty());
}

TEST_F(SchemaWriterTest, TextThatIsNoJsonIsIgnoredWithAWarning) {
  writer_.onSchema("{");
  EXPECT_EQ(log_.messages(),
            (Messages{{QVX_LOG_WARNING, "[schema writer] Failed to deserialize schema JSON"}}));
  writer_.onSchema(kSchema);
  EXPECT_EQ(files(), Names{kSchemaFile});
}

TEST_F(SchemaWriterTest, VersionIsRequired) {
  EXPECT_EQ(error_of(R"({"schemas":[]})"), "[schema writer] missing Quorvex schema version");
  EXPECT_EQ(error_of(R"({"version":1.5,"schemas":[]})"), "[schema writer] missing Quorvex schema version");
  EXPECT_EQ(error_of("[]"), "[schema writer] missing Quorvex schema version");
}

TEST_F(SchemaWriterTest, VersionBelowTheMinimumIsRefused) {
  EXPECT_EQ(error_of(R"({"version":"1.3.9","schemas":[]})"),
            "[schema writer] schema version 1.3.9 is incompatible with the serializer, the minimal supported "
            "version is 1.4.0");
  EXPECT_EQ(error_of(R"({"version":"1.4.0","schemas":[]})"), "no error");
}

TEST_F(SchemaWriterTest, FolderMustBeThere) {
  const std::string missing = folder_.file("missing");
  SchemaWriter writer(missing);
  try {
    writer.onSchema(kSchema);
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "Inaccessible data path " + missing);
  }
}

TEST_F(SchemaWriterTest, FileInPlaceOfTheFolderIsNoFolder) {
  SchemaWriter writer(folder_.write_file("file", ""));
  EXPECT_THROW(writer.onSchema(kSchema), std::runtime_error);
}

TEST_F(SchemaWriterTest, FileThatCannotBeCreatedTurnsTheWriterOff) {
  // A path of the folder that leaves no room for a name.
  std::string path = folder_.path().string();
  path.append(4070 - path.size(), '/');
  SchemaWriter writer(path);
  writer.onSchema(std::string(R"({"version":"1.5.0","schemas":[)") + kSchema + "," + kSchema + "]}");
  EXPECT_EQ(log_.messages(), (Messages{{QVX_LOG_WARNING, "[data] Failed to create schema file '" + path +
                                                             "/" + kSchemaFile + "': File name too long"}}));
  log_.clear();
  writer.onSchema("{");
  EXPECT_TRUE(log_.messages().empty());
}

// In a process of its own: the limit on the size of files, and the setting that is read once, stay there.
class SchemaWriterDeathTest : public SchemaWriterTest {
 protected:
  SchemaWriterDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  [[noreturn]] void finish(bool good) const {
    std::filesystem::remove_all(folder_.path());
    std::exit(good ? 0 : 1);
  }
};

TEST_F(SchemaWriterDeathTest, FileThatCannotBeWrittenIsReportedAndRemoved) {
  const auto run = [this] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{10, 10};
    setrlimit(RLIMIT_FSIZE, &small);
    writer_.onSchema(std::string(R"({"version":"1.5.0","schemas":[{},)") + kSchema + "]}");
    const bool reported =
        log_.messages() == Messages{{QVX_LOG_WARNING, "[data] Failed writing schema file '" +
                                                          folder_.file(kSchemaFile) + "': File too large"}};
    const bool removed = files() == Names{"schema_99914b932bd37a50b983c5e7c90ae93b.json"};
    finish(reported && removed);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(SchemaWriterDeathTest, SettingAllowsEmptyCountersSchemas) {
  for (const char* const value : {"y", "Yes", "t", "True", "1", "10"}) {
    const auto run = [&] {
      const EnvGuard set("QVX_ALLOW_EMPTY_COUNTER_SCHEMA", value);
      writer_.onSchema(std::string(R"({"version":"1.5.0","counters_schema":)") + kEmptyCounters + "}");
      const bool member = files().size() == 1;
      writer_.onSchema(R"({"version":"1.5.0"})");
      finish(member && files().size() == 2);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "") << value;
  }
}

TEST_F(SchemaWriterDeathTest, UnprefixedSettingAppliesToo) {
  const auto run = [&] {
    const EnvGuard set("ALLOW_EMPTY_COUNTER_SCHEMA", "y");
    writer_.onSchema(kEmptyCounters);
    finish(files().size() == 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(SchemaWriterDeathTest, AnyOtherSettingIsNone) {
  for (const char* const value : {"", "0", "no", "on", " 1", "false"}) {
    const auto run = [&] {
      const EnvGuard set("QVX_ALLOW_EMPTY_COUNTER_SCHEMA", value);
      finish(error_of(kEmptyCounters) != "no error");
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "") << value;
  }
}

TEST_F(SchemaWriterDeathTest, SettingIsReadOnce) {
  const auto run = [&] {
    const EnvGuard set("QVX_ALLOW_EMPTY_COUNTER_SCHEMA", "1");
    writer_.onSchema(kEmptyCounters);
    const EnvGuard unset("QVX_ALLOW_EMPTY_COUNTER_SCHEMA", nullptr);
    finish(error_of(R"({"version":"1.5.0"})") == "no error");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qvx
