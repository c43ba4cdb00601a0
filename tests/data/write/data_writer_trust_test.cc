// What the writer of data files promises, whatever meets it: files that can be read, nothing lost without a
// word, nothing touched outside its folder.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/data/write/data_writer.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"
#include "tests/data/sample_builder.h"
#include "tests/data/write/data_writer_fixture.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/trust_run.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::FaultyCalls;
using test::kStart;
using test::LogCapture;
using test::read_file;
using test::TempDir;
using test::TrustRun;

DataWriterPtr writer_below(const std::string& root) {
  qvx_client_id_t identity;
  DataWriterPtr writer(data_writer_create(identity));
  writer->root = root;
  return writer;
}

// A page of two blocks of 16 bytes, whose number is its content.
std::string page_text(std::size_t number) {
  return format_text("QVXE page %010zu ...........", number);
}

bool write_numbered(qvx_data_writer& writer, std::size_t number, const std::string& source) {
  return data_writer_write_page(writer, *test::make_page({.data = page_text(number),
                                                          .block_size = 16,
                                                          .room = 32,
                                                          .first_timestamp = kStart + number,
                                                          .last_timestamp = kStart + number,
                                                          .source_id = source}));
}

// What a folder holds: how often each page is there, and what is wrong with its files.
struct Found {
  std::map<std::size_t, int> pages;
  std::vector<std::string> faults;
};

Found read_back(const fs::path& root) {
  Found found;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file() || entry.path().extension() != ".bin") continue;
    const std::string bytes = read_file(entry.path());
    if (bytes.size() < 256 || !header_is_valid(file_header_decode(Bytes(as_bytes(bytes)).first<256>()))) {
      found.faults.push_back("header of " + entry.path().string());
      continue;
    }
    const std::string data = bytes.substr(256);
    for (std::size_t at = 0; at + 32 <= data.size(); at += 32) {
      const std::string page = data.substr(at, 32);
      const std::size_t number = std::strtoull(page.c_str() + 10, nullptr, 10);
      if (page == page_text(number)) {
        ++found.pages[number];
      } else if (page.substr(0, 16) == page_text(number).substr(0, 16)) {
        at -= 16;  // its second block is not there
      } else {
        found.faults.push_back("page in " + entry.path().string());
      }
    }
  }
  return found;
}

constexpr std::size_t kPagesOfARun = 12;
using Sources = std::vector<std::string>;  // of the pages of a run

// Three sources in turns, two of them on one path; in later rounds some by chance.
Sources sources_of(std::uint64_t seed, std::size_t round) {
  std::mt19937_64 random(seed * 1000 + round);
  const Sources few = {"a", "b", "./a"};
  const Sources more = {"a", "b", "./a", "a/a", "b//b", "c", "_/c"};
  Sources made;
  for (std::size_t number = 0; number < kPagesOfARun; ++number)
    made.push_back(round == 0 ? few[number % few.size()] : more[random() % more.size()]);
  return made;
}

// True when nothing was said to be lost.
bool write_all(qvx_data_writer& writer, const Sources& sources) {
  bool ok = true;
  for (std::size_t number = 0; number < sources.size(); ++number)
    ok &= write_numbered(writer, number, sources[number]);
  return data_writer_finish(writer) && ok;
}

// Each call fails in turn, once and for good, with every error that it may have.
TEST(WriterTrust, FailingCallsLeaveValidFilesAndLoseNothingWithoutAWord) {
  TrustRun run("writer-faults");
  std::vector<int> errors = {ENOSPC, EMFILE, EIO};
  if (run.time_is_left())
    errors.insert(errors.end(), {EACCES, EDQUOT, EROFS, ENAMETOOLONG, EPERM, EINVAL, ENFILE});
  LogCapture quiet(QVX_LOG_ERROR);
  Sources sources;
  const auto try_one = [&](Call call, int error, std::size_t first, std::size_t count) {
    const TempDir temp;
    bool told = false;
    bool failed = false;
    {
      const DataWriterPtr writer = writer_below(temp.path());
      const FaultyCalls faults(call, error, first, count);
      told = !write_all(*writer, sources);
      failed = faults.any_failed();
    }
    const Found found = read_back(temp.path());
    const bool all_there = found.pages.size() == kPagesOfARun;
    bool twice = false;
    for (const auto& [number, times] : found.pages)
      twice |= times != 1;
    const bool ok = found.faults.empty() && !twice && (all_there || told);
    EXPECT_TRUE(ok) << call_name(call) << " " << error << " from " << first << ", " << count
                    << " times: " << found.pages.size() << " pages, " << (told ? "told" : "not told") << " "
                    << (found.faults.empty() ? "" : found.faults.front());
    run.count(ok);
    quiet.clear();
    return failed;
  };
  for (std::size_t round = 0; round == 0 || run.time_is_left(); ++round) {
    sources = sources_of(run.seed(), round);
    for (std::size_t kind = 0; kind < test::kCalls; ++kind) {
      const Call call = static_cast<Call>(kind);
      for (const int error : errors) {
        for (const std::size_t count : {std::size_t{1}, static_cast<std::size_t>(-1)}) {
          const std::size_t step = run.time_is_left() ? 1 : 4;
          for (std::size_t first = 0; try_one(call, error, first, count); first += step) {
          }
        }
      }
    }
  }
}

