// What the bin format does with pages that cannot be saved, on full disks, and when it is killed.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qvx/data/file_header.h"
#include "qvx/data/page_block.h"
#include "qvx/reader/bin_output.h"
#include "qvx/scan/type_cache.h"
#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/reader/bin_output_files.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::events;
using test::gzip;
using test::kStart;
using test::page_at;
using test::page_block;
using test::read_file;
using test::sample_file;
using Texts = std::vector<std::string>;

class BinOutputFaults : public test::BinOutputFiles {};

// -- Failures

TEST_F(BinOutputFaults, PageThatCannotBeSavedDoesNotStopTheOthersAndFailsItsFile) {
  temp_.write_file("output/2023/1114/blocked", "a file in the way");
  const std::string in =
      temp_.write_file("in.bin", sample_file(header(), {page_block(page_at(0, "a"), events(1, 3)) +
                                                            page_block(page_at(1, "blocked"), events(2, 3)) +
                                                            page_block(page_at(2, "b"), events(3, 3)),
                                                        page_block(page_at(3, "a"), events(4, 3))}));
  const std::string good =
      temp_.write_file("good.bin", sample_file(header(), {page_block(page_at(9, "c"), events(5, 3))}));
  run(OutputFormat::bin, {in, good});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(errors_, "Failed processing file " + in + ": Failed to process data file " + in + "\n");
  const std::string folder = output() / "2023/1114/blocked";
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), (Texts{"[data_file] Failed to create data file " + folder +
                                              "/1700000000000001.bin: Inaccessible data path " + folder}));
  EXPECT_EQ(records(written()).size(), 12u);
}

TEST_F(BinOutputFaults, LossThatOnlyTheEndTellsIsAFailure) {
  const std::string bytes = page_block(page_at(0, "a"), events(1, 3));
  PageBlock block;
  ASSERT_TRUE(page_block_read(as_bytes(bytes), block));
  TypeCache types(temp_.file("schema"));
  for (const int fault : {0, EDQUOT}) {
    const auto bin = BinOutput::create(output());
    ASSERT_NE(bin, nullptr);
    bin->set_header({}, types);
    EXPECT_TRUE(bin->process_page_block(block));
    log_.clear();
    const test::FaultyCalls faults(test::Call::close, fault, 0, fault != 0 ? 1 : 0);
    EXPECT_EQ(bin->finish(), fault == 0);
    EXPECT_EQ(faults.any_failed(), fault != 0);
  }
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
            (Texts{"[data_file] Failed appending data file " +
                   (output() / "2023/1114/a/1700000000000000.bin").string() + ": Disk quota exceeded"}));
}

TEST_F(BinOutputFaults, PageOfAnUnknownKindFailsItsFile) {
  // The last holds nothing but zeros, from a stream that yields no byte of them.
  const std::string nothing = test::with_trailer(gzip("") + std::string(4, 'x'), 64);
  for (const std::string& unit :
       {page_block(page_at(0), std::string(64, '\0')),
        page_block(page_at(0), test::blob_block(kStart, "blob")), page_block(page_at(0), "QV"),
        test::page_block_of_payload(page_at(0), nothing)}) {
    log_.clear();
    run(OutputFormat::bin, {write_input(unit)});
    EXPECT_EQ(failures_, 1);
    EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
              (Texts{"[data_writer] Unrecognized type of data page. Cannot save to file."}));
  }
  EXPECT_EQ(written(), Texts{});
}

TEST_F(BinOutputFaults, PageThatCannotBeUnpackedEndsItsFile) {
  const std::string in = temp_.write_file(
      "in.bin", sample_file(header(), {page_block(page_at(0, "a"), events(1, 3)) +
                                           test::page_block_of_payload(page_at(1), "\x1f\x8b broken") +
                                           page_block(page_at(2, "b"), events(3, 3)),
                                       page_block(page_at(3, "c"), events(4, 3))}));
  run(OutputFormat::bin, {in});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(written(), (Texts{(output() / "2023/1114/a/1700000000000000.bin").string()}));
}

TEST_F(BinOutputFaults, PageTooLargeForAnyReaderIsNotSaved) {
  const std::string claim = test::with_trailer(gzip(events(1, 3)) + std::string(4, 'x'), 0x08000000);
  run(OutputFormat::bin, {write_input(test::page_block_of_payload(page_at(0), claim))});
  EXPECT_EQ(failures_, 1);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR),
            (Texts{"[data_writer] Blocks of 134217728 bytes could not be read. Cannot save to file."}));
  EXPECT_EQ(written(), Texts{});
}

TEST_F(BinOutputFaults, SourceNamesOfAnyLengthStayBelowTheOutputFolder) {
  const std::vector<std::pair<std::string, std::string>> names = {
      {"../../../../../../../../../../../../../../../../../../../../../x", ""},
      {std::string(64, 'i'), std::string(16, 't')},
      {std::string(90, 'j'), std::string(40, 'u')},
      {"node1", "../../../../x"},
      {"a\nb", "\x1b[2J"},
      {"%H", "%%"},
      {std::string("nul\0after", 9), ""},
  };
  std::string unit;
  for (const auto& [id, tag] : names)
    unit += page_block(page_at(0, id, tag), events(1, 3));
  run(OutputFormat::bin, {write_input(unit)});
  EXPECT_EQ(failures_, 1);
  const std::string top = output() / "2023/1114/";
  const std::string file = "_1700000000000000.bin";
  EXPECT_EQ(written(), (Texts{top + "22/%" + file, top + "a\nb/\x1b[2J" + file,
                              top + std::string(64, 'i') + "/" + std::string(16, 't') + file,
                              top + std::string(64, 'j') + "/" + std::string(16, 'u') + file,
                              top + "nul/1700000000000000.bin"}));
  EXPECT_EQ(std::distance(fs::directory_iterator(temp_.path()), {}), 3);
}

