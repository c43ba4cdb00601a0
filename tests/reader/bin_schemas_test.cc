// Written files name the schemas that their pages are read with, whichever source brought them and wherever
// they stood: what is written reads back as the same records.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "qvx/data/file_header.h"
#include "tests/data/sample_builder.h"
#include "tests/reader/bin_output_files.h"
#include "tests/support/temp_dir.h"
#include "tests/support/trust_run.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::events;
using test::kEvents;
using test::kOtherEvents;
using test::page_at;
using test::page_block;
using test::read_file;
using test::sample_file;
using test::schemas_block;
using Texts = std::vector<std::string>;

class BinSchemas : public test::BinOutputFiles {
 protected:
  // Re-saves the files and compares what is read before and after.
  void expect_same_records(const Texts& files, std::size_t count) {
    const Texts expected = records(files);
    EXPECT_EQ(expected.size(), count);
    resave(files);
    EXPECT_EQ(records(written()), expected);
  }

  static qvx_data_file_header header_of(const fs::path& path) {
    const std::string bytes = read_file(path);
    EXPECT_GE(bytes.size(), 256u);
    return file_header_decode(Bytes(as_bytes(bytes)).first<256>());
  }

  static std::string unit(std::uint64_t time, const char* source, const std::string& page) {
    return page_block(page_at(time, source), page);
  }
};

TEST_F(BinSchemas, BroughtByOneSourceHoldForAnother) {
  expect_same_records(
      {temp_.write_file("in.bin",
                        sample_file(header(), {unit(0, "a", events(1, 2)), unit(1, "b", events(3, 2)),
                                               unit(2, "a", schemas_block({kOtherEvents})),
                                               unit(3, "b", events(5, 2)), unit(4, "c", events(7, 2))}))},
      8);
  EXPECT_EQ(header_of(output() / "2023/1114/b/1700000000000003.bin").event_schema_ids[0], kOtherEvents);
  EXPECT_EQ(header_of(output() / "2023/1114/c/1700000000000004.bin").event_schema_ids[0], kOtherEvents);
}

TEST_F(BinSchemas, BehindEventsInsideAPageHoldForThePagesBehind) {
  const std::string changing = events(1, 2) + schemas_block({kOtherEvents}) + events(3, 2);
  const std::string in =
      temp_.write_file("in.bin", sample_file(header(), {unit(0, "a", changing), unit(1, "a", events(5, 2)),
                                                        unit(2, "b", events(7, 2))}));
  expect_same_records({in}, 8);
  EXPECT_EQ(header_of(output() / "2023/1114/a/1700000000000000.bin").event_schema_ids[0], kEvents);
  EXPECT_EQ(header_of(output() / "2023/1114/b/1700000000000002.bin").event_schema_ids[0], kOtherEvents);
}

// A page is saved as it is, and what it names before its fault holds for the next.
TEST_F(BinSchemas, BeforeAFaultInsideAPageHoldForThePagesBehind) {
  const std::string faulty = events(1, 2) + schemas_block({kOtherEvents}) + events(3, 2, 5);
  const std::string in =
      temp_.write_file("in.bin", sample_file(header(), {unit(0, "a", faulty), unit(1, "b", events(5, 2))}));
  resave({in});
  EXPECT_EQ(errors_, "");
  EXPECT_EQ(header_of(output() / "2023/1114/a/1700000000000000.bin").event_schema_ids[0], kEvents);
  EXPECT_EQ(header_of(output() / "2023/1114/b/1700000000000001.bin").event_schema_ids[0], kOtherEvents);
  EXPECT_EQ(run(OutputFormat::ndjson, {output() / "2023/1114/b/1700000000000001.bin"}),
            "{\"w\":5}\n{\"w\":6}\n");
}

TEST_F(BinSchemas, OutsideThePagesHoldForThePagesBehind) {
  const std::string in = temp_.write_file(
      "in.bin", sample_file(header(), {unit(0, "a", events(1, 2)), schemas_block({kOtherEvents}),
                                       unit(1, "a", events(3, 2))}));
  expect_same_records({in}, 4);
}

TEST_F(BinSchemas, ThatChangeAtOneTimestampTakeNumberedNames) {
  const std::string in = temp_.write_file(
      "in.bin",
      sample_file(header(), {unit(0, "a", events(1, 2)), unit(0, "x", schemas_block({kOtherEvents})),
                             unit(0, "a", events(3, 2)), unit(0, "x", schemas_block({kEvents})),
                             unit(0, "a", events(5, 2)), unit(0, "x", schemas_block({kOtherEvents})),
                             unit(0, "a", events(7, 2))}));
  expect_same_records({in}, 8);
  EXPECT_TRUE(fs::exists(output() / "2023/1114/a/1700000000000000_2.bin"));
  EXPECT_FALSE(fs::exists(output() / "2023/1114/a/1700000000000000_3.bin"));
}

