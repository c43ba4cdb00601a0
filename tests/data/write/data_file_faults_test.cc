// What meets a data file while it is written: files that vanish, full disks, names that cannot be trusted.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/write/append_blocks.h"
#include "qvx/data/write/data_file.h"
#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/data/write/data_file_fixture.h"
#include "tests/data/write/file_size_limit.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_read.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::FileSizeLimit;
using test::kStart;
using test::LogCapture;
using test::read_file;
using test::TempDir;
using Texts = std::vector<std::string>;

class DataFileFaults : public test::DataFileTest {};

// -- Files that vanish

TEST_F(DataFileFaults, HeaderOfAVanishedFileCannotBeUpdated) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  fs::remove(path_);
  LogCapture log;
  EXPECT_FALSE(data_file_update_header(file_));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed opening data file " + path_ + ": No such file or directory"}));
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(DataFileFaults, HeaderOfAReleasedFileWhoseFolderVanishedCannotBeUpdated) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  data_file_release(file_);
  fs::remove_all(temp_.path() / "2023");
  LogCapture log;
  EXPECT_FALSE(data_file_update_header(file_));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed opening data file " + path_ + ": No such file or directory"}));
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(DataFileFaults, VanishedFileIsLostWhenItIsClosed) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  fs::remove(path_);
  EXPECT_FALSE(file_.lost);
  data_file_close(file_);
  EXPECT_TRUE(file_.lost);
}

TEST_F(DataFileFaults, VanishedFileIsReplacedByANewOneForTheNextData) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  fs::remove_all(temp_.path() / "2023");
  LogCapture log;
  ASSERT_TRUE(data_file_open_for(file_, kStart + 1, kStart + 1));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed opening data file " + path_ + ": No such file or directory"}));
  EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 16u);
  EXPECT_EQ(file_.path, path_of("1700000000000001"));
  EXPECT_EQ(read_file(file_.path).substr(256), "ABCDEFGHIJKLMNOP");
}

TEST_F(DataFileFaults, FileThatTookTheOldOnesPlaceIsLeftAlone) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  const std::string other = test::sample_file({}, {"other"});
  temp_.write_file("other", other);
  fs::rename(temp_.path() / "other", path_);
  LogCapture log;
  EXPECT_FALSE(data_file_update_header(file_));
  ASSERT_TRUE(data_file_open_for(file_, kStart + 1, kStart + 1));
  const std::string message = "[data_file] Failed opening data file " + path_ + ": Stale file handle";
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{message, message}));
  EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 16u);
  EXPECT_EQ(read_file(path_), other);
  EXPECT_EQ(read_file(path_of("1700000000000001")).substr(256), "ABCDEFGHIJKLMNOP");
}

TEST_F(DataFileFaults, ReleasedFileIsOpenedAgain) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  data_file_release(file_);
  EXPECT_FALSE(file_.handle);
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 16u);
  EXPECT_TRUE(data_file_update_header(file_));
  EXPECT_EQ(read_file(path_).substr(256), "0123456789abcdefABCDEFGHIJKLMNOP");
  EXPECT_EQ(header_of(path_).file_size, 288u);
}

TEST_F(DataFileFaults, HeaderThatCannotBeReadIsNotUpdated) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  LogCapture log;
  {
    const test::FakeRead faults(std::vector<test::ReadStep>{{.error = EIO}});
    EXPECT_FALSE(data_file_update_header(file_));
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed reading header of data file " + path_ + ": Input/output error"}));
  EXPECT_EQ(header_of(path_).file_size, 256u);
  const test::FakeRead pieces({{.error = EINTR}, {.most = 100}, {.error = EINTR}});
  EXPECT_TRUE(data_file_update_header(file_));
  EXPECT_EQ(pieces.steps_left(), 0u);
  EXPECT_EQ(header_of(path_).file_size, 272u);
}

// -- Full disks

TEST_F(DataFileFaults, BlockThatDoesNotFitLeavesNothingOfItself) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  LogCapture log;
  {
    const FileSizeLimit limit(256 + 16 + 10);
    EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 0u);
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed appending data file " + path_ + ": File too large"}));
  EXPECT_EQ(read_file(path_).substr(256), "0123456789abcdef");
  EXPECT_EQ(file_.file_size, 272u);
  EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 16u);
  EXPECT_EQ(read_file(path_).substr(256), "0123456789abcdefABCDEFGHIJKLMNOP");
}

