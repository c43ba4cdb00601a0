#include "qvx/support/name_match.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::LogMessage;
using test::MemoryLimit;
using Texts = std::vector<std::string>;

Texts texts(const StringArrayPtr& array) {
  const auto all = strings(array);
  return {all.begin(), all.end()};
}

bool matches(const char* name, const char* pattern, MatchMode mode) {
  return qvx_name_matches(name, make_string_array({pattern}).get(), mode);
}

TEST(MatchMode, NamesGiveTheirValues) {
  EXPECT_EQ(static_cast<int>(qvx_match_mode_from_name("exact")), 0);
  EXPECT_EQ(static_cast<int>(qvx_match_mode_from_name("wildcard")), 1);
  EXPECT_EQ(static_cast<int>(qvx_match_mode_from_name("regexp")), 0);
  EXPECT_EQ(static_cast<int>(qvx_match_mode_from_name("contains")), 3);
}

TEST(MatchMode, OtherNamesGiveTheClosingValue) {
  EXPECT_EQ(static_cast<int>(qvx_match_mode_from_name("Exact")), -1);
  EXPECT_EQ(static_cast<int>(qvx_match_mode_from_name("")), -1);
  EXPECT_EQ(static_cast<int>(qvx_match_mode_from_name(nullptr)), -1);
}

TEST(MatchMode, ValueGivesItsFirstName) {
  EXPECT_STREQ(qvx_match_mode_name(static_cast<MatchMode>(0)), "exact");
  EXPECT_STREQ(qvx_match_mode_name(static_cast<MatchMode>(1)), "wildcard");
  EXPECT_STREQ(qvx_match_mode_name(static_cast<MatchMode>(3)), "contains");
  EXPECT_EQ(qvx_match_mode_name(static_cast<MatchMode>(2)), nullptr);
  EXPECT_EQ(qvx_match_mode_name(static_cast<MatchMode>(4)), nullptr);
}

TEST(NameMatches, ExactComparesWholeNamesInTheirCase) {
  EXPECT_TRUE(matches("port.rx", "port.rx", MatchMode::kExact));
  EXPECT_FALSE(matches("port.rx", "Port.rx", MatchMode::kExact));
  EXPECT_FALSE(matches("port.rx", "port*", MatchMode::kExact));
  EXPECT_FALSE(matches("port.rx", "port", MatchMode::kExact));
}

TEST(NameMatches, RegexpBehavesLikeExact) {
  const MatchMode regexp = qvx_match_mode_from_name("regexp");
  EXPECT_FALSE(matches("abc", "a.c", regexp));
  EXPECT_FALSE(matches("abc", ".*", regexp));
  EXPECT_TRUE(matches("a.c", "a.c", regexp));
}

TEST(NameMatches, StarMatchesEveryName) {
  for (const char* const name : {"port", "port.rx.bytes", "PORT.Rx", ".hidden", "a/b", ""})
    EXPECT_TRUE(matches(name, "*", MatchMode::kWildcard)) << name;
}

TEST(NameMatches, WildcardIgnoresCase) {
  EXPECT_TRUE(matches("Port_RX", "port_r?", MatchMode::kWildcard));
  EXPECT_TRUE(matches("port", "[P]ORT", MatchMode::kWildcard));
  EXPECT_FALSE(matches("port", "por?t", MatchMode::kWildcard));
}

TEST(NameMatches, GroupNameSelectsItsDottedMembersOnly) {
  EXPECT_TRUE(matches("group", "group", MatchMode::kWildcard));
  EXPECT_TRUE(matches("group.member", "group", MatchMode::kWildcard));
  EXPECT_TRUE(matches("Group.sub.member", "group", MatchMode::kWildcard));
  EXPECT_FALSE(matches("group_other", "group", MatchMode::kWildcard));
  EXPECT_FALSE(matches("grouped.member", "group", MatchMode::kWildcard));
}

TEST(NameMatches, ContainsFindsThePatternInItsCase) {
  EXPECT_TRUE(matches("port.rx.bytes", "rx", MatchMode::kContains));
  EXPECT_TRUE(matches("port", "", MatchMode::kContains));
  EXPECT_FALSE(matches("port.rx.bytes", "RX", MatchMode::kContains));
  EXPECT_FALSE(matches("port.rx.bytes", "r*", MatchMode::kContains));
}