// What was written to a disk that became full can be read, and none of it is a part of a block.
class FullDisk : public test::BinOutputFiles {
 protected:
  // 64 pages of 4 KiB for each of two sources.
  std::string write_pages() {
    std::vector<std::string> units;
    for (std::uint64_t time = 0; time < 64; ++time) {
      for (const char* source : {"a", "b"}) {
        std::string page;
        for (int block = 0; block < 16; ++block)
          page += events(static_cast<std::uint16_t>(time * 100), 120);
        units.push_back(page_block(page_at(time, source), page));
      }
    }
    return temp_.write_file("in.bin", sample_file(header(8192), units));
  }

  void expect_whole_blocks_only() {
    EXPECT_EQ(failures_, 1);
    const Texts files = written();
    EXPECT_FALSE(files.empty());
    for (const std::string& file : files)
      EXPECT_EQ((fs::file_size(file) - 256) % 4096, 0u) << file;
    EXPECT_GT(records(files).size(), 1920u);
  }
};

TEST_F(FullDisk, UnderAFileSizeLimit) {
  const std::string in = write_pages();
  void (*const handler)(int) = std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limit{50000, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  run(OutputFormat::bin, {in});
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  ASSERT_FALSE(log_.texts(QVX_LOG_ERROR).empty());
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR)[0], "[data_file] Failed appending data file " +
                                              (output() / "2023/1114/a/1700000000000000.bin").string() +
                                              ": File too large");
  expect_whole_blocks_only();
}

TEST_F(FullDisk, OnASmallFileSystem) {
  const std::string in = write_pages();
  if (mount("qvx_test", output().c_str(), "tmpfs", 0, "size=100k") != 0)
    GTEST_SKIP() << "mounting a file system needs privileges";
  run(OutputFormat::bin, {in});
  const Texts messages = log_.texts(QVX_LOG_ERROR);
  expect_whole_blocks_only();
  EXPECT_EQ(umount2(output().c_str(), MNT_DETACH), 0);
  ASSERT_FALSE(messages.empty());
  EXPECT_TRUE(messages[0].starts_with("[data_file] Failed appending data file ")) << messages[0];
  EXPECT_TRUE(messages[0].ends_with(": No space left on device")) << messages[0];
}

// -- Interruption

// The bytes of a file from an offset on, at most so many.
std::string read_from(const fs::path& path, std::size_t offset, std::size_t most) {
  std::string bytes(most, '\0');
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(bytes.data(), static_cast<std::streamsize>(most));
  bytes.resize(static_cast<std::size_t>(in.gcount()));
  return bytes;
}

// Killed at any moment, the program leaves files that have their header and whole blocks, and at most a part
// of one block at their end, which a later run leaves for those who can read it: its data go elsewhere.
TEST_F(BinOutputFaults, KilledAtAnyMomentEveryFileCanBeReadUpToItsLastWholeBlock) {
  constexpr int kRounds = 200;
  constexpr int kRoundsPerFolder = 10;
  constexpr std::size_t kBlockSize = 48 * 256;
  std::vector<std::string> units;
  std::set<std::string> blocks;
  for (std::uint64_t time = 0; time < 4; ++time) {
    for (int source = 0; source < 6; ++source) {
      std::string page;
      for (int block = 0; block < 48; ++block)
        page += events(static_cast<std::uint16_t>(source * 1000 + static_cast<int>(time)), 120);
      blocks.insert(page);
      units.push_back(page_block(page_at(time, "s" + std::to_string(source)), page));
    }
  }
  const std::string in = temp_.write_file("in.bin", sample_file(header(8192), units));
  const auto begin = std::chrono::steady_clock::now();
  resave({in});
  const auto length =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
  std::mt19937 random(20231114);
  int killed = 0;
  std::size_t whole = 0;
  std::size_t parts = 0;
  std::map<fs::path, std::size_t> seen_of;
  for (int round = 0; round < kRounds; ++round) {
    if (round % kRoundsPerFolder == 0) {
      fs::remove_all(output());
      fs::create_directories(output());
      seen_of.clear();
    }
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      qvx_logger_set_level(0);
      while (true)
        run(OutputFormat::bin, {in});
    }
    usleep(static_cast<useconds_t>(500 + random() % (2 * static_cast<unsigned>(length.count()))));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status)) ++killed;
    for (const auto& entry : fs::recursive_directory_iterator(output())) {
      if (!entry.is_regular_file() || entry.path().extension() == ".json") continue;
      // What an earlier round has seen is only ever appended to.
      std::size_t& seen = seen_of[entry.path()];
      const std::string head = read_from(entry.path(), 0, 256);
      ASSERT_EQ(head.size(), 256u) << entry.path();
      const qvx_data_file_header found = file_header_decode(Bytes(as_bytes(head)).first<256>());
      ASSERT_TRUE(validate_header(found)) << entry.path();
      ASSERT_EQ(found.block_size, kBlockSize);
      const std::string bytes = read_from(entry.path(), 256 + seen, fs::file_size(entry.path()));
      std::size_t at = 0;
      for (; bytes.size() - at >= kBlockSize; at += kBlockSize, ++whole)
        ASSERT_TRUE(blocks.contains(bytes.substr(at, kBlockSize))) << entry.path() << " at " << seen + at;
      if (at != bytes.size()) ++parts;
      seen += at;
    }
  }
  EXPECT_EQ(killed, kRounds);
  EXPECT_GT(whole, 100u);
  RecordProperty("files_with_a_part_of_a_block", static_cast<int>(parts));
  resave({in});
  EXPECT_GE(records(written()).size(), records({in}).size());
}

}  // namespace
}  // namespace qvx
