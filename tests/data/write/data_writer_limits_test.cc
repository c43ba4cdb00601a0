// How a data writer keeps to its data size limit, and inside its folder.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/data/write/data_writer.h"
#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/data/write/data_writer_fixture.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::kStart;
using test::LogCapture;
using test::read_file;
using test::TempDir;
using Texts = std::vector<std::string>;

class DataWriterLimits : public test::DataWriterTest {};

// -- The data size limit

TEST_F(DataWriterLimits, DataSizeLimitMustExceedTheFileSizeLimit) {
  LogCapture log;
  EXPECT_FALSE(data_writer_set_data_size_limit(*writer_, 134217728));
  EXPECT_FALSE(data_writer_set_data_size_limit(*writer_, 0));
  const std::string message = "[data_writer] data size limit must be larger than file size limit";
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{message, message}));
  EXPECT_EQ(writer_->data_size_limit, 0u);
  EXPECT_TRUE(data_writer_set_data_size_limit(*writer_, 134217729));
  EXPECT_EQ(writer_->data_size_limit, 134217729u);
}

TEST_F(DataWriterLimits, UnsetLimitCannotBeEnforced) {
  LogCapture log;
  data_writer_enforce_data_size_limit(*writer_);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{"[data_writer] Cannot enforce data size limit, limit unset."}));
}

class LimitedDataWriter : public DataWriterLimits {
 protected:
  // Three pages of 100 bytes fit, each in a file of its own.
  LimitedDataWriter() {
    writer_->file_size_limit = 256 + 100;
    EXPECT_TRUE(data_writer_set_data_size_limit(*writer_, 399));
  }

  bool write_at(std::uint64_t seconds, std::string_view source = "node1") {
    return write(
        {.room = 100, .first_timestamp = kStart + seconds * 1000000, .source_id = std::string(source)});
  }
};

TEST_F(LimitedDataWriter, OldestFilesAreRemovedWithoutMemoryToo) {
  EXPECT_TRUE(data_writer_set_data_size_limit(*writer_, 1 << 20));
  for (std::uint64_t second = 1; second <= 5; ++second)
    ASSERT_TRUE(write_at(second));
  EXPECT_TRUE(data_writer_set_data_size_limit(*writer_, 399));
  {
    const test::FailingAllocations failures(0);
    data_writer_enforce_data_size_limit(*writer_);
  }
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1700000003000000.bin", "2023/1114/node1/1700000004000000.bin",
                   "2023/1114/node1/1700000005000000.bin"}));
}

TEST_F(LimitedDataWriter, OldestFilesAreRemoved) {
  for (std::uint64_t second = 1; second <= 5; ++second)
    ASSERT_TRUE(write_at(second));
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1700000003000000.bin", "2023/1114/node1/1700000004000000.bin",
                   "2023/1114/node1/1700000005000000.bin"}));
  EXPECT_EQ(writer_->total_size, 300u);
}

TEST_F(LimitedDataWriter, FilesThatWereThereBeforeStay) {
  const std::string before = test::sample_file({.block_size = 100}, {"x"});
  temp_.write_file("2023/1114/node1/1700000001000000.bin", before);
  temp_.write_file("2023/1114/node1/1500000000000000.bin", before);
  for (std::uint64_t second = 1; second <= 5; ++second)
    ASSERT_TRUE(write_at(second));
  const Texts files = data_files();
  EXPECT_EQ(files.at(0), "2023/1114/node1/1500000000000000.bin");
  EXPECT_EQ(files.at(1), "2023/1114/node1/1700000001000000.bin");
  EXPECT_EQ(files.back(), "2023/1114/node1/1700000005000000.bin");
  EXPECT_EQ(read_file(path_of("1500000000000000")), before);
}