// The process dies at each call that changes something.
TEST(WriterTrust, KilledAtAnyCallLeavesValidFilesAndAPrefix) {
  TrustRun run("writer-kill");
  for (std::size_t round = 0; round == 0 || run.time_is_left(); ++round) {
    const Sources sources = sources_of(run.seed(), round);
    bool died = true;
    for (std::size_t number = 0; died; ++number) {
      const TempDir temp;
      const pid_t child = fork();
      if (child == 0) {
        qvx_logger_set_level(0);
        const FaultyCalls faults = FaultyCalls::dying_at(number);
        const DataWriterPtr writer = writer_below(temp.path());
        _exit(write_all(*writer, sources) ? 0 : 1);
      }
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      died = WIFSIGNALED(status);
      const Found found = read_back(temp.path());
      // Pages are written one after the other.
      const bool prefix = found.pages.empty() || found.pages.rbegin()->first == found.pages.size() - 1;
      const bool ok = found.faults.empty() && prefix && (died || found.pages.size() == kPagesOfARun);
      EXPECT_TRUE(ok) << "killed at " << number << ": " << found.pages.size() << " pages "
                      << (found.faults.empty() ? "" : found.faults.front());
      // A later run finds its way with what is there.
      LogCapture quiet(QVX_LOG_ERROR);
      const DataWriterPtr later = writer_below(temp.path());
      const bool again = write_all(*later, sources);
      EXPECT_TRUE(again) << "after the kill at " << number;
      EXPECT_EQ(read_back(temp.path()).pages.size(), kPagesOfARun);
      run.count(ok && again);
      ASSERT_LT(number, 1000u);
    }
  }
  EXPECT_GT(run.cases(), 40u);
}

std::string tree_of(const fs::path& top, const fs::path& without) {
  std::set<std::string> lines;
  for (auto entry = fs::recursive_directory_iterator(top); entry != fs::recursive_directory_iterator();
       ++entry) {
    if (entry->path() == without) entry.disable_recursion_pending();
    std::string line = entry->path().string();
    if (entry->is_symlink()) {
      line += " -> " + fs::read_symlink(entry->path()).string();
    } else if (entry->is_regular_file()) {
      line += " " + read_file(entry->path());
    }
    lines.insert(line);
  }
  std::string all;
  for (const std::string& line : lines)
    all += line + "\n";
  return all;
}

