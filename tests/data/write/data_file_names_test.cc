// Names that are taken: what becomes of data whose file is there already, made by another run, another writer
// or another process.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/write/data_writer.h"
#include "qvx/data/write/known_files.h"
#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/data/write/data_writer_fixture.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::FaultyCalls;
using test::id_of_byte;
using test::kStart;
using test::LogCapture;
using test::read_file;
using Texts = std::vector<std::string>;

constexpr std::string_view kFirst = "QVXE0123456789abcdef";
constexpr std::string_view kSecond = "QVXEABCDEFGHIJKLMNOP";

TEST(NumberedName, NumberStandsBeforeTheExtension) {
  EXPECT_EQ(numbered_name("a.bin", 1), "a.bin");
  EXPECT_EQ(numbered_name("a.bin", 2), "a_2.bin");
  EXPECT_EQ(numbered_name("a.b.bin", 10), "a.b_10.bin");
  EXPECT_EQ(numbered_name("a", 3), "a_3");
  EXPECT_EQ(numbered_name(".bin", 2), "_2.bin");
}

TEST(KnownFiles, ForgetsInsteadOfGrowing) {
  KnownFiles files;
  for (std::uint32_t number = 1; number <= 70000; ++number)
    files.note("path", std::to_string(number), {number, 0});
  EXPECT_EQ(files.find("path", "1"), nullptr);
  ASSERT_NE(files.find("path", "70000"), nullptr);
  EXPECT_EQ(files.find("path", "70000")->number, 70000u);
}

TEST(KnownFiles, ForgetsNothingForWhatItKnows) {
  KnownFiles files;
  for (std::uint32_t number = 1; number <= 65536; ++number)
    files.note("path", std::to_string(number), {number, 0});
  files.note("path", "2", {2, 300});
  ASSERT_NE(files.find("path", "1"), nullptr);
  EXPECT_EQ(files.find("path", "2")->size, 300u);
  files.note("path", "65537", {65537, 0});
  EXPECT_EQ(files.find("path", "1"), nullptr);
  EXPECT_NE(files.find("path", "65537"), nullptr);
}

class TakenNames : public test::DataWriterTest {
 protected:
  TakenNames() {
    writer_->counters_schema_id = id_of_byte(0xC1);
    writer_->event_schema_ids = {id_of_byte(0xE1)};
    header_.block_size = 20;
    header_.counters_schema_id = id_of_byte(0xC1);
    header_.event_schema_ids = {id_of_byte(0xE1)};
  }

  void expect_left_alone(const std::string& before) {
    temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
    EXPECT_TRUE(write({.data = std::string(kFirst)}));
    EXPECT_TRUE(write({.data = std::string(kSecond)}));
    EXPECT_EQ(read_file(path_), before);
    EXPECT_EQ(read_file(second_).substr(256), std::string(kFirst) + std::string(kSecond));
    EXPECT_EQ(header_of(second_).file_size, 296u);
    EXPECT_EQ(data_files().size(), 2u);
  }

  test::FileHeader header_;
  const std::string second_ = path_of("1700000000000000_2");
};

TEST_F(TakenNames, FileOfAnotherBlockSizeIsLeftAlone) {
  header_.block_size = 21;
  expect_left_alone(test::sample_file(header_, {"x"}));
}

TEST_F(TakenNames, FileWithoutBlocksIsLeftAlone) {
  header_.block_size = 0;
  const std::string before = test::file_header(header_) + "x";
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  qvx_data_file file;
  file.root = temp_.path();
  file.source_id = "node1";
  file.block_size = 0;
  file.counters_schema_id = header_.counters_schema_id;
  file.schemas = SchemasInForce(writer_->event_schema_ids);
  ASSERT_TRUE(data_file_open_for(file, kStart, kStart));
  EXPECT_EQ(data_file_append(file, as_bytes(kFirst), 0), 20u);
  EXPECT_EQ(read_file(path_), before);
  EXPECT_EQ(read_file(second_).substr(256), kFirst);
}

