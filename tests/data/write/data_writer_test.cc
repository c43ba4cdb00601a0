#include "qvx/data/write/data_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/data/write/data_writer_fixture.h"
#include "tests/support/env_guard.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::id_of_byte;
using test::kStart;
using test::LogCapture;
using test::make_page;
using test::read_file;
using test::TempDir;
using Texts = std::vector<std::string>;

constexpr const char* kNoIds = "[data_writer] First data block is QVXE. No schema ids could be extracted.";

class DataWriter : public test::DataWriterTest {};

// -- Which pages are saved

TEST_F(DataWriter, PageBecomesAFileOfItsSource) {
  ASSERT_TRUE(write({.source_tag = "t", .schema_id = id_of_byte(0xC1)}));
  test::FileHeader expected;
  expected.source_id = "node1";
  expected.source_tag = "t";
  expected.file_size = 276;
  expected.first_timestamp = kStart;
  expected.last_timestamp = kStart + 9;
  expected.block_size = 20;
  EXPECT_EQ(read_file(path_of("t_1700000000000000")), test::file_header(expected) + "QVXE0123456789abcdef");
}

TEST_F(DataWriter, DisabledWriterDoesNothing) {
  writer_->enabled = false;
  LogCapture log;
  EXPECT_TRUE(write({}));
  EXPECT_EQ(log.texts(QVX_LOG_WARNING), Texts{});
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(DataWriter, OnlyMajor1WithMinorAbove6IsCompatible) {
  struct Case {
    std::uint32_t version;
    bool saved;
  };
  for (const auto& [version, saved] :
       {Case{0x00010701, true}, Case{0xFFFF0801, true}, Case{0x0000FF01, true}, Case{0x00010601, false},
        Case{0x00010702, false}, Case{0x00010700, false}}) {
    const PagePtr page = make_page({});
    store_le(page_header(*page).data(), version);
    LogCapture log;
    EXPECT_TRUE(data_writer_write_page(*writer_, *page));
    EXPECT_EQ(fs::remove_all(temp_.path() / "2023") > 0, saved) << version;
    EXPECT_EQ(log.has(QVX_LOG_WARNING, "[data_writer] Received incompatible data page. Skipping."), !saved);
    forget_sources();
  }
}

TEST_F(DataWriter, EmptyPageIsDropped) {
  LogCapture log;
  EXPECT_TRUE(write({.data = "", .room = 100}));
  EXPECT_TRUE(log.has(QVX_LOG_DEBUG, "[data_writer] Received empty data page. Skipping."));
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(DataWriter, BlobsAndUnknownBlocksAreNotSaved) {
  for (const char* data : {"QVXB0123456789abcdef", "QVXZ0123456789abcdef", "QVX"}) {
    LogCapture log;
    EXPECT_FALSE(write({.data = data}));
    EXPECT_EQ(log.texts(QVX_LOG_ERROR),
              (Texts{"[data_writer] Unrecognized type of data page. Cannot save to file."}));
  }
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(DataWriter, EventsPagesAndMetricsWarnThatTheyNameNoSchemas) {
  LogCapture log;
  EXPECT_TRUE(write({.data = "QVXE0123456789abcdef"}));
  EXPECT_TRUE(write({.data = "QVXP0123456789abcdef"}));
  EXPECT_TRUE(write({.data = "CNTX0123456789abcdef"}));
  EXPECT_EQ(log.texts(QVX_LOG_WARNING), (Texts{kNoIds, "[data_writer] First data block is QVXP.",
                                               "[data_writer] First data block is CNTX."}));
  EXPECT_EQ(fs::file_size(path_), 256u + 3 * 20);
}

TEST_F(DataWriter, BlocksThatNoReaderAcceptsAreNotWritten) {
  LogCapture log;
  EXPECT_FALSE(write({.data = "QVXE0123456789a"}));
  EXPECT_TRUE(
      log.has(QVX_LOG_DEBUG, "[data_writer] Blocks of 15 bytes could not be read. Cannot save to file."));
  EXPECT_FALSE(write({.room = 125829120}));
  EXPECT_TRUE(log.has(QVX_LOG_ERROR,
                      "[data_writer] Blocks of 125829120 bytes could not be read. Cannot save to file."));
  EXPECT_TRUE(fs::is_empty(temp_.path()));
  EXPECT_TRUE(write({.data = "QVXE0123456789ab"}));
  EXPECT_TRUE(write({.room = 125829119, .first_timestamp = kStart + 1}));
}

// -- Blocks

TEST_F(DataWriter, DataIsPaddedToWholeBlocks) {
  ASSERT_TRUE(write({.block_size = 16, .room = 64}));
  EXPECT_EQ(read_file(path_).substr(256), "QVXE0123456789abcdef" + std::string(12, '\0'));
  EXPECT_EQ(header_of(path_).block_size, 16u);
}

TEST_F(DataWriter, OneByteIsOneBlock) {
  ASSERT_TRUE(write({.data = "QVXE0123456789abc", .block_size = 16, .room = 17}));
  EXPECT_EQ(read_file(path_).substr(256), "QVXE0123456789abc" + std::string(15, '\0'));
}

TEST_F(DataWriter, BytesBehindTheFilledOnesAreNotWritten) {
  const PagePtr page = make_page({.room = 32});
  std::fill(page_data(*page).begin() + 20, page_data(*page).end(), std::byte{0x55});
  ASSERT_TRUE(data_writer_write_page(*writer_, *page));
  EXPECT_EQ(read_file(path_).substr(256), "QVXE0123456789abcdef" + std::string(12, '\0'));
}

TEST_F(DataWriter, PagesOfOneSourceShareAFile) {
  ASSERT_TRUE(write({}));
  ASSERT_TRUE(write({.first_timestamp = kStart + 10, .last_timestamp = kStart + 20}));
  EXPECT_EQ(data_files(), (Texts{"2023/1114/node1/1700000000000000.bin"}));
  EXPECT_EQ(header_of(path_).file_size, 296u);
  EXPECT_EQ(header_of(path_).first_timestamp, kStart);
  EXPECT_EQ(header_of(path_).last_timestamp, kStart + 20);
}

TEST_F(DataWriter, PageBeforeTheOpenFileStartsANewOneAndWarns) {
  ASSERT_TRUE(write({}));
  LogCapture log;
  ASSERT_TRUE(write({.first_timestamp = kStart - 1}));
  EXPECT_EQ(
      log.texts(QVX_LOG_WARNING),
      (Texts{kNoIds, "first_timestamp 1700000000000000is greater than current timestamp: 1699999999999999"}));
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1699999999999999.bin", "2023/1114/node1/1700000000000000.bin"}));
}

TEST_F(DataWriter, SourcesAndTagsHaveFilesOfTheirOwn) {
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(write({.source_id = "a"}));
    ASSERT_TRUE(write({.source_id = "a", .source_tag = "t"}));
    ASSERT_TRUE(write({.source_id = "b"}));
  }
  EXPECT_EQ(data_files(), (Texts{"2023/1114/a/1700000000000000.bin", "2023/1114/a/t_1700000000000000.bin",
                                 "2023/1114/b/1700000000000000.bin"}));
  for (const std::string& file : data_files())
    EXPECT_EQ(fs::file_size(temp_.path() / file), 296u) << file;
}

TEST_F(DataWriter, TemplateSeesTheHostAndItsPort) {
  writer_->path_template = "{{node}}-{{port}}.bin";
  ASSERT_TRUE(write({}));
  EXPECT_EQ(data_files(), (Texts{"host7-12.bin"}));
}

TEST_F(DataWriter, ManySourcesDoNotUseUpTheDescriptors) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = descriptors();
  for (int round = 0; round < 2; ++round) {
    for (int source = 0; source < 300; ++source)
      ASSERT_TRUE(write({.source_id = "s" + std::to_string(source)}));
  }
  EXPECT_LE(descriptors(), before + 2 * 64);
  EXPECT_EQ(data_files().size(), 300u);
  for (const std::string& file : data_files())
    EXPECT_EQ(fs::file_size(temp_.path() / file), 296u) << file;
}

// -- Schemas and block sizes

TEST_F(DataWriter, NewSourceBeginsWithTheWritersSchemas) {
  writer_->counters_schema_id = id_of_byte(0xC1);
  writer_->event_schema_ids[1] = id_of_byte(0xE1);
  ASSERT_TRUE(write({}));
  EXPECT_EQ(header_of(path_).counters_schema_id, id_of_byte(0xC1));
  EXPECT_EQ(header_of(path_).event_schema_ids[1], id_of_byte(0xE1));
}

TEST_F(DataWriter, SchemasPageTakesAllSevenIdentifiers) {
  std::vector<qvx_schema_id> ids;
  for (std::uint8_t slot = 0; slot < 8; ++slot)
    ids.push_back(id_of_byte(static_cast<std::uint8_t>(0xE0 + slot)));
  ASSERT_TRUE(write({.data = test::schemas_block(ids)}));
  const auto& found = header_of(path_).event_schema_ids;
  for (std::size_t slot = 0; slot < 7; ++slot)
    EXPECT_EQ(found[slot], ids[slot]) << slot;
}

TEST_F(DataWriter, OtherSchemasStartANewFile) {
  ASSERT_TRUE(write({.data = test::schemas_block({id_of_byte(1)}), .room = 256}));
  ASSERT_TRUE(
      write({.data = test::schemas_block({id_of_byte(1)}), .room = 256, .first_timestamp = kStart + 1}));
  EXPECT_EQ(data_files().size(), 1u);
  ASSERT_TRUE(write({.data = test::schemas_block({id_of_byte(1), id_of_byte(2)}),
                     .room = 256,
                     .first_timestamp = kStart + 2}));
  ASSERT_TRUE(write({.room = 256, .first_timestamp = kStart + 3}));
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1700000000000000.bin", "2023/1114/node1/1700000000000002.bin"}));
  EXPECT_EQ(header_of(path_).file_size, 256u + 2 * 256);
  const std::string second = path_of("1700000000000002");
  EXPECT_EQ(header_of(second).event_schema_ids[1], id_of_byte(2));
  EXPECT_EQ(header_of(second).file_size, 256u + 2 * 256);
}

TEST_F(DataWriter, SchemasPageThatIsCutShortHasZerosBehindItsEnd) {
  writer_->event_schema_ids[2] = id_of_byte(9);
  const std::string block = test::schemas_block({id_of_byte(1), id_of_byte(2), id_of_byte(3)});
  ASSERT_TRUE(write({.data = block.substr(0, 40)}));
  EXPECT_EQ(header_of(path_).event_schema_ids[0], id_of_byte(1));
  EXPECT_EQ(header_of(path_).event_schema_ids[1], test::id_of("02020202020202020000000000000000"));
  EXPECT_EQ(header_of(path_).event_schema_ids[2], qvx_schema_id{});
}

TEST_F(DataWriter, OfASchemasPageAsManyIdentifiersCountAsItStates) {
  writer_->event_schema_ids[2] = id_of_byte(9);
  ASSERT_TRUE(write({.data = test::schemas_block({id_of_byte(1), id_of_byte(2), id_of_byte(3)}, 256, 2)}));
  EXPECT_EQ(header_of(path_).event_schema_ids[1], id_of_byte(2));
  EXPECT_EQ(header_of(path_).event_schema_ids[2], qvx_schema_id{});
}

TEST_F(DataWriter, OtherCountersSchemaStartsANewFile) {
  const std::string counters = test::counters_block(kStart, "12345678");
  ASSERT_TRUE(write({.data = counters, .schema_id = id_of_byte(1)}));
  ASSERT_TRUE(write({.data = counters, .first_timestamp = kStart + 1, .schema_id = id_of_byte(1)}));
  ASSERT_TRUE(write({.data = counters, .first_timestamp = kStart + 2, .schema_id = id_of_byte(2)}));
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1700000000000000.bin", "2023/1114/node1/1700000000000002.bin"}));
  EXPECT_EQ(header_of(path_).counters_schema_id, id_of_byte(1));
  EXPECT_EQ(header_of(path_of("1700000000000002")).counters_schema_id, id_of_byte(2));
}

TEST_F(DataWriter, OtherBlockSizeStartsANewFile) {
  ASSERT_TRUE(write({.block_size = 32, .room = 64}));
  ASSERT_TRUE(write({.block_size = 64, .room = 64, .first_timestamp = kStart + 1}));
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1700000000000000.bin", "2023/1114/node1/1700000000000001.bin"}));
  EXPECT_EQ(header_of(path_).block_size, 32u);
  EXPECT_EQ(header_of(path_).file_size, 288u);
  EXPECT_EQ(header_of(path_of("1700000000000001")).block_size, 64u);
}

// -- Failures

TEST_F(DataWriter, PageThatCannotBeSavedIsAFailureAndTheNextIsTriedAgain) {
  temp_.write_file("2023", "in the way");
  LogCapture log;
  EXPECT_FALSE(write({}));
  EXPECT_FALSE(write({}));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR).size(), 1u);
  EXPECT_TRUE(write({.first_timestamp = 1}));
  fs::remove(temp_.path() / "2023");
  EXPECT_TRUE(write({.first_timestamp = kStart + 5}));
  EXPECT_EQ(data_files(), (Texts{"1970/0101/node1/1.bin", "2023/1114/node1/1700000000000005.bin"}));
}

