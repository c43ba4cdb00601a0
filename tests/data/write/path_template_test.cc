#include "qvx/data/write/path_template.h"

#include <gtest/gtest.h>

#include <locale>
#include <string>

#include "qvx/support/log.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::LogCapture;

// 2023-11-14 22:13:20.123456 UTC.
constexpr std::uint64_t kTime = 1700000000123456;

PathFields fields_of(std::string_view source, std::string_view tag = "") {
  PathFields fields;
  fields.node = "host7";
  fields.source_id = source;
  fields.source_tag = tag;
  fields.port = 18515;
  fields.first_timestamp = kTime;
  fields.id = "1700000000123456";
  return fields;
}

std::string expand(std::string_view path_template, const PathFields& fields) {
  std::string path;
  std::string fault;
  EXPECT_TRUE(expand_path_template(path_template, fields, path, fault)) << fault;
  return path;
}

TEST(PathTemplate, DefaultTemplateWithoutTagPutsTheIdRightBehindTheSourceFolder) {
  EXPECT_EQ(expand(kDefaultPathTemplate, fields_of("node1")), "2023/1114/node1/1700000000123456.bin");
}

TEST(PathTemplate, DefaultTemplateWithTagPutsTagAndUnderscoreBeforeTheId) {
  EXPECT_EQ(expand(kDefaultPathTemplate, fields_of("node1", "t")), "2023/1114/node1/t_1700000000123456.bin");
}

TEST(PathTemplate, EveryPlainKeyIsFilledIn) {
  EXPECT_EQ(expand("{{node}}|{{source}}|{{port}}|{{timestamp}}|{{tag}}|{{id}}", fields_of("s", "t")),
            "host7|s|18515|1700000000123456|t_|1700000000123456");
}

TEST(PathTemplate, EveryDateKeyIsFilledInAsUtc) {
  EXPECT_EQ(expand("{{year}}-{{month}}-{{day}} {{hour}}:{{minute}}:{{second}}", fields_of("s")),
            "2023-11-14 22:13:20");
}

TEST(PathTemplate, KeysThatStandTwiceAreBothFilledIn) {
  EXPECT_EQ(expand("{{year}}/{{source}}{{source}}/{{year}}{{id}}{{id}}", fields_of("s")),
            "2023/ss/202317000000001234561700000000123456");
}

TEST(PathTemplate, UnknownKeysStay) {
  EXPECT_EQ(expand("{{years}}/{{ year }}/{year}/{{", fields_of("s")), "{{years}}/{{ year }}/{year}/{{");
}

TEST(PathTemplate, AnyOtherDateConversionIsHonoured) {
  EXPECT_EQ(expand("%j/%y/%b/%e/%%/%T", fields_of("s")), "318/23/Nov/14/%/22:13:20");
}

TEST(PathTemplate, TimeHasMillisecondPrecision) {
  EXPECT_EQ(expand("%f|%s", fields_of("s")), "123000|20.123000");
}

TEST(PathTemplate, WithoutFirstTimestampTheConversionsStayInThePath) {
  PathFields fields = fields_of("s");
  fields.first_timestamp = 0;
  fields.id = "";
  EXPECT_EQ(expand("{{year}}/{{month}}{{day}}/%H{{timestamp}}{{id}}.bin", fields), "%Y/%m%d/%H0.bin");
}

TEST(PathTemplate, TagBeforeAnEmptyIdLeavesNoUnderscoreBeforeASlash) {
  PathFields fields = fields_of("s", "t");
  fields.id = "";
  EXPECT_EQ(expand("{{tag}}{{id}}/x_{{id}}/y", fields), "t/x/y");
}

TEST(PathTemplate, OnlyOneOfTwoUnderscoresBeforeASlashGoes) {
  EXPECT_EQ(expand("{{source}}/x", fields_of("node__")), "node_/x");
}

TEST(PathTemplate, SourceMayHoldPlaceholdersOfLaterKeys) {
  EXPECT_EQ(expand("{{source}}", fields_of("{{port}}{{year}}{{tag}}{{id}}", "t")),
            "185152023t_1700000000123456");
}

TEST(PathTemplate, ValueThatHoldsItsOwnPlaceholderIsNotFilledInAgain) {
  EXPECT_EQ(expand("{{source}}/x", fields_of("{{source}}")), "{{source}}/x");
  EXPECT_EQ(expand("{{tag}}/x", fields_of("s", "{{source}}")), "{{source}}/x");
}

TEST(PathTemplate, SourceAndTagMayHoldDateConversions) {
  EXPECT_EQ(expand(kDefaultPathTemplate, fields_of("n%H", "%d")), "2023/1114/n22/14_1700000000123456.bin");
}

TEST(PathTemplate, HashOfAGuidIsTheGuidModuloTheNumber) {
  EXPECT_EQ(expand("{{hash4}}", fields_of("0x1f")), "3");
}

