#include "qvx/data/write/data_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/data/write/data_file_fixture.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::kStart;
using test::LogCapture;
using test::read_file;
using Texts = std::vector<std::string>;

constexpr std::uint64_t kMinute = 60000000;

class DataFile : public test::DataFileTest {};

// -- Whether a new file is due

TEST_F(DataFile, FirstDataNeedsANewFile) {
  EXPECT_TRUE(data_file_need_new_file(file_, kStart));
}

TEST_F(DataFile, OpenFileTakesMoreData) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_FALSE(data_file_need_new_file(file_, kStart));
  EXPECT_FALSE(data_file_need_new_file(file_, kStart + 30 * kMinute - 1));
}

TEST_F(DataFile, NewFileIsDueWhenTheTimeLimitIsReached) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_TRUE(data_file_need_new_file(file_, kStart + 30 * kMinute));
}

TEST_F(DataFile, NewFileIsDueWhenTheSizeLimitIsReached) {
  file_.file_size_limit = 256 + 32;
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  EXPECT_FALSE(data_file_need_new_file(file_, kStart));
  append("0123456789abcdef");
  EXPECT_TRUE(data_file_need_new_file(file_, kStart));
}

TEST_F(DataFile, DataBeforeTheFirstTimestampNeedsANewFileAndWarns) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  LogCapture log;
  EXPECT_TRUE(data_file_need_new_file(file_, kStart - 1));
  EXPECT_EQ(log.texts(QVX_LOG_WARNING), (Texts{"first_timestamp 1700000000000000is greater than current "
                                               "timestamp: 1699999999999999"}));
}

TEST_F(DataFile, WithoutPathANewFileIsDue) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  data_file_close(file_);
  EXPECT_TRUE(data_file_need_new_file(file_, kStart));
}

TEST_F(DataFile, DefaultLimitsAre128MebibytesAnd30Minutes) {
  const qvx_data_file file;
  EXPECT_EQ(file.file_size_limit, 134217728u);
  EXPECT_EQ(file.file_time_limit, 1800000000u);
  EXPECT_EQ(file.block_size, 65536u);
  EXPECT_EQ(file.root, ".");
  EXPECT_EQ(file.path_template, "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin");
}

// -- Paths

TEST_F(DataFile, ExpandedPathStandsUnderTheRoot) {
  file_.root = "root/";
  file_.first_timestamp = kStart;
  file_.id = "7";
  EXPECT_EQ(data_file_expand_path(file_), "root/2023/1114/node1/7.bin");
  file_.root = ".";
  file_.source_tag = "t";
  file_.path_template = "{{node}}/{{source}}/{{tag}}{{id}}{{port}}";
  file_.port = 5;
  EXPECT_EQ(data_file_expand_path(file_), "./host7/node1/t_75");
  file_.root = "";
  EXPECT_EQ(data_file_expand_path(file_), "./host7/node1/t_75");
}

TEST_F(DataFile, PathOfATimeBeyondTheCalendarIsNone) {
  file_.first_timestamp = ~std::uint64_t{0};
  EXPECT_EQ(data_file_expand_path(file_), std::nullopt);
}

// -- Creating

TEST_F(DataFile, NewFileIsItsHeader) {
  file_.source_tag = "tag";
  file_.counters_schema_id = test::id_of_byte(0xC1);
  file_.schemas.ids[0] = test::id_of_byte(0xE0);
  file_.schemas.ids[6] = test::id_of_byte(0xE6);
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart + 5));
  test::FileHeader expected;
  expected.source_id = "node1";
  expected.first_timestamp = kStart;
  expected.last_timestamp = 0;
  expected.block_size = 16;
  expected.counters_schema_id = test::id_of_byte(0xC1);
  const qvx_schema_id none;
  expected.event_schema_ids = {test::id_of_byte(0xE0), none, none, none, none, none, test::id_of_byte(0xE6)};
  EXPECT_EQ(read_file(path_of("tag_1700000000000000")), test::file_header(expected));
  EXPECT_EQ(file_.file_size, 256u);
  EXPECT_EQ(file_.id, "1700000000000000");
  EXPECT_TRUE(file_.newly_created);
}

TEST_F(DataFile, HeaderTextsStayTerminated) {
  file_.source_id = std::string(64, 's');
  file_.source_tag = std::string(16, 't');
  file_.path_template = "a.bin";
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  const qvx_data_file_header header = header_of(temp_.file("a.bin"));
  EXPECT_EQ(std::string(header.source_id.data(), 64), std::string(63, 's') + '\0');
  EXPECT_EQ(std::string(header.source_tag.data(), 16), std::string(15, 't') + '\0');
}