TEST_F(DataWriter, DestroyingTheWriterCompletesTheHeaders) {
  ASSERT_TRUE(write({}));
  ASSERT_TRUE(write({.source_id = "b"}));
  for (auto& source : writer_->sources) {
    source.file.last_timestamp = kStart + 77;
    ASSERT_EQ(data_file_append(source.file, as_bytes("QVXE0123456789abcdef")), 20u);
  }
  writer_.reset();
  for (const std::string& file : data_files()) {
    EXPECT_EQ(header_of(temp_.path() / file).file_size, 296u) << file;
    EXPECT_EQ(header_of(temp_.path() / file).last_timestamp, kStart + 77) << file;
  }
}

TEST_F(DataWriter, DestroyingNoWriterDoesNothing) {
  data_writer_destroy(nullptr);
}

bool header_memory_was_short = false;

__attribute__((format(printf, 2, 3))) void note_message(std::uint32_t, const char* format, ...) {
  if (std::string_view(format) == "[data_file] Failed allocating file header buffer: %s")
    header_memory_was_short = true;
}

TEST_F(DataWriter, WhenMemoryIsShortAPageIsSavedWholeOrNotAtAll) {
  const PagePtr page = make_page({});
  const std::uint32_t level = qvx_logger_set_level(QVX_LOG_ERROR);
  qvx_logger_register_callback(note_message, QVX_LOG_ERROR);
  bool short_of_memory = true;
  std::size_t successes = 0;
  for (; short_of_memory; ++successes) {
    {
      const test::FailingAllocations few(successes);
      static_cast<void>(data_writer_write_page(*writer_, *page));
      short_of_memory = few.any_failed();
    }
    for (const std::string& file : data_files()) {
      EXPECT_EQ(file, "2023/1114/node1/1700000000000000.bin");
      EXPECT_EQ((fs::file_size(temp_.path() / file) - 256) % 20, 0u);
    }
    forget_sources();
    fs::remove_all(temp_.path() / "2023");
  }
  qvx_logger_register_callback(nullptr, 0);
  qvx_logger_set_level(level);
  EXPECT_GT(successes, 10u);
  EXPECT_TRUE(header_memory_was_short);
  EXPECT_TRUE(data_writer_write_page(*writer_, *page));
  EXPECT_FALSE(fs::exists("2023"));
}

