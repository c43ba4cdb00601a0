// A data writer that is short of something: descriptors, memory for its sources, room on the device.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "qvx/data/write/data_writer.h"
#include "qvx/support/log.h"
#include "tests/data/write/data_writer_fixture.h"
#include "tests/data/write/file_size_limit.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::FaultyCalls;
using test::kStart;
using test::LogCapture;
using test::read_file;
using Texts = std::vector<std::string>;

class DataWriterRoom : public test::DataWriterTest {};

// Limits the descriptors of the process to some more than it has open.
class FewDescriptors {
 public:
  explicit FewDescriptors(rlim_t free) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const int lowest = dup(0);
    close(lowest);
    const rlimit limit{static_cast<rlim_t>(lowest) + free, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

// Three are what one file takes: its folder, itself, and once more itself for its header.
TEST_F(DataWriterRoom, FewDescriptorsSaveEverySource) {
  for (const rlim_t free : {3, 4, 5, 10}) {
    fs::remove_all(temp_.path() / "2023");
    forget_sources();
    LogCapture log(QVX_LOG_ERROR);
    {
      const FewDescriptors few(free);
      for (int round = 0; round < 2; ++round) {
        for (int source = 0; source < 30; ++source)
          EXPECT_TRUE(write({.source_id = "s" + std::to_string(source)})) << free << " " << source;
      }
    }
    EXPECT_EQ(log.texts(QVX_LOG_ERROR), Texts{});
    EXPECT_EQ(data_files().size(), 30u);
    for (const std::string& file : data_files())
      EXPECT_EQ(fs::file_size(temp_.path() / file), 296u) << file;
  }
}

TEST_F(DataWriterRoom, WithoutAnyDescriptorThePageIsAFailure) {
  LogCapture log(QVX_LOG_ERROR);
  {
    const FewDescriptors none(0);
    EXPECT_FALSE(write({}));
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (Texts{"[data_file] Failed to create data file " + path_ +
                                             ": Inaccessible data path " + folder().string()}));
  EXPECT_TRUE(write({}));
}

std::size_t resident_bytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t all = 0;
  std::size_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(DataWriterRoom, SourcesBeyondNumberTakeNoMoreMemory) {
  writer_->path_template = "all.bin";
  const auto write_some = [&](int first, int end) {
    for (int source = first; source < end; ++source)
      ASSERT_TRUE(write({.source_id = "source number " + std::to_string(source) + std::string(40, 'x')}));
  };
  write_some(0, 2500);
  EXPECT_EQ(writer_->sources.size(), 2048u);
  EXPECT_EQ(writer_->sources_by_key.size(), 2048u);
  [[maybe_unused]] const std::size_t before = resident_bytes();
  write_some(2500, 12000);
#if !defined(__SANITIZE_ADDRESS__)  // which keeps what was freed
  EXPECT_LT(resident_bytes(), before + (std::size_t{1} << 20));
#endif
  EXPECT_EQ(fs::file_size(temp_.path() / "all.bin"), 256u + 12000 * 20);
}

TEST_F(DataWriterRoom, SourceThatIsMetAgainFindsItsFileByItsPath) {
  ASSERT_TRUE(write({}));
  for (std::size_t other = 0; other < kMaxSourcesKept; ++other)
    ASSERT_TRUE(write({.source_id = "s" + std::to_string(other)}));
  ASSERT_TRUE(write({}));
  EXPECT_EQ(fs::file_size(path_), 296u);
  EXPECT_EQ(header_of(path_).file_size, 296u);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder()), {}), 2) << "no second node information";
}

// -- What the system tells late