// The next data would otherwise stand behind a part of a block, and be read as something else.
TEST_F(DataFileFaults, FileWhosePartOfABlockCannotBeCutOffIsWrittenNoMore) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  {
    const FileSizeLimit limit(256 + 16 + 10);
    const test::FaultyCalls faults(test::Call::ftruncate, EIO);
    EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 0u);
    EXPECT_TRUE(faults.any_failed());
  }
  EXPECT_EQ(read_file(path_).substr(256), "0123456789abcdefABCDEFGHIJ");
  EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 0u);
  EXPECT_EQ(read_file(path_).size(), 256u + 26);
  // Its header tells the size that it has, so that the part is not taken for a block.
  EXPECT_EQ(header_of(path_).file_size, 282u);
}

TEST_F(DataFileFaults, OfAPageThatDoesNotFitTheWholeBlocksStay) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  LogCapture log;
  {
    const FileSizeLimit limit(256 + 16 + 10);
    EXPECT_EQ(append("0123456789abcdefABCDEFGHIJKLMNOP"), 16u);
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR).size(), 1u);
  EXPECT_EQ(read_file(path_).substr(256), "0123456789abcdef");
  EXPECT_TRUE(data_file_update_header(file_));
  EXPECT_EQ(header_of(path_).file_size, 272u);
}

TEST_F(DataFileFaults, OfDataWithoutBlocksAllThatFitsStays) {
  file_.block_size = 0;
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  {
    const FileSizeLimit limit(256 + 10);
    EXPECT_EQ(append("0123456789abcdef"), 10u);
  }
  EXPECT_EQ(read_file(path_).substr(256), "0123456789");
}

TEST_F(DataFileFaults, HoleThatDoesNotFitLeavesNothingOfItself) {
  file_.block_size = 1 << 20;
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  {
    const FileSizeLimit limit(1 << 20);
    EXPECT_EQ(append("0123", (1 << 20) - 4), 0u);
  }
  EXPECT_EQ(fs::file_size(path_), 256u);
}

TEST_F(DataFileFaults, WithoutItsBlockThereIsNoHoleEither) {
  file_.block_size = 1 << 20;
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  const test::FaultyCalls faults(test::Call::writev, ENOSPC);
  EXPECT_EQ(append("0123", (1 << 20) - 4), 0u);
  EXPECT_EQ(faults.calls(test::Call::ftruncate), 0u);
  EXPECT_EQ(fs::file_size(path_), 256u);
}

// It would cut off what somebody else appended.
TEST_F(DataFileFaults, WithoutTheLockAPartOfABlockIsNotCutOff) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  const FileSizeLimit limit(256 + 10);
  const test::FaultyCalls faults(test::Call::flock, ENOLCK);
  EXPECT_EQ(append("0123456789abcdef"), 0u);
  EXPECT_EQ(faults.calls(test::Call::ftruncate), 0u);
  EXPECT_EQ(read_file(path_).substr(256), "0123456789");
}

TEST(AppendBlocks, ToADescriptorThatIsNotOpenNothingIsAppended) {
  const Appended result = append_blocks(-1, as_bytes("0123456789abcdef"), 0, 16);
  EXPECT_EQ(result.written, 0u);
  EXPECT_EQ(result.error, EBADF);
  EXPECT_FALSE(result.ragged);
}

// As other data that no reader would read behind it.
TEST_F(DataFileFaults, RestOfAnInterruptedAppendThatCannotBeCutOffStaysAndDataGoElsewhere) {
  const std::string before = test::sample_file({.block_size = 16}, {"old block"}) + "hal";
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  {
    const test::FaultyCalls faults(test::Call::ftruncate, EIO);
    ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
    EXPECT_TRUE(faults.any_failed());
  }
  EXPECT_EQ(append("0123456789abcdef"), 16u);
  EXPECT_EQ(read_file(path_), before);
  EXPECT_EQ(read_file(path_of("1700000000000000_2")).substr(256), "0123456789abcdef");
}

TEST_F(DataFileFaults, RestOfAnInterruptedAppendInAFileThatCannotBeWrittenStaysAndDataGoElsewhere) {
  const std::string before = test::sample_file({.block_size = 16}, {"old block"}) + "hal";
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  LogCapture log;
  {
    // Four folders and the file itself, to look at it, are opened first.
    const test::FaultyCalls faults(test::Call::open, EACCES, 5, 1);
    ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
    EXPECT_TRUE(faults.any_failed());
  }
  EXPECT_EQ(log.texts(QVX_LOG_WARNING), Texts{});
  EXPECT_EQ(append("0123456789abcdef"), 16u);
  EXPECT_EQ(read_file(path_), before);
  EXPECT_EQ(read_file(path_of("1700000000000000_2")).substr(256), "0123456789abcdef");
}