TEST_F(DataFile, FirstTimestamp0LeavesAnEmptyIdAndTheConversions) {
  ASSERT_TRUE(data_file_open_for(file_, 0, 5));
  EXPECT_TRUE(fs::exists(temp_.path() / "%Y/%m%d/node1/.bin"));
}

TEST_F(DataFile, SecondFileIsStartedAndTheFirstOnesHeaderIsCompleted) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart + 5));
  append("0123456789abcdef");
  ASSERT_TRUE(data_file_open_for(file_, kStart + 30 * kMinute, kStart + 31 * kMinute));
  EXPECT_EQ(header_of(path_).file_size, 272u);
  EXPECT_EQ(header_of(path_).last_timestamp, kStart + 5);
  EXPECT_EQ(file_.path, path_of("1700001800000000"));
  EXPECT_EQ(header_of(file_.path).file_size, 256u);
}

TEST_F(DataFile, FolderThatCannotBeMadeIsReportedOnceUntilAFileOpens) {
  temp_.write_file("2023", "in the way");
  LogCapture log;
  const std::string message = "[data_file] Failed to create data file " + path_ +
                              ": Inaccessible data path " + temp_.file("2023/1114/node1");
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
    EXPECT_EQ(file_.path, "");
    EXPECT_EQ(append("0123456789abcdef"), 0u);
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{message}));
  fs::remove(temp_.path() / "2023");
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(append("0123456789abcdef"), 16u);
  fs::remove_all(temp_.path() / "2023");
  temp_.write_file("2023", "in the way");
  log.clear();
  EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(
      log.texts(QVX_LOG_ERROR),
      (Texts{"[data_file] Failed opening data file " + path_ + ": No such file or directory", message}));
}

TEST_F(DataFile, NameThatIsTooLongIsReported) {
  file_.path_template = std::string(252, 'x') + ".bin";
  LogCapture log;
  EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  const std::string path = temp_.file(file_.path_template);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to open file " + path + " for writing: File name too long",
                   "[data_file] Failed to create empty data file " + path + ": File name too long"}));
}

// Takes root's privileges away for a scope; others keep what they have.
class Unprivileged {
 public:
  Unprivileged() : before_(geteuid()) {
    constexpr uid_t kNobody = 65534;
    if (before_ == 0) {
      EXPECT_EQ(seteuid(kNobody), 0);
    }
  }
  ~Unprivileged() {
    if (before_ == 0) {
      EXPECT_EQ(seteuid(before_), 0);
    }
  }

 private:
  uid_t before_;
};

TEST_F(DataFile, RootThatCannotBeWrittenIsInaccessible) {
  fs::permissions(temp_.path(), fs::perms(0555));
  LogCapture log;
  {
    const Unprivileged nobody;
    EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  }
  fs::permissions(temp_.path(), fs::perms(0755));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{"[data_file] Failed to create data file " + path_ +
                                             ": Inaccessible data path " + temp_.file("2023/1114/node1")}));
}

TEST_F(DataFile, FolderThatCannotBeWrittenTakesNoNewFile) {
  const fs::path folder = temp_.path() / "2023/1114/node1";
  fs::create_directories(folder);
  fs::permissions(temp_.path(), fs::perms(0755));
  fs::permissions(folder, fs::perms(0555));
  LogCapture log;
  {
    const Unprivileged nobody;
    EXPECT_FALSE(data_file_open_for(file_, kStart, kStart));
  }
  fs::permissions(folder, fs::perms(0755));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to open file " + path_ + " for writing: Permission denied",
                   "[data_file] Failed to create empty data file " + path_ + ": Permission denied"}));
}

TEST_F(DataFile, FileThatCannotBeReadOrWrittenIsReported) {
  temp_.write_file("2023/1114/node1/1700000000000000.bin", "secret");
  fs::permissions(temp_.path(), fs::perms(0755));
  fs::permissions(path_, fs::perms(0));
  LogCapture log;
  {
    const Unprivileged nobody;
    EXPECT_TRUE(data_file_open_for(file_, kStart, kStart));
    EXPECT_EQ(append("0123456789abcdef"), 0u);
    EXPECT_EQ(append("0123456789abcdef"), 0u);
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to open " + path_ + "\n",
                   "[data_file] Failed to open data file " + path_ + " for writing: Permission denied"}));
}

TEST_F(DataFile, TimeBeyondTheCalendarIsReported) {
  LogCapture log;
  EXPECT_FALSE(data_file_open_for(file_, ~std::uint64_t{0}, 0));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to create data file " + temp_.file("%Y/%m%d/node1/{{id}}.bin") +
                   ": time is out of range"}));
}

// -- Appending