TEST_F(DataWriterRoom, LossThatOnlyClosingTellsIsAFailure) {
  ASSERT_TRUE(write({}));
  LogCapture log(QVX_LOG_ERROR);
  {
    const FaultyCalls fault(Call::close, EDQUOT, 0, 1);
    EXPECT_FALSE(data_writer_finish(*writer_));
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed appending data file " + path_ + ": Disk quota exceeded"}));
  EXPECT_TRUE(data_writer_finish(*writer_)) << "told once";
}

TEST_F(DataWriterRoom, HeaderLossThatOnlyClosingTellsIsAFailure) {
  ASSERT_TRUE(write({}));
  LogCapture log(QVX_LOG_ERROR);
  const FaultyCalls fault(Call::close, EIO, 0, 1);
  EXPECT_FALSE(write({}));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed writing data page header to file " + path_ + ": Input/output error"}));
}

TEST_F(DataWriterRoom, HeaderThatCannotBeCompletedAtTheEndIsAFailure) {
  ASSERT_TRUE(write({}));
  ASSERT_EQ(data_file_append(writer_->sources.front().file, as_bytes("QVXE0123456789abcdef"), 0), 20u);
  fs::remove(path_);
  EXPECT_FALSE(data_writer_finish(*writer_));
  EXPECT_TRUE(data_writer_finish(*writer_)) << "told once";
}

TEST_F(DataWriterRoom, InterruptedCloseIsNoLoss) {
  ASSERT_TRUE(write({}));
  const FaultyCalls fault(Call::close, EINTR);
  EXPECT_TRUE(data_writer_finish(*writer_));
}

TEST_F(DataWriterRoom, LossOfAnotherSourceIsToldWithThePageThatMadeRoom) {
  for (int source = 0; source < 64; ++source)
    ASSERT_TRUE(write({.source_id = "s" + std::to_string(source)}));
  LogCapture log(QVX_LOG_ERROR);
  const FaultyCalls fault(Call::close, ENOSPC, 0, 1);
  EXPECT_FALSE(write({.source_id = "s64"}));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR).size(), 1u);
}

// -- What else is a failure

TEST_F(DataWriterRoom, NodeInformationThatCannotBeWrittenIsAFailure) {
  fs::create_directories(folder() / "nodeinfo.json");
  fs::create_directories(folder() / "nodeinfo.1700000000000000.json");
  LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(write({}));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[nodeinfo_file] Failed to open file " +
                   (folder() / "nodeinfo.1700000000000000.json").string() + " for writing: Is a directory"}));
  EXPECT_EQ(fs::file_size(path_), 276u) << "the page itself is saved";
}

TEST_F(DataWriterRoom, InvalidHeaderOfAFileThatIsThereIsAFailure) {
  temp_.write_file("2023/1114/node1/1700000000000000.bin", "no header");
  LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(write({}));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed reading header of data file " + path_ + ": Success"}));
  EXPECT_EQ(read_file(path_), "no headerQVXE0123456789abcdef");
}

TEST_F(DataWriterRoom, DataAreAppendedToAFileWithAnInvalidHeaderAllTheSame) {
  const std::string before(300, 'x');
  temp_.write_file("2023/1114/node1/1700000000000000.bin", before);
  EXPECT_FALSE(write({}));
  EXPECT_EQ(read_file(path_), before + "QVXE0123456789abcdef");
  EXPECT_EQ(data_files(), (Texts{"2023/1114/node1/1700000000000000.bin"}));
}

TEST_F(DataWriterRoom, NewFileThatIsClosedBehindAPartOfABlockGetsNoNodeInformation) {
  LogCapture log(QVX_LOG_ERROR);
  {
    const test::FileSizeLimit limit(256 + 10);
    const FaultyCalls faults(Call::ftruncate, EIO);
    EXPECT_FALSE(write({}));
    EXPECT_TRUE(faults.any_failed());
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed appending data file " + path_ + ": File too large"}));
  EXPECT_EQ(read_file(path_).substr(256), "QVXE012345");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder()), {}), 1);
}

// A folder that becomes a link while its file is written does not let the node information outside.
TEST_F(DataWriterRoom, NodeInformationGoesIntoTheFolderOfItsFileWhateverStandsThereByNow) {
  const test::TempDir elsewhere;
  FileDescriptor folder_descriptor;
  fs::create_directories(folder());
  ASSERT_EQ(open_folder_below(temp_.path(), {"2023", "1114", "node1", "x"}, false, folder_descriptor),
            FolderFault::none);
  fs::rename(folder(), temp_.path() / "moved");
  fs::create_directory_symlink(elsewhere.path(), folder());
  qvx_nodeinfo_cache cache;
  EXPECT_TRUE(nodeinfo_write_in(cache, folder_descriptor.get(), folder(), *test::make_page({})));
  EXPECT_TRUE(fs::exists(temp_.path() / "moved/nodeinfo.json"));
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
}

}  // namespace
}  // namespace qvx