TEST_F(LimitedDataWriter, BytesAppendedToAFileThatWasThereBeforeAreNotCounted) {
  {
    const DataWriterPtr earlier(data_writer_create({}));
    earlier->root = temp_.path();
    ASSERT_TRUE(data_writer_write_page(*earlier,
                                       *test::make_page({.room = 100, .first_timestamp = kStart + 1000000})));
  }
  for (std::uint64_t second = 1; second <= 4; ++second)
    ASSERT_TRUE(write_at(second));
  EXPECT_EQ(fs::file_size(path_of("1700000001000000")), 256u + 200u);
  EXPECT_EQ(data_files(),
            (Texts{"2023/1114/node1/1700000001000000.bin", "2023/1114/node1/1700000002000000.bin",
                   "2023/1114/node1/1700000003000000.bin", "2023/1114/node1/1700000004000000.bin"}));
  EXPECT_EQ(writer_->total_size, 300u);
}

TEST_F(LimitedDataWriter, BytesAppendedToAFileWithTheNumberOfAnEarlierOneAreNotCounted) {
  writer_->file_size_limit = 398;
  ASSERT_TRUE(write_at(1));
  EXPECT_EQ(writer_->total_size, 100u);
  ++writer_->written_files.front().identity.born;
  ++writer_->written_files.front().identity.changed;
  ASSERT_TRUE(write_at(1));
  EXPECT_EQ(fs::file_size(path_of("1700000001000000")), 456u);
  EXPECT_EQ(writer_->total_size, 100u);
}

TEST_F(LimitedDataWriter, VanishedFileIsReportedAndCountedOff) {
  ASSERT_TRUE(write_at(1));
  ASSERT_TRUE(write_at(2));
  fs::remove(path_of("1700000001000000"));
  ASSERT_TRUE(write_at(3));
  LogCapture log;
  ASSERT_TRUE(write_at(4));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_writer] File doesn't exist: " + path_of("1700000001000000")}));
  EXPECT_EQ(writer_->total_size, 300u);
}

// The total is a public member.
TEST_F(LimitedDataWriter, TotalThatIsNotThatOfTheFilesEndsWithTheLastOne) {
  ASSERT_TRUE(write_at(1));
  writer_->total_size = 1000;
  data_writer_enforce_data_size_limit(*writer_);
  EXPECT_FALSE(fs::exists(path_of("1700000001000000")));
  EXPECT_TRUE(writer_->written_files.empty());
  EXPECT_EQ(writer_->total_size, 900u);
}

TEST_F(LimitedDataWriter, FileThatTookTheOldOnesPlaceIsNotRemoved) {
  ASSERT_TRUE(write_at(1));
  ASSERT_TRUE(write_at(2));
  temp_.write_file("other", "other");
  fs::rename(temp_.path() / "other", path_of("1700000001000000"));
  ASSERT_TRUE(write_at(3));
  LogCapture log;
  ASSERT_TRUE(write_at(4));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_writer] File doesn't exist: " + path_of("1700000001000000")}));
  EXPECT_EQ(read_file(path_of("1700000001000000")), "other");
}

TEST_F(LimitedDataWriter, FolderThatBecameALinkIsNotRemovedFrom) {
  ASSERT_TRUE(write_at(1));
  ASSERT_TRUE(write_at(2));
  ASSERT_TRUE(write_at(3));
  const TempDir elsewhere;
  fs::rename(folder(), elsewhere.path() / "node1");
  fs::create_directory_symlink(elsewhere.path() / "node1", folder());
  LogCapture log;
  EXPECT_FALSE(write_at(4));
  writer_->data_size_limit = 200;
  data_writer_enforce_data_size_limit(*writer_);
  EXPECT_TRUE(log.has(QVX_LOG_ERROR, "[data_writer] File doesn't exist: " + path_of("1700000001000000")));
  EXPECT_TRUE(fs::exists(elsewhere.path() / "node1/1700000001000000.bin"));
}

TEST_F(LimitedDataWriter, FileThatCannotBeRemovedIsReported) {
  ASSERT_TRUE(write_at(1));
  qvx_data_writer::WrittenFile& entry = writer_->written_files.front();
  // A folder cannot be unlinked, not even by root.
  fs::create_directories(temp_.path() / "folder");
  entry.path = temp_.file("folder");
  entry.below = {"folder"};
  const FileDescriptor root(open(temp_.path().c_str(), O_PATH | O_DIRECTORY));
  ASSERT_EQ(look_at(root.get(), "folder", entry.identity), EntryKind::file);
  writer_->data_size_limit = 50;
  LogCapture log;
  data_writer_enforce_data_size_limit(*writer_);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_writer] Failed to remove file: " + temp_.file("folder")}));
  EXPECT_EQ(writer_->total_size, 0u);
  EXPECT_TRUE(writer_->written_files.empty());
}