TEST(PathTemplate, HashOfAnyOtherSourceIsItsByteSumModuloTheNumber) {
  EXPECT_EQ(expand("{{hash10}}", fields_of("ab")), "5");
}

TEST(PathTemplate, HashSumsBytesAsUnsigned) {
  EXPECT_EQ(expand("{{hash1000}}", fields_of("\xff\xfe")), "509");
}

TEST(PathTemplate, HashZeroLeavesTheNumberUnreduced) {
  EXPECT_EQ(expand("{{hash0}}", fields_of("0x1f")), "31");
  EXPECT_EQ(expand("{{hash0}}", fields_of("ab")), "195");
}

TEST(PathTemplate, HashOfALargeGuidPrintsTheLowerHalfOfTheNumber) {
  EXPECT_EQ(expand("{{hash0}}", fields_of("0x7fffffff00000005")), "5");
  EXPECT_EQ(expand("{{hash0}}", fields_of("0xffffffffffffffff")), "-1");
  EXPECT_EQ(expand("{{hash1000}}", fields_of("0xffffffffffffffff")), "615");
}

TEST(PathTemplate, NegativeHashNumberLeavesASmallNumberAlone) {
  EXPECT_EQ(expand("{{hash-3}}", fields_of("ab")), "195");
}

TEST(PathTemplate, OnlyTheFirstHashIsReplaced) {
  EXPECT_EQ(expand("{{hash10}}/{{hash10}}", fields_of("ab")), "5/{{hash10}}");
}

TEST(PathTemplate, HashWithoutNumberStaysAndIsReported) {
  LogCapture log;
  EXPECT_EQ(expand("a/{{hashx}}/b", fields_of("ab")), "a/{{hashx}}/b");
  EXPECT_EQ(
      log.texts(QVX_LOG_ERROR),
      (std::vector<std::string>{
          "path_template expects {{hash[num]}}, '[num]' - a positive integer, actually received {{hashx}}"}));
}

TEST(PathTemplate, HashThatNeverEndsStays) {
  EXPECT_EQ(expand("a/{{hash10", fields_of("ab")), "a/{{hash10");
}

TEST(PathTemplate, HashRunsToTheNextClosingBraces) {
  EXPECT_EQ(expand("a/{{hash10 and more{{id}}.bin", fields_of("ab")), "a/5.bin");
}

TEST(PathTemplate, GuidThatDoesNotReadIsReportedAndSummed) {
  LogCapture log;
  EXPECT_EQ(expand("{{hash0}}", fields_of("0xg")), "271");
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (std::vector<std::string>{"Failed to read 0xg as guid number"}));
}

TEST(PathTemplate, LastMillisecondOfTheCalendarIsFormatted) {
  PathFields fields = fields_of("s");
  fields.first_timestamp = 253402300799999999;
  EXPECT_EQ(expand("%Y-%m-%d %H:%M:%S.%f", fields), "9999-12-31 23:59:59.999000");
}

TEST(PathTemplate, TimeBeyondTheCalendarIsRefused) {
  PathFields fields = fields_of("s");
  for (const std::uint64_t time : {std::uint64_t{253402300800000000}, ~std::uint64_t{0}}) {
    fields.first_timestamp = time;
    std::string path;
    std::string fault;
    EXPECT_FALSE(expand_path_template(kDefaultPathTemplate, fields, path, fault));
    EXPECT_EQ(path, "%Y/%m%d/s/{{id}}.bin");
    EXPECT_EQ(fault, "time is out of range");
  }
}

TEST(PathTemplate, DoesNotDependOnTheGlobalLocale) {
  struct Commas : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Commas));
  EXPECT_EQ(expand("%s", fields_of("s")), "20.123000");
  std::locale::global(before);
}

// Whatever stands behind a percent sign, alone or as a pair, at the end or in front of something: a path or a
// refusal comes out, and the text around it stays.
TEST(PathTemplate, EveryOddConversionGivesAPathOrARefusal) {
  for (int first = 1; first < 256; ++first) {
    for (const int second : {0, 'E' + 0, 'O' + 0, '%' + 0, 'Y' + 0, '9' + 0, '_' + 0, 'P' + 0, 0xC3}) {
      std::string source = "%";
      source += static_cast<char>(first);
      if (second != 0) source += static_cast<char>(second);
      std::string path;
      std::string fault;
      if (expand_path_template("a/{{source}}/{{id}}.bin", fields_of(source), path, fault)) {
        EXPECT_TRUE(path.starts_with("a/")) << path;
        EXPECT_TRUE(path.ends_with("/1700000000123456.bin")) << path;
        EXPECT_LT(path.size(), 200u) << path;
      } else {
        EXPECT_NE(fault, "");
      }
    }
  }
}

TEST(PathTemplate, FullyPackedConversionsStayShort) {
  const std::string source = "%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c";
  ASSERT_EQ(source.size(), 64u);
  EXPECT_EQ(expand("{{source}}", fields_of(source)).size(), 32u * 24);
}

}  // namespace
}  // namespace qvx