TEST_F(DataFile, BlocksStandBehindTheHeader) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(append("0123456789abcdef"), 16u);
  EXPECT_EQ(append("ABCDEFGHIJ", 6), 16u);
  EXPECT_EQ(file_.file_size, 288u);
  EXPECT_EQ(read_file(path_).substr(256), std::string("0123456789abcdefABCDEFGHIJ") + std::string(6, '\0'));
}

TEST_F(DataFile, ManyZerosBecomeAHole) {
  file_.block_size = 64 << 20;
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(append("0123", (64 << 20) - 4), std::uint64_t{64} << 20);
  EXPECT_EQ(append("4567", (64 << 20) - 4), std::uint64_t{64} << 20);
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 256 + (128 << 20));
  EXPECT_LT(status.st_blocks, 1000);
  std::ifstream in(path_, std::ios::binary);
  in.seekg(256 + (64 << 20) - 2);
  std::string found(8, 'x');
  in.read(found.data(), 8);
  EXPECT_EQ(found, std::string("\0\0004567\0\0", 8));
}

TEST_F(DataFile, WithoutOpenFileNothingIsAppended) {
  LogCapture log;
  EXPECT_EQ(append("0123456789abcdef"), 0u);
  EXPECT_EQ(log.messages(), (std::vector<test::LogMessage>{}));
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(DataFile, ExistingFileIsAppendedTo) {
  const std::string before = test::sample_file({.first_timestamp = 5, .block_size = 16}, {"old block"});
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  LogCapture log;
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_TRUE(log.has(QVX_LOG_DEBUG, "[data_file] Append data to an existing file " + path_));
  EXPECT_FALSE(file_.newly_created);
  EXPECT_EQ(append("0123456789abcdef"), 16u);
  EXPECT_EQ(read_file(path_), before + "0123456789abcdef");
}

TEST_F(DataFile, FileThatWasMadeIsAnExistingOneOnceItIsClosed) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_TRUE(file_.newly_created);
  data_file_close(file_);
  EXPECT_FALSE(file_.newly_created);
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_FALSE(file_.newly_created);
}

TEST_F(DataFile, RestOfAnInterruptedAppendIsRemoved) {
  const std::string whole = test::sample_file({.block_size = 16}, {"old block"});
  temp_.write_file("2023/1114/node1/1700000000000000.bin", whole + "hal");
  LogCapture log;
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(log.texts(QVX_LOG_WARNING),
            (Texts{"[data_file] Removed 3 bytes of an interrupted append from " + path_}));
  EXPECT_EQ(append("0123456789abcdef"), 16u);
  EXPECT_EQ(read_file(path_), whole + "0123456789abcdef");
}

// Data behind them would be read as their end.
TEST_F(DataFile, ShortLastBlockThatAReaderReadsStaysAndDataGoElsewhere) {
  test::FileHeader header;
  header.block_size = 16;
  const std::string second = path_of("1700000000000000_2");
  for (const std::string rest : {"QVXE", "QVXD56", "QVXS56", "QVXP5678", "CNTX5678"}) {
    fs::remove_all(temp_.path() / "2023");
    const std::string before = test::file_header(header) + rest;
    temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
    qvx_data_file file;
    file.root = temp_.path();
    file.source_id = "node1";
    file.block_size = 16;
    ASSERT_TRUE(data_file_open_for(file, kStart, kStart));
    EXPECT_EQ(data_file_append(file, as_bytes("0123456789abcdef")), 16u);
    EXPECT_EQ(read_file(path_), before) << rest;
    EXPECT_EQ(read_file(second).substr(256), "0123456789abcdef") << rest;
  }
}

TEST_F(DataFile, BlockThatEndsEveryReadingStaysAndDataFollowIt) {
  for (const std::string rest : {"half", "QVXB", "QVXZ567"}) {
    const std::string before = test::sample_file({.block_size = 16}, {"old block"}) + rest;
    temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
    qvx_data_file file;
    file.root = temp_.path();
    file.source_id = "node1";
    file.block_size = 16;
    ASSERT_TRUE(data_file_open_for(file, kStart, kStart));
    EXPECT_EQ(data_file_append(file, as_bytes("0123456789abcdef")), 16u);
    EXPECT_EQ(read_file(path_), before + "0123456789abcdef");
  }
}

TEST_F(DataFile, BytesThatNoReaderReadsAreRemoved) {
  test::FileHeader header;
  header.block_size = 16;
  for (const std::string rest : {"Q", "QV", "QVX"}) {
    temp_.write_file("2023/1114/node1/1700000000000000.bin", test::file_header(header) + rest);
    qvx_data_file file;
    file.root = temp_.path();
    file.source_id = "node1";
    file.block_size = 16;
    ASSERT_TRUE(data_file_open_for(file, kStart, kStart));
    EXPECT_EQ(data_file_append(file, as_bytes("0123456789abcdef")), 16u);
    EXPECT_EQ(read_file(path_).substr(256), "0123456789abcdef") << rest;
  }
}