TEST(NameMatches, ModesWithoutBehaviourMatchNothing) {
  EXPECT_FALSE(matches("port", "port", static_cast<MatchMode>(2)));
  EXPECT_FALSE(matches("port", "port", MatchMode::kUnknown));
  EXPECT_FALSE(matches("port", "port", static_cast<MatchMode>(4)));
}

TEST(NameMatches, AnyPatternIsEnoughAndNoneIsNot) {
  const StringArrayPtr patterns = make_string_array({"x", "port"});
  EXPECT_TRUE(qvx_name_matches("port", patterns.get(), MatchMode::kExact));
  EXPECT_FALSE(qvx_name_matches("node", patterns.get(), MatchMode::kExact));
  EXPECT_FALSE(qvx_name_matches("port", make_string_array().get(), MatchMode::kWildcard));
  EXPECT_FALSE(qvx_name_matches("port", nullptr, MatchMode::kWildcard));
  EXPECT_FALSE(qvx_name_matches(nullptr, patterns.get(), MatchMode::kWildcard));
}

TEST(NameMatches, ReportsExtendedPatternThatCannotBeBuilt) {
  if (!MemoryLimit::kSupported) GTEST_SKIP();
  const StringArrayPtr patterns = make_string_array({std::string(MemoryLimit::kTooMuch, 'x').c_str()});
  const LogCapture log;
  const MemoryLimit limit;
  EXPECT_FALSE(qvx_name_matches("port", patterns.get(), MatchMode::kWildcard));
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "Error: unable to allocate memory for wildcard string search"}}));
}

TEST(NamesFilter, KeepsTheNamesWithTheWantedResultInOrder) {
  const StringArrayPtr names = make_string_array({"tx.b", "rx.a", "tx.a"});
  const StringArrayPtr patterns = make_string_array({"tx"});
  const auto filter = [&](const qvx_string_array* by, bool wanted) {
    return texts(StringArrayPtr(qvx_names_filter(names.get(), by, MatchMode::kWildcard, wanted)));
  };
  EXPECT_EQ(filter(patterns.get(), true), (Texts{"tx.b", "tx.a"}));
  EXPECT_EQ(filter(patterns.get(), false), Texts{"rx.a"});
  EXPECT_EQ(filter(nullptr, true), Texts{});
  EXPECT_EQ(filter(nullptr, false), (Texts{"tx.b", "rx.a", "tx.a"}));
  EXPECT_EQ(qvx_names_filter(nullptr, patterns.get(), MatchMode::kWildcard, true), nullptr);
}

class SelectCounterNames : public testing::Test {
 protected:
  StringArrayPtr select(const StringArrayPtr& mandatory) const {
    return StringArrayPtr(qvx_select_counter_names(names_.get(), include_.get(), exclude_.get(),
                                                   mandatory.get(), MatchMode::kWildcard));
  }

  StringArrayPtr names_ = make_string_array({"tx.b", "rx.a", "tx.a", "tx.a", "cpu"});
  StringArrayPtr include_ = make_string_array({"tx", "rx"});
  StringArrayPtr exclude_ = make_string_array({"*.b"});
};

TEST_F(SelectCounterNames, IncludesExcludesAndSorts) {
  EXPECT_EQ(texts(select(nullptr)), (Texts{"rx.a", "tx.a", "tx.a"}));
}

TEST_F(SelectCounterNames, EmptyMandatoryListOnlySorts) {
  EXPECT_EQ(texts(select(make_string_array())), (Texts{"rx.a", "tx.a", "tx.a"}));
}

TEST_F(SelectCounterNames, MandatoryNamesAreAddedOnceEvenIfExcluded) {
  EXPECT_EQ(texts(select(make_string_array({"tx.b", "Zero", "rx.a"}))),
            (Texts{"Zero", "rx.a", "tx.a", "tx.b"}));
}

TEST_F(SelectCounterNames, NullNamesGiveNull) {
  EXPECT_EQ(qvx_select_counter_names(nullptr, include_.get(), exclude_.get(), nullptr, MatchMode::kWildcard),
            nullptr);
}