TEST_F(LimitedDataWriter, OpenFileThatIsRemovedIsWrittenNoMore) {
  ASSERT_TRUE(write_at(1, "slow"));
  for (std::uint64_t second = 2; second <= 4; ++second)
    ASSERT_TRUE(write_at(second));
  EXPECT_FALSE(fs::exists(temp_.path() / "2023/1114/slow/1700000001000000.bin"));
  LogCapture log;
  ASSERT_TRUE(write_at(5, "slow"));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), Texts{});
  EXPECT_TRUE(fs::exists(temp_.path() / "2023/1114/slow/1700000005000000.bin"));
}

// -- Names that cannot be trusted

// Whatever source id and tag hold, nothing is created or changed outside the root.
TEST_F(DataWriterLimits, NoNameLeavesTheRoot) {
  const std::vector<std::pair<std::string, std::string>> names = {
      {"..", ""},
      {"../..", ""},
      {"../../..", ""},
      {"../../../outside", ""},
      {"../../../../../../../../../../tmp/outside", ""},
      {"/etc/outside", ""},
      {"a/../../../../outside", ""},
      {"node1", "../../../../x"},
      {"node1", "/../../../../x"},
      {".._/.._/.._/outside", ""},
      {"._./._./._./outside", ""},
      {"_/_/_/outside", ""},
      {"{{tag}}/outside", "../../../.."},
      {"{{id}}/../../../../outside", ""},
      {"{{{{id}}}}{{", "}}{{"},
      {"%", "%"},
      {"%D/%D/%D", "%n%t"},
      {"%%/%c/%x/%X/%r/%p", "%E%O%Q%q"},
      {"%ZP%ZP%Z%z%s%f%F%T%R", "%_%-%+%#"},
      {"{{hash/../../../../outside}}", ""},
      {"{{hash10", "../../../../x"},
      {"line\nbreak\rand\ttab", "\n"},
      {"\x1b[31mred\x1b[0m\x07\x08", "\x7f"},
      {"\xff\xfe\x80", "\xc3"},
      {std::string(64, 'x'), std::string(16, 'y')},
      {std::string(64, '/'), std::string(16, '/')},
      {std::string(64, '.'), std::string(16, '.')},
      {std::string(63, '%') + "c", "%c%c%c%c%c%c%c%c"},
      {"%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c%c", ""},
      {"", ""},
      {" ", " "},
      {".", "."},
      {"-rf", "-"},
      {"$(touch outside)`touch outside`;|&", "*?[]"},
  };
  ASSERT_GE(names.size(), 20u);
  const TempDir outer;
  writer_->root = outer.file("a/b/root");
  fs::create_directories(writer_->root);
  outer.write_file("a/b/beside", "untouched");
  LogCapture log;
  for (const auto& [id, tag] : names) {
    log.clear();
    const bool saved = write({.source_id = id, .source_tag = tag});
    const bool complained = !log.texts(QVX_LOG_ERROR).empty();
    EXPECT_TRUE(saved || complained) << id << " " << tag;
  }
  writer_.reset();
  Texts outside;
  for (const auto& entry : fs::recursive_directory_iterator(outer.path())) {
    const std::string relative = fs::relative(entry.path(), outer.path());
    if (!relative.starts_with("a/b/root/")) outside.push_back(relative);
  }
  std::sort(outside.begin(), outside.end());
  EXPECT_EQ(outside, (Texts{"a", "a/b", "a/b/beside", "a/b/root"}));
  EXPECT_EQ(read_file(outer.path() / "a/b/beside"), "untouched");
  EXPECT_FALSE(fs::exists("/etc/outside"));
  EXPECT_FALSE(fs::exists("/tmp/outside"));
  EXPECT_FALSE(fs::exists("outside"));
}

}  // namespace
}  // namespace qvx