// Ids and tags put together of everything that means something in a path or in a template, on a tree with
// links that lead out of it.
TEST(WriterTrust, HostileNamesTouchNothingOutside) {
  TrustRun run("writer-names");
  const std::vector<std::string> pieces = {"..",
                                           "/",
                                           "//",
                                           ".",
                                           "%",
                                           "%Y",
                                           "%n",
                                           "%c",
                                           "{{",
                                           "}}",
                                           "{{id}}",
                                           "{{tag}}",
                                           "{{year}}",
                                           "{{hash",
                                           "{{hash4}}",
                                           "\n",
                                           "\r",
                                           "\x1b[2J",
                                           "\xC3\xA4",
                                           "\xFF",
                                           "_",
                                           "_/",
                                           "a",
                                           "link",
                                           "leaf.bin",
                                           "dangling",
                                           std::string(1, '\0'),
                                           std::string(64, 'a'),
                                           "0x1f",
                                           " "};
  const TempDir outer;
  const fs::path root = outer.path() / "a/root";
  fs::create_directories(root / "2023/1114");
  outer.write_file("a/canary", "untouched");
  outer.write_file("canary", "untouched");
  for (const fs::path& folder : {root, root / "2023", root / "2023/1114"}) {
    fs::create_directory_symlink(outer.path() / "a", folder / "link");
    fs::create_symlink(outer.path() / "canary", folder / "leaf.bin");
    fs::create_symlink(outer.path() / "made", folder / "dangling");
  }
  const std::string before = tree_of(outer.path(), root);
  LogCapture quiet(QVX_LOG_ERROR);
  std::mt19937_64 random(run.seed());
  DataWriterPtr writer = writer_below(root);
  const auto name = [&](std::size_t limit) {
    std::string made;
    for (std::size_t count = random() % 6; count != 0; --count)
      made += pieces[random() % pieces.size()];
    return made.substr(0, limit);
  };
  std::set<std::pair<std::string, std::string>> told_of;  // what a source's file fails with is told once
  constexpr std::size_t kAtLeast = 400;
  for (std::size_t number = 0; number < kAtLeast || run.time_is_left(); ++number) {
    const std::string id = name(64);
    const std::string tag = name(16);
    const bool saved = data_writer_write_page(
        *writer,
        *test::make_page({.first_timestamp = kStart + number % 7, .source_id = id, .source_tag = tag}));
    const std::pair<std::string, std::string> source(id.c_str(), tag.c_str());  // which end at a NUL
    if (!quiet.texts(QVX_LOG_ERROR).empty()) told_of.insert(source);
    bool ok = saved || told_of.contains(source);
    quiet.clear();
    if (number % 100 == 99) {
      ok &= tree_of(outer.path(), root) == before;
      // The folder of a file becomes a link between two of its pages.
      fs::remove_all(root / "2023/1114/swapped");
      EXPECT_TRUE(data_writer_write_page(*writer, *test::make_page({.source_id = "swapped"})));
      fs::rename(root / "2023/1114/swapped", root / "2023/1114/before");
      fs::create_directory_symlink(outer.path() / "a", root / "2023/1114/swapped");
      static_cast<void>(data_writer_write_page(*writer, *test::make_page({.source_id = "swapped"})));
      static_cast<void>(data_writer_write_page(
          *writer, *test::make_page({.first_timestamp = kStart - 1, .source_id = "swapped"})));
      fs::remove(root / "2023/1114/swapped");
      fs::remove_all(root / "2023/1114/before");
      writer = writer_below(root);
      told_of.clear();
      quiet.clear();
    }
    EXPECT_TRUE(ok) << id << " | " << tag;
    run.count(ok);
  }
  EXPECT_EQ(tree_of(outer.path(), root), before);
}

// Two processes, and one that is killed, save pages in one folder: of those that went on no page is lost, and
// none is there twice.
TEST(WriterTrust, ProcessesInOneFolderLoseNothing) {
  TrustRun run("writer-together");
  constexpr std::size_t kProcesses = 4;
  constexpr std::size_t kPages = 150;
  std::mt19937_64 random(run.seed());
  do {
    const TempDir temp;
    std::vector<pid_t> children;
    for (std::size_t process = 0; process < kProcesses; ++process) {
      const std::size_t dies_at = process == 0 ? random() % 2000 : static_cast<std::size_t>(-1);
      const pid_t child = fork();
      if (child == 0) {
        qvx_logger_set_level(0);
        const FaultyCalls faults = FaultyCalls::dying_at(dies_at);
        const DataWriterPtr writer = writer_below(temp.path());
        bool ok = true;
        for (std::size_t page = 0; page < kPages; ++page) {
          const std::size_t number = process * kPages + page;
          // All begin their files at the same names.
          ok &= data_writer_write_page(*writer,
                                       *test::make_page({.data = page_text(number),
                                                         .block_size = 16,
                                                         .room = 32,
                                                         .first_timestamp = kStart + page / 10 * 10,
                                                         .source_id = "s" + std::to_string(page % 3)}));
        }
        ok &= data_writer_finish(*writer);
        _exit(ok ? 0 : 1);
      }
      children.push_back(child);
    }
    bool all_went_well = true;
    for (std::size_t process = 0; process < kProcesses; ++process) {
      int status = 0;
      waitpid(children[process], &status, 0);
      if (process != 0) all_went_well &= WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    const Found found = read_back(temp.path());
    std::size_t missing = 0;
    std::size_t twice = 0;
    for (std::size_t number = kPages; number < kProcesses * kPages; ++number)
      missing += found.pages.contains(number) ? 0 : 1;
    for (const auto& [number, times] : found.pages)
      twice += times > 1 ? 1 : 0;
    const bool ok = all_went_well && missing == 0 && twice == 0 && found.faults.empty();
    EXPECT_TRUE(ok) << missing << " missing, " << twice << " twice, " << (all_went_well ? "" : "failures ")
                    << (found.faults.empty() ? "" : found.faults.front());
    run.count(ok);
  } while (run.cases() < 3 || run.time_is_left());
}

}  // namespace
}  // namespace qvx