TEST_F(DataWriter, WriterThatDoesNotFitIntoMemoryIsNull) {
  qvx_client_id_t identity;
  const test::FailingAllocations none(0);
  EXPECT_EQ(data_writer_create(identity), nullptr);
}

// -- Node information

TEST_F(DataWriter, NodeInformationStandsBesideNewFiles) {
  ASSERT_TRUE(write({}));
  EXPECT_EQ(read_file(folder() / "nodeinfo.json"), "{\n    \"timestamp\": 1700000000000000\n}");
  ASSERT_TRUE(write({.first_timestamp = kStart + 1}));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder()), {}), 2);
}

TEST_F(DataWriter, NodeInformationThatIsThereGetsANumberedName) {
  const test::EnvGuard guard("QVX_ALLOW_MULTIPLE_NODEINFO", nullptr);
  const test::EnvGuard alias("ALLOW_MULTIPLE_NODEINFO", nullptr);
  temp_.write_file("2023/1114/node1/nodeinfo.json", "old");
  ASSERT_TRUE(write({}));
  EXPECT_EQ(read_file(folder() / "nodeinfo.json"), "old");
  EXPECT_EQ(read_file(folder() / "nodeinfo.1700000000000000.json"),
            "{\n    \"timestamp\": 1700000000000000\n}");
}

TEST_F(DataWriter, AppendingToAFoundFileWritesNoNodeInformation) {
  temp_.write_file("2023/1114/node1/1700000000000000.bin", test::sample_file({.block_size = 20}, {"x"}));
  ASSERT_TRUE(write({}));
  EXPECT_FALSE(fs::exists(folder() / "nodeinfo.json"));
}

TEST_F(DataWriter, NodeInformationDoesNotLeaveThroughALink) {
  const TempDir elsewhere;
  fs::create_directories(folder());
  fs::create_symlink(elsewhere.path() / "target", folder() / "nodeinfo.json");
  ASSERT_TRUE(write({}));
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
}

}  // namespace
}  // namespace qvx