TEST_F(DataFileFaults, HeaderThatDoesNotFitLeavesNoFile) {
  LogCapture log;
  {
    const FileSizeLimit limit(100);
    EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
    EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));  // which says no more
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed writing header of the data file " + path_ + ": File too large",
                   "[data_file] Failed to create empty data file " + path_ + ": File too large"}));
  EXPECT_TRUE(fs::is_empty(temp_.path() / "2023/1114/node1"));
  EXPECT_TRUE(data_file_open_for(file_, kStart, kStart));
}

// -- Short memory

TEST_F(DataFileFaults, PathIsWholeOrMissing) {
  {
    const test::FailingAllocations failures(0);
    EXPECT_EQ(data_file_expand_path(file_), std::nullopt);
  }
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(data_file_expand_path(file_), path_);
}

TEST_F(DataFileFaults, HeaderIsUpdatedOrThatFails) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  bool any_failed = true;
  for (std::size_t successes = 0; any_failed && successes < 1000; ++successes) {
    bool updated = false;
    {
      const test::FailingAllocations failures(successes, test::FailingAllocations::Failing::once);
      updated = data_file_update_header(file_);
      any_failed = failures.any_failed();
    }
    EXPECT_TRUE(updated || any_failed);
    if (updated) {
      EXPECT_EQ(header_of(path_).file_size, 272u);
    }
  }
  EXPECT_FALSE(any_failed);
}

// -- Names that cannot be trusted

TEST_F(DataFileFaults, PathThatLeavesTheRootIsRefused) {
  file_.source_id = "../../../x";
  LogCapture log;
  EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{"[data_file] Failed to create data file " +
                                             temp_.file("2023/1114/../../../x/1700000000000000.bin") +
                                             ": path leaves the output folder"}));
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(DataFileFaults, PathThatStaysBelowTheRootIsResolved) {
  file_.source_id = "..";
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_TRUE(fs::exists(temp_.path() / "2023/1700000000000000.bin"));
  EXPECT_EQ(data_file_folder(file_), temp_.file("2023"));
}

TEST_F(DataFileFaults, LinkInThePlaceOfTheFileIsRefused) {
  const TempDir elsewhere;
  const std::string target = elsewhere.write_file("target", test::sample_file({}, {"other"}));
  const std::string before = read_file(target);
  fs::create_directories(temp_.path() / "2023/1114/node1");
  fs::create_symlink(target, path_);
  LogCapture log;
  EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to create data file " + path_ + ": path leaves the output folder"}));
  EXPECT_EQ(read_file(target), before);
}

TEST_F(DataFileFaults, DanglingLinkInThePlaceOfTheFileIsRefused) {
  const TempDir elsewhere;
  fs::create_directories(temp_.path() / "2023/1114/node1");
  fs::create_symlink(elsewhere.path() / "target", path_);
  LogCapture log;
  EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to open file " + path_ + " for writing: No such file or directory",
                   "[data_file] Failed to create empty data file " + path_ + ": No such file or directory"}));
  log.clear();
  EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), Texts{}) << "again";
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
}

TEST_F(DataFileFaults, LinkInThePlaceOfAFolderIsRefused) {
  const TempDir elsewhere;
  fs::create_directory_symlink(elsewhere.path(), temp_.path() / "2023");
  LogCapture log;
  EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to create data file " + path_ + ": path leaves the output folder"}));
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
}

// A link to another file took the place of the open one.
class LinkedDataFile : public DataFileFaults {
 protected:
  void SetUp() override {
    ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
    fs::remove(path_);
    fs::create_symlink(target_, path_);
  }
  void TearDown() override { EXPECT_EQ(read_file(target_), before_); }

  const TempDir elsewhere_;
  const std::string target_ = elsewhere_.write_file("target", test::sample_file({}, {"other"}));
  const std::string before_ = read_file(target_);
};

TEST_F(LinkedDataFile, IsNotWrittenThroughTheLink) {
  EXPECT_EQ(append("0123456789abcdef"), 16u) << "into the file that has no name any more";
  EXPECT_FALSE(data_file_update_header(file_)) << "which is told";
}

TEST_F(LinkedDataFile, IsLeftAloneByTheNextData) {
  LogCapture log;
  ASSERT_TRUE(data_file_open_for(file_, kStart + 1, kStart + 1));
  const std::string message = "[data_file] Failed opening data file " + path_ + ": Stale file handle";
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{message}));
  EXPECT_TRUE(file_.lost);
  EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 16u);
  EXPECT_EQ(read_file(path_of("1700000000000001")).substr(256), "ABCDEFGHIJKLMNOP");
}

}  // namespace
}  // namespace qvx