TEST_F(BinSchemas, OfASecondInputTakeNumberedNames) {
  test::FileHeader other = header();
  other.event_schema_ids = {kOtherEvents};
  expect_same_records({temp_.write_file("one.bin", sample_file(header(), {unit(0, "a", events(1, 2))})),
                       temp_.write_file("two.bin", sample_file(other, {unit(0, "a", events(3, 2))})),
                       temp_.write_file("three.bin", sample_file(header(), {unit(0, "a", events(5, 2))}))},
                      6);
  EXPECT_EQ(written().size(), 2u);
}

TEST_F(BinSchemas, ThatCannotBeLoadedAreFollowedAllTheSame) {
  const qvx_schema_id missing = test::id_of_byte(0x77);
  resave({temp_.write_file("in.bin", sample_file(header(), {unit(0, "a", schemas_block({missing})),
                                                            unit(1, "b", events(1, 2))}))});
  EXPECT_EQ(header_of(output() / "2023/1114/b/1700000000000001.bin").event_schema_ids[0], missing);
}

// A reader stops at events whose schemas it does not have: what a page names behind them holds for no other.
TEST_F(BinSchemas, BehindEventsWhoseSchemasCannotBeLoadedAreNotFollowed) {
  const qvx_schema_id missing = test::id_of_byte(0x77);
  const std::string same = events(1, 2) + schemas_block({kEvents}) + events(3, 2);
  const std::string changing = events(5, 2) + schemas_block({kOtherEvents}) + events(7, 2);
  resave({temp_.write_file(
      "in.bin", sample_file(header(), {unit(0, "a", same), unit(1, "a", schemas_block({kEvents, missing})),
                                       unit(2, "b", changing), unit(3, "c", events(9, 2))}))});
  const auto ids = header_of(output() / "2023/1114/c/1700000000000003.bin").event_schema_ids;
  EXPECT_EQ(ids[0], kEvents);
  EXPECT_EQ(ids[1], missing);
}

TEST_F(BinSchemas, MoreThanAHeaderNamesAreSavedAndAFailure) {
  std::vector<qvx_schema_id> ids;
  for (std::uint8_t slot = 0; slot < 8; ++slot) {
    ids.push_back(test::id_of_byte(static_cast<std::uint8_t>(0xA0 + slot)));
    temp_.write_file("schema/" + test::schema_file_name(ids.back()),
                     test::events_schema_with_field("f" + std::to_string(slot)));
  }
  const std::string names_them = schemas_block(ids) + events(1, 2, 7);
  resave({temp_.write_file("in.bin", sample_file(header(), {unit(0, "a", names_them)}))});
  fs::remove_all(output());
  fs::create_directories(output());
  const std::string in = temp_.write_file(
      "in.bin", sample_file(header(), {unit(0, "a", names_them), unit(1, "b", events(3, 2, 7)),
                                       unit(2, "c", schemas_block({kEvents}) + events(5, 2))}));
  run(OutputFormat::bin, {in});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(written().size(), 3u);
}

// Pages of several sources under schemas that change anywhere, all at a few timestamps.
TEST_F(BinSchemas, WhereverTheyChangeTheRecordsStayTheSame) {
  test::TrustRun trust("bin-schemas");
  const std::vector<std::string> changes = {schemas_block({kEvents}), schemas_block({kOtherEvents}),
                                            schemas_block({kEvents, kOtherEvents}),
                                            schemas_block({kOtherEvents, kEvents})};
  do {
    std::mt19937 random(static_cast<unsigned>(1000 * trust.seed() + trust.cases()));
    std::vector<std::string> units;
    std::uint16_t number = 0;
    for (int page_number = 0; page_number < 25; ++page_number) {
      std::string page;
      for (unsigned blocks = 1 + random() % 4; blocks != 0; --blocks) {
        if (random() % 3 == 0) {
          page += changes[random() % changes.size()];
        } else {
          page += events(number, 1 + random() % 3);
          number = static_cast<std::uint16_t>(number + 10);
        }
      }
      const char* const source = random() % 2 == 0 ? "a" : "b";
      const std::string block = unit(random() % 3, source, page);
      units.push_back(random() % 8 == 0 ? changes[random() % changes.size()] : block);
    }
    fs::remove_all(output());
    fs::create_directories(output());
    const std::string in = temp_.write_file("in.bin", sample_file(header(), units));
    const Texts expected = records({in});
    resave({in});
    const bool same = records(written()) == expected;
    EXPECT_TRUE(same) << "seed " << trust.cases();
    trust.count(same && failures_ == 0);
  } while (trust.cases() < 40 || trust.time_is_left());
}

}  // namespace
}  // namespace qvx