TEST_F(TakenNames, FileOfAnotherCountersSchemaIsLeftAlone) {
  header_.counters_schema_id = id_of_byte(0xC2);
  expect_left_alone(test::sample_file(header_, {"x"}));
}

TEST_F(TakenNames, FileOfOtherEventSchemasIsLeftAlone) {
  header_.event_schema_ids = {id_of_byte(0xE1), id_of_byte(0xE2)};
  expect_left_alone(test::sample_file(header_, {"x"}));
}

TEST_F(TakenNames, FileWhoseDataBlocksNameOtherSchemasIsLeftAlone) {
  header_.block_size = 300;
  const std::string before = test::sample_file(header_, {test::schemas_block({id_of_byte(0xE2)}), "QVXE"});
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  ASSERT_TRUE(write({.data = std::string(kFirst), .room = 300}));
  EXPECT_EQ(read_file(path_), before);
  EXPECT_TRUE(fs::exists(second_));
}

TEST_F(TakenNames, FileWhoseLastDataBlockNamesOtherSchemasBehindEventsIsLeftAlone) {
  header_.block_size = 300;
  const std::string before =
      test::sample_file(header_, {std::string(kFirst) + test::schemas_block({id_of_byte(0xE2)})});
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  ASSERT_TRUE(write({.data = std::string(kFirst), .room = 300}));
  EXPECT_EQ(read_file(path_), before);
  EXPECT_TRUE(fs::exists(second_));
}

TEST_F(TakenNames, FileWhoseDataBlocksNameTheSameSchemasIsAppendedTo) {
  header_.block_size = 300;
  const std::string before =
      test::sample_file(header_, {test::schemas_block({id_of_byte(0xE1)}),
                                  std::string(kFirst) + test::schemas_block({id_of_byte(0xE1)})});
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  ASSERT_TRUE(write({.data = std::string(kFirst), .room = 300}));
  EXPECT_EQ(fs::file_size(path_), before.size() + 300);
}

TEST_F(TakenNames, EachKindOfOneTimestampHasItsFile) {
  for (int round = 0; round < 2; ++round) {
    for (const std::size_t size : {20, 21, 22})
      ASSERT_TRUE(write({.data = "QVXE" + std::string(size - 4, 'x')}));
    forget_sources();
    writer_->known_files = {};  // as another run
  }
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1700000000000000.bin", "2023/1114/node1/1700000000000000_2.bin",
                   "2023/1114/node1/1700000000000000_3.bin"}));
  EXPECT_EQ(header_of(path_).file_size, 256u + 2 * 20);
  EXPECT_EQ(header_of(second_).file_size, 256u + 2 * 21);
  EXPECT_EQ(header_of(path_of("1700000000000000_3")).file_size, 256u + 2 * 22);
}

TEST_F(TakenNames, ManyKindsOfOneTimestampTakeNoLongerEach) {
  LogCapture log(QVX_LOG_ERROR);
  for (std::size_t size = 16; size < 516; ++size)
    ASSERT_TRUE(write({.data = "QVXE" + std::string(size - 4, 'x')}));
  const FaultyCalls counted;
  ASSERT_TRUE(write({.data = "QVXE" + std::string(516, 'x')}));
  EXPECT_LE(counted.calls(Call::open), 6u);
  EXPECT_TRUE(fs::exists(path_of("1700000000000000_501")));
}

TEST_F(TakenNames, NameTakenAtTheLastMomentGoesOnAsExists) {
  const FaultyCalls once(Call::linkat, EEXIST, 0, 1);
  ASSERT_TRUE(write({.data = std::string(kFirst)}));
  EXPECT_TRUE(once.any_failed());
  EXPECT_EQ(header_of(path_).file_size, 276u);
}