TEST_F(SelectCounterNames, ReportsMandatoryNamesThatCannotBeJoined) {
  if (!MemoryLimit::kSupported) GTEST_SKIP();
  const StringArrayPtr mandatory = make_string_array({std::string(MemoryLimit::kTooMuch, 'x').c_str()});
  const LogCapture log;
  const MemoryLimit limit;
  EXPECT_EQ(select(mandatory), nullptr);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "could not join mandatory counters properly to names array"},
                                     {3, "failed to match counter names"}}));
}

const std::vector<LogMessage> kConflict = {
    {4, "'eth' will not run. specified in disable-provider and in enable-provider."}};

TEST(ProviderIsEnabled, WithoutListsEveryProviderIs) {
  EXPECT_TRUE(qvx_provider_is_enabled("eth", nullptr, nullptr));
}

TEST(ProviderIsEnabled, NeedsTheEnableListAndNotTheDisableList) {
  const StringArrayPtr eth = make_string_array({"E*"});
  const StringArrayPtr cpu = make_string_array({"cpu"});
  const LogCapture log;
  EXPECT_TRUE(qvx_provider_is_enabled("eth", eth.get(), nullptr));
  EXPECT_TRUE(qvx_provider_is_enabled("eth", eth.get(), cpu.get()));
  EXPECT_FALSE(qvx_provider_is_enabled("eth", cpu.get(), nullptr));
  EXPECT_FALSE(qvx_provider_is_enabled("eth", cpu.get(), eth.get()));
  EXPECT_FALSE(qvx_provider_is_enabled("eth", nullptr, cpu.get()));
  EXPECT_TRUE(log.messages().empty());
}

TEST(ProviderIsEnabled, WarnsWhenBothListsMatch) {
  const StringArrayPtr eth = make_string_array({"eth"});
  const LogCapture log;
  EXPECT_FALSE(qvx_provider_is_enabled("eth", eth.get(), eth.get()));
  EXPECT_EQ(log.messages(), kConflict);
}

TEST(ProviderIsEnabled, DisableListIsNotSearchedForParts) {
  EXPECT_TRUE(
      qvx_provider_is_enabled("eth", make_string_array({"eth"}).get(), make_string_array({"et"}).get()));
}

TEST(NameIsEnabled, MatchesOrContainsTheEnableList) {
  const LogCapture log;
  EXPECT_TRUE(qvx_name_is_enabled("eth", make_string_array({"E?H"}).get(), nullptr));
  EXPECT_TRUE(qvx_name_is_enabled("eth", make_string_array({"th"}).get(), nullptr));
  EXPECT_FALSE(qvx_name_is_enabled("eth", make_string_array({"cpu"}).get(), nullptr));
  EXPECT_FALSE(qvx_name_is_enabled("eth", nullptr, nullptr));
  EXPECT_TRUE(log.messages().empty());
}

TEST(NameIsEnabled, DisableListIsSearchedForPartsOnly) {
  const StringArrayPtr eth = make_string_array({"eth"});
  const LogCapture log;
  EXPECT_TRUE(qvx_name_is_enabled("eth", eth.get(), make_string_array({"e*"}).get()));
  EXPECT_FALSE(qvx_name_is_enabled("eth", make_string_array({"cpu"}).get(), eth.get()));
  EXPECT_TRUE(log.messages().empty());
  EXPECT_FALSE(qvx_name_is_enabled("eth", eth.get(), make_string_array({"t"}).get()));
  EXPECT_EQ(log.messages(), kConflict);
}

TEST(TextNamesComponent, LooksForThePartBeforeTheLastDot) {
  EXPECT_TRUE(qvx_text_names_component("run libeth.2 now", make_string_array({"libeth.2.so"}).get()));
  EXPECT_FALSE(qvx_text_names_component("run libeth now", make_string_array({"libeth.2.so"}).get()));
}

TEST(TextNamesComponent, SkipsFileNamesWithoutDot) {
  EXPECT_FALSE(qvx_text_names_component("libeth", make_string_array({"libeth"}).get()));
  EXPECT_TRUE(qvx_text_names_component("libeth", make_string_array({"libeth", "eth.so"}).get()));
}

TEST(TextNamesComponent, FindsNothingInNothing) {
  EXPECT_FALSE(qvx_text_names_component("libeth", nullptr));
  EXPECT_FALSE(qvx_text_names_component(nullptr, make_string_array({"eth.so"}).get()));
}

}  // namespace
}  // namespace qvx