// -- Names that are taken

TEST_F(DataFile, FolderInThePlaceOfTheFileCannotBeAppendedTo) {
  fs::create_directories(path_);
  LogCapture log;
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_TRUE(data_file_open_for(file_, kStart, kStart));
    EXPECT_EQ(append("0123456789abcdef"), 0u);
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR).at(0),
            "[data_file] Failed to open data file " + path_ + " for writing: Is a directory");
  EXPECT_TRUE(fs::is_empty(path_));
}

TEST_F(DataFile, PipeInThePlaceOfTheFileDoesNotHang) {
  fs::create_directories(temp_.path() / "2023/1114/node1");
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  LogCapture log;
  EXPECT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(append("0123456789abcdef"), 0u);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{"[data_file] Failed to open data file " + path_ +
                                             " for writing: No such device or address"}));
}

TEST_F(DataFile, NothingIsWrittenIntoAPipeThatSomebodyReads) {
  fs::create_directories(temp_.path() / "2023/1114/node1");
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  const FileDescriptor reader(open(path_.c_str(), O_RDONLY | O_NONBLOCK));
  ASSERT_TRUE(reader);
  LogCapture log;
  EXPECT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(append("0123456789abcdef"), 0u);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed to open data file " + path_ + " for writing: Invalid argument"}));
  char byte = 0;
  EXPECT_EQ(read(reader.get(), &byte, 1), 0);
}

// -- The header

TEST_F(DataFile, HeaderUpdateWritesSizeAndLastTimestamp) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart + 7));
  append("0123456789abcdef");
  LogCapture log;
  EXPECT_TRUE(data_file_update_header(file_));
  EXPECT_TRUE(
      log.has(QVX_LOG_DEBUG, "[data_file] updated header " + path_ + " with last_ts :1700000000000007"));
  test::FileHeader expected;
  expected.source_id = "node1";
  expected.source_tag = "";
  expected.file_size = 272;
  expected.first_timestamp = kStart;
  expected.last_timestamp = kStart + 7;
  expected.block_size = 16;
  EXPECT_EQ(read_file(path_), test::file_header(expected) + "0123456789abcdef");
}

TEST_F(DataFile, FirstTimestampIsWrittenOnlyWhereThereIsNone) {
  for (const std::uint64_t first : {std::uint64_t{0}, std::uint64_t{5}}) {
    temp_.write_file("2023/1114/node1/1700000000000000.bin",
                     test::sample_file({.first_timestamp = first, .block_size = 16}, {"old block"}));
    qvx_data_file file;
    file.root = temp_.path();
    file.source_id = "node1";
    file.block_size = 16;
    ASSERT_TRUE(data_file_open_for(file, kStart, kStart));
    EXPECT_TRUE(data_file_update_header(file));
    EXPECT_EQ(header_of(path_).first_timestamp, first == 0 ? kStart : 5);
  }
}

TEST_F(DataFile, HeaderDamagedMeanwhileIsNotUpdatedAndTheDataIsStillAppended) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  append("0123456789abcdef");
  {
    std::fstream damage(path_, std::ios::in | std::ios::out | std::ios::binary);
    damage << "XXXX";
  }
  LogCapture log;
  EXPECT_FALSE(data_file_update_header(file_));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"Wrong data page magic number.",
                   "[data_file] Header of file " + path_ + " is invalid. Will not update."}));
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  EXPECT_EQ(append("ABCDEFGHIJKLMNOP"), 16u);
  EXPECT_EQ(read_file(path_).substr(256), "0123456789abcdefABCDEFGHIJKLMNOP");
  EXPECT_EQ(read_file(path_).substr(0, 4), "XXXX");
}

TEST_F(DataFile, FileCutShortMeanwhileHasNoHeaderToUpdate) {
  ASSERT_TRUE(data_file_open_for(file_, kStart, kStart));
  fs::resize_file(path_, 255);
  LogCapture log;
  EXPECT_FALSE(data_file_update_header(file_));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed reading header of data file " + path_ + ": Success"}));
}

TEST_F(DataFile, WithoutOpenFileNoHeaderIsUpdated) {
  LogCapture log;
  EXPECT_FALSE(data_file_update_header(file_));
  EXPECT_EQ(log.messages(), (std::vector<test::LogMessage>{}));
}

}  // namespace
}  // namespace qvx