TEST_F(TakenNames, TwoWritersOnOneFileLeaveAHeaderThatCountsAllBlocks) {
  qvx_client_id_t identity;
  const DataWriterPtr other(data_writer_create(identity));
  other->root = temp_.path();
  other->counters_schema_id = writer_->counters_schema_id;
  other->event_schema_ids = writer_->event_schema_ids;
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(write({.data = std::string(kFirst)}));
    ASSERT_TRUE(data_writer_write_page(*other, *test::make_page({.data = std::string(kSecond)})));
  }
  EXPECT_EQ(data_files(), (Texts{"2023/1114/node1/1700000000000000.bin"}));
  EXPECT_EQ(fs::file_size(path_), 256u + 8 * 20);
  EXPECT_EQ(header_of(path_).file_size, 256u + 8 * 20);
}

TEST_F(TakenNames, TwoTagsOnOnePathShareAFile) {
  writer_->path_template = "{{source}}.bin";
  ASSERT_TRUE(write({.source_tag = "a"}));
  ASSERT_TRUE(write({.source_tag = "b"}));
  ASSERT_TRUE(write({.source_tag = "a"}));
  EXPECT_EQ(fs::file_size(temp_.path() / "node1.bin"), 316u);
  EXPECT_EQ(header_of(temp_.file("node1.bin")).file_size, 316u);
}

// -- File systems

TEST_F(TakenNames, FileSystemWithoutNamelessFilesIsWritten) {
  const FaultyCalls none(Call::open_nameless, EOPNOTSUPP);
  ASSERT_TRUE(write({.data = std::string(kFirst)}));
  EXPECT_TRUE(none.any_failed());
  EXPECT_EQ(read_file(path_).substr(256), kFirst);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder()), {}), 2) << "no draft is left";
}

TEST_F(TakenNames, DraftsOfInterruptedProgramsAreLeftAloneUpToAHundred) {
  const FaultyCalls none(Call::open_nameless, EOPNOTSUPP);
  const auto draft = [&](int number) {
    return "2023/1114/node1/.qvx-" + std::to_string(getpid()) + "-" + std::to_string(number) + ".new";
  };
  for (int number = 0; number < 99; ++number)
    temp_.write_file(draft(number), "old");
  ASSERT_TRUE(write({.data = std::string(kFirst)}));
  EXPECT_EQ(read_file(path_).substr(256), kFirst);
  EXPECT_EQ(read_file(temp_.file(draft(98))), "old");
  EXPECT_FALSE(fs::exists(temp_.file(draft(99))));
  temp_.write_file(draft(99), "old");
  forget_sources();
  fs::remove(path_);
  EXPECT_FALSE(write({.data = std::string(kFirst)}));
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(TakenNames, FileSystemWithoutNamelessFilesAndLinksIsWritten) {
  for (const int error : {EPERM, EINVAL, ENOSYS, EOPNOTSUPP}) {
    fs::remove_all(temp_.path() / "2023");
    const FaultyCalls none({Call::open_nameless, Call::linkat}, error);
    ASSERT_TRUE(write({.data = std::string(kFirst)})) << error;
    EXPECT_EQ(read_file(path_).substr(256), kFirst);
    forget_sources();
  }
}

TEST_F(TakenNames, BareFileSystemIsWritten) {
  for (const int error : {EPERM, EINVAL, ENOSYS, EOPNOTSUPP}) {
    fs::remove_all(temp_.path() / "2023");
    const FaultyCalls none({Call::open_nameless, Call::linkat, Call::renameat2}, error);
    ASSERT_TRUE(write({.data = std::string(kFirst)})) << error;
    EXPECT_EQ(read_file(path_).substr(256), kFirst);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder()), {}), 2) << "no draft is left";
    forget_sources();
  }
}

TEST_F(TakenNames, FileSystemWithoutLocksIsWritten) {
  const FaultyCalls none(Call::flock, ENOLCK);
  ASSERT_TRUE(write({.data = std::string(kFirst)}));
  ASSERT_TRUE(write({.data = std::string(kSecond)}));
  EXPECT_TRUE(none.any_failed());
  EXPECT_EQ(read_file(path_).substr(256), std::string(kFirst) + std::string(kSecond));
}

}  // namespace
}  // namespace qvx
