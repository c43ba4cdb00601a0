#include "qvx/data/source.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "qvx/support/text.h"
#include "tests/data/source_fixture.h"

namespace qvx {
namespace {

using test::EnvGuard;
using test::FakeHostName;
using test::LogCapture;
using test::LogMessage;
using test::TempDir;

using namespace std::string_literals;

using SourceId = test::Sources;

TEST(SourceRecord, CutsItsTextsAtTheirFields) {
  const qvx_source source = make_source(std::string(100, 'i'), std::string(100, 't'));
  EXPECT_EQ(field_text(source.id), std::string(64, 'i'));
  EXPECT_EQ(field_text(source.tag), std::string(16, 't'));
  EXPECT_EQ(field_text(make_source("a", "").id), "a");
  EXPECT_EQ(field_text(make_source("a", "").tag), "");
}

TEST_F(SourceId, IsTheGivenTextFirst) {
  const EnvGuard set("QVX_SOURCE_ID", "variable");
  EXPECT_EQ(resolved("given"), "given");
}

TEST_F(SourceId, IsTheVariableNext) {
  const EnvGuard set("QVX_SOURCE_ID", "variable");
  EXPECT_EQ(resolved(nullptr), "variable");
  EXPECT_EQ(resolved(""), "variable");
}

TEST_F(SourceId, KnowsTheVariableWithoutItsPrefix) {
  const EnvGuard set("SOURCE_ID", "alias");
  EXPECT_EQ(resolved(nullptr), "alias");
}

TEST_F(SourceId, IsTheShortHostNameLast) {
  EXPECT_EQ(resolved(nullptr), "sampler");
  const EnvGuard empty("QVX_SOURCE_ID", "");
  EXPECT_EQ(resolved(nullptr), "sampler");
}

TEST_F(SourceId, KeepsAtMost63Characters) {
  EXPECT_EQ(resolved(std::string(64, 'g').c_str()), std::string(63, 'g'));
}

TEST_F(SourceId, FailsWithoutAHostName) {
  const FakeHostName broken(EFAULT);
  std::array<char, kSourceIdSize> id;
  id.fill('?');
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(source_id_resolve(id, nullptr));
  EXPECT_EQ(id, (std::array<char, kSourceIdSize>{}));
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{3, "[source] Failed to get host name: Bad address"}}));
}

TEST(SourceKey, JoinsIdAndTagInExactlyEnoughRoom) {
  char text[9] = "########";
  EXPECT_TRUE(source_key_text(make_source("host", "tag"), text, 9));
  EXPECT_STREQ(text, "host:tag");
}

TEST(SourceKey, TooSmallABufferIsTracedAndLeftAlone) {
  char text[9] = "########";
  const LogCapture log;
  EXPECT_FALSE(source_key_text(make_source("host", "tag"), text, 8));
  EXPECT_STREQ(text, "########");
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{7, "[source] buffer too small for source host:tag (got 8)"}}));
}

TEST(SourceKey, TakesFieldsThatAreNotTerminated) {
  char text[82];
  const qvx_source source = make_source(std::string(64, 'i'), std::string(16, 't'));
  const LogCapture log;
  EXPECT_FALSE(source_key_text(source, text, 81));
  EXPECT_EQ(log.messages()[0].text, "[source] buffer too small for source " + std::string(64, 'i') + ":" +
                                        std::string(16, 't') + " (got 81)");
  EXPECT_TRUE(source_key_text(source, text, 82));
  EXPECT_EQ(std::string(text), std::string(64, 'i') + ":" + std::string(16, 't'));
}

}  // namespace
}  // namespace qvx
