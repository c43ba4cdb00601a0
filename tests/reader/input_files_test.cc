#include "qvx/reader/input_files.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/file_descriptor.h"
#include "tests/reader/reader_files.h"
#include "tests/support/log_capture.h"

namespace {

int readings_left = -1;  // of folders, until they fail; below 0: for ever

}  // namespace

extern "C" dirent* readdir(DIR* folder) {
  using Function = dirent* (*)(DIR*);
  static const auto ordinary = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "readdir"));
  if (readings_left == 0) {
    errno = EIO;
    return nullptr;
  }
  if (readings_left > 0) --readings_left;
  return ordinary(folder);
}

namespace qvx {
namespace {

using test::LogCapture;
using test::ReaderFiles;

constexpr SortKey kId = SortKey::source_id;
constexpr SortKey kTag = SortKey::source_tag;
constexpr SortKey kTime = SortKey::first_timestamp;

std::vector<SortKey> keys(const std::optional<SortOrder>& order) {
  if (!order) return {};
  return {order->keys.begin(), order->keys.begin() + static_cast<std::ptrdiff_t>(order->count)};
}

using Keys = std::vector<SortKey>;

TEST(SortOrderTest, DefaultIsTimeThenIdThenTag) {
  EXPECT_EQ(keys(default_sort_order()), (Keys{kTime, kId, kTag}));
}

TEST(SortOrderTest, KeysMayBeSurroundedByWhiteSpaceAndEmptyTokens) {
  LogCapture log;
  EXPECT_EQ(keys(parse_sort_order("source_id")), Keys{kId});
  EXPECT_EQ(keys(parse_sort_order(" source_tag , first_timestamp ")), (Keys{kTag, kTime}));
  EXPECT_EQ(keys(parse_sort_order(",,\tsource_tag\n,,")), Keys{kTag});
  EXPECT_EQ(keys(parse_sort_order("source_id,source_id")), (Keys{kId, kId}));
  EXPECT_TRUE(log.messages().empty());
}

TEST(SortOrderTest, TokensBehindTheThirdKeyAreNotLookedAt) {
  LogCapture log;
  EXPECT_EQ(keys(parse_sort_order("source_id,source_id,source_id,colour")), (Keys{kId, kId, kId}));
  EXPECT_TRUE(log.messages().empty());
}

TEST(SortOrderTest, UnknownKeyIsNamedAndFails) {
  for (const char* const text : {"source_id,colour", "colour,source_id", " colour "}) {
    LogCapture log;
    EXPECT_EQ(parse_sort_order(text), std::nullopt) << text;
    EXPECT_EQ(log.texts(QVX_LOG_ERROR), std::vector<std::string>{"[sort] Unknown sort key: 'colour'"})
        << text;
  }
  LogCapture log;
  EXPECT_FALSE(parse_sort_order("Source_id"));
  EXPECT_FALSE(parse_sort_order("source id"));
}

TEST(SortOrderTest, NoTokenFailsWithoutAWord) {
  LogCapture log;
  EXPECT_FALSE(parse_sort_order(","));
  EXPECT_FALSE(parse_sort_order(""));
  EXPECT_FALSE(parse_sort_order(" , \t"));
  EXPECT_TRUE(log.messages().empty());
}

TEST(SortOrderTest, MissingAndWrongOrdersFallBackToTheDefault) {
  ReaderOptions options;
  LogCapture log;
  EXPECT_EQ(keys(choose_sort_order(options)), (Keys{kTime, kId, kTag}));
  EXPECT_TRUE(log.has(QVX_LOG_INFO, "Sort order not specified. Using default."));
  log.clear();
  options.sort_order = "";
  EXPECT_EQ(keys(choose_sort_order(options)), (Keys{kTime, kId, kTag}));
  EXPECT_TRUE(log.has(QVX_LOG_INFO, "Sort order not specified. Using default."));
  log.clear();
  options.sort_order = ",";
  EXPECT_EQ(keys(choose_sort_order(options)), (Keys{kTime, kId, kTag}));
  EXPECT_EQ(log.texts(QVX_LOG_WARNING),
            std::vector<std::string>{"Invalid sort order string ','. Using default."});
  EXPECT_TRUE(log.texts(QVX_LOG_ERROR).empty());
  log.clear();
  options.sort_order = "source_tag";
  EXPECT_EQ(keys(choose_sort_order(options)), Keys{kTag});
  EXPECT_TRUE(log.messages().empty());
}

std::vector<std::string> sorted_paths(std::vector<FileEntry> entries, const SortOrder& order) {
  sort_files(entries, order);
  std::vector<std::string> paths;
  for (const FileEntry& entry : entries)
    paths.push_back(entry.path);
  return paths;
}

using Paths = std::vector<std::string>;

TEST(SortFilesTest, LaterKeysDecideBetweenEqualEarlierOnes) {
  const std::vector<FileEntry> entries = {
      {"b", "t", 5, "1"}, {"a", "t", 5, "2"}, {"a", "s", 5, "3"}, {"z", "z", 4, "4"}};
  EXPECT_EQ(sorted_paths(entries, default_sort_order()), (Paths{"4", "3", "2", "1"}));
  EXPECT_EQ(sorted_paths(entries, {{kTag, kId, kId}, 2}), (Paths{"3", "2", "1", "4"}));
}

TEST(SortFilesTest, TextsCompareAsUnsignedBytesAndTimesAsUnsignedNumbers) {
  EXPECT_EQ(sorted_paths({{"\xc3\xa9", "", 0, "1"}, {"z", "", 0, "2"}, {"", "", 0, "3"}}, {{kId}, 1}),
            (Paths{"3", "2", "1"}));
  EXPECT_EQ(sorted_paths({{"", "", 1ULL << 63, "1"}, {"", "", 1, "2"}}, {{kTime}, 1}), (Paths{"2", "1"}));
}

TEST(SortFilesTest, FilesThatAreEqualInAllKeysAreNeitherLostNorRepeated) {
  std::vector<FileEntry> entries;
  Paths expected;
  for (int number = 100; number < 150; ++number) {
    entries.push_back({"same", "same", number < 125 ? 2U : 1U, std::to_string(number)});
    expected.push_back(std::to_string(number));
  }
  Paths paths = sorted_paths(entries, default_sort_order());
  // Of the two times the earlier comes first; among the files of one any order will do.
  EXPECT_GE(*std::min_element(paths.begin(), paths.begin() + 25), "125");
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, expected);
}

TEST(SortFilesTest, TracesTheOrderBeforeAndAfter) {
  LogCapture log;
  sorted_paths({{"i", "t", 2, "x"}, {"i", "t", 1, "y"}}, default_sort_order());
  EXPECT_EQ(log.texts(QVX_LOG_DEBUG), (Paths{"before sort: x → source_id = i | source_tag = t | ts = 2",
                                             "before sort: y → source_id = i | source_tag = t | ts = 1",
                                             "after sort:  y → source_id = i | source_tag = t | ts = 1",
                                             "after sort:  x → source_id = i | source_tag = t | ts = 2"}));
}

TEST(SortFilesTest, ManyEntriesComeOutInOrder) {
  std::vector<FileEntry> entries;
  for (std::uint64_t at = 0; at < 10000; ++at)
    entries.push_back({"", "", at, std::to_string(at)});
  std::shuffle(entries.begin(), entries.end(), std::mt19937_64(1));
  sort_files(entries, default_sort_order());
  for (std::uint64_t at = 0; at < 10000; ++at)
    ASSERT_EQ(entries[at].path, std::to_string(at));
}

class WalkTest : public testing::Test {
 protected:
  bool walk() {
    EXPECT_TRUE(reader_options_set_defaults(options_));
    testing::internal::CaptureStderr();
    const bool ok = collect_input_files(options_, files_.path("top").c_str());
    err_ = testing::internal::GetCapturedStderr();
    return ok;
  }

  // What was found, sorted, named from the folder that was walked.
  Paths found() const {
    Paths paths;
    for (const char* const path : strings(options_.input_files))
      paths.push_back(std::string(path).substr(files_.path("top/").size()));
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  const ReaderFiles files_;
  ReaderOptions options_;
  std::string err_;
};

TEST_F(WalkTest, TakesEveryRegularFileOfEveryFolder) {
  files_.write("top/a.bin", "");
  files_.write("top/.hidden", "");
  files_.write("top/1/2/3/deep", "");
  std::filesystem::create_directories(files_.path("top/empty"));
  ASSERT_EQ(mkfifo(files_.path("top/pipe").c_str(), 0600), 0);
  EXPECT_TRUE(walk());
  EXPECT_EQ(found(), (Paths{".hidden", "1/2/3/deep", "a.bin"}));
  EXPECT_EQ(err_, "");
}

TEST_F(WalkTest, FollowsLinks) {
  files_.write("elsewhere/a", "");
  std::filesystem::create_directories(files_.path("top"));
  std::filesystem::create_symlink("../elsewhere", files_.path("top/folder"));
  std::filesystem::create_symlink("../elsewhere/a", files_.path("top/file"));
  EXPECT_TRUE(walk());
  EXPECT_EQ(found(), (Paths{"file", "folder/a"}));
}

TEST_F(WalkTest, DanglingLinkFailsBelowTheTopAsWell) {
  std::filesystem::create_directories(files_.path("top/below"));
  std::filesystem::create_symlink("nowhere", files_.path("top/below/gone"));
  EXPECT_FALSE(walk());
  EXPECT_EQ(err_, "Failed to stat path '" + files_.path("top/below/gone") + "': No such file or directory\n");
}

TEST_F(WalkTest, LoopOfLinksEnds) {
  std::filesystem::create_directories(files_.path("top"));
  std::filesystem::create_symlink(".", files_.path("top/again"));
  EXPECT_FALSE(walk());
  EXPECT_TRUE(err_.starts_with("Failed to stat path '"));
  EXPECT_TRUE(err_.ends_with("': Too many levels of symbolic links\n"));
}

TEST_F(WalkTest, MissingFolderIsNamed) {
  EXPECT_FALSE(walk());
  EXPECT_EQ(err_, "Failed to open directory '" + files_.path("top") + "': No such file or directory\n");
}

// Folders of one name, one in the other, with a file in the last; a path of any length.
void make_deep(const std::string& top, const std::string& name, int levels, std::string_view content) {
  std::filesystem::create_directories(top);
  FileDescriptor folder(open(top.c_str(), O_RDONLY | O_DIRECTORY));
  for (int level = 0; level < levels; ++level) {
    ASSERT_EQ(mkdirat(folder.get(), name.c_str(), 0700), 0);
    folder = FileDescriptor(openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_TRUE(folder);
  }
  const FileDescriptor file(openat(folder.get(), "a.bin", O_WRONLY | O_CREAT, 0600));
  ASSERT_EQ(write(file.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
}

std::string repeated(const std::string& text, int count) {
  std::string all;
  for (int at = 0; at < count; ++at)
    all += text;
  return all;
}

TEST_F(WalkTest, TreeOfAnyDepthIsWalked) {
  make_deep(files_.path("top"), "d", 2100, "");
  EXPECT_TRUE(walk());
  EXPECT_EQ(err_, "");
  EXPECT_EQ(found(), Paths{repeated("d/", 2100) + "a.bin"});
}

TEST_F(WalkTest, FileWithAPathOfAnyLengthIsFoundAndRead) {
  const std::string name(250, 'n');
  make_deep(files_.path("top"), name, 20, test::file_header(test::usual_header()) + test::usual_events({7}));
  EXPECT_TRUE(walk());
  EXPECT_EQ(err_, "");
  ASSERT_EQ(found(), Paths{repeated(name + '/', 20) + "a.bin"});
  ReaderOptions options = files_.options();
  options.sort_files = true;
  options.sort_order = "source_id";
  const test::RunResult result = test::run(options, {strings(options_.input_files)[0]});
  EXPECT_EQ(result.out, "{\"v\":7}\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.failures, 0);
}

// Every length around the one from which paths are gone along in pieces.
TEST_F(WalkTest, PathsAroundTheLimitOfTheSystemAreFound) {
  const std::string name(200, 'n');
  make_deep(files_.path("top"), name, 19, "");
  const std::string above = files_.path("top/") + repeated(name + '/', 19);
  const std::string last = above + std::string(4000 - above.size(), 'w');
  make_deep(above, last.substr(above.size()), 1, "");
  const FileDescriptor folder(open(last.c_str(), O_RDONLY | O_DIRECTORY));
  for (std::size_t size = 4085; size <= 4105; ++size) {
    const std::string file(size - last.size() - 1, 'f');
    ASSERT_TRUE(FileDescriptor(openat(folder.get(), file.c_str(), O_WRONLY | O_CREAT, 0600)));
  }
  EXPECT_TRUE(walk());
  EXPECT_EQ(err_, "");
  std::vector<std::size_t> sizes;
  for (const char* const path : strings(options_.input_files))
    sizes.push_back(std::strlen(path));
  std::sort(sizes.begin(), sizes.end());
  ASSERT_EQ(sizes.size(), 23u);
  for (std::size_t at = 0; at < 21; ++at)
    EXPECT_EQ(sizes[at + 2], 4085 + at);
}

TEST_F(WalkTest, EntriesComeDepthFirstInTheOrderOfTheSystem) {
  for (const char* const name : {"b/1", "b/2", "a", "c/d/3", "c/4", "e"})
    files_.write(std::string("top/") + name, "");
  Paths expected;
  const std::function<void(const std::string&)> list = [&](const std::string& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(files_.path("top/" + folder))) {
      const std::string name = folder + entry.path().filename().string();
      if (entry.is_directory()) {
        list(name + '/');
      } else {
        expected.push_back(name);
      }
    }
  };
  list("");
  EXPECT_TRUE(walk());
  Paths paths;
  for (const char* const path : strings(options_.input_files))
    paths.push_back(std::string(path).substr(files_.path("top/").size()));
  EXPECT_EQ(paths, expected);
}

// A link to a folder above with so long a name that the path grows past what the system takes before it has
// followed forty links.
TEST_F(WalkTest, LoopOfLinksWithLongNamesEnds) {
  std::filesystem::create_directories(files_.path("top"));
  std::filesystem::create_symlink(".", files_.path("top/" + std::string(250, 'l')));
  EXPECT_FALSE(walk());
  EXPECT_TRUE(err_.ends_with("': Too many levels of symbolic links\n")) << err_;
}

TEST_F(WalkTest, FolderThatCannotBeReadToItsEndIsNamed) {
  files_.write("top/below/a", "");
  files_.write("top/below/b", "");
  readings_left = 4;  // of top: ".", ".." and "below"; then one of below
  EXPECT_FALSE(walk());
  readings_left = -1;
  EXPECT_EQ(err_, "Failed to open directory '" + files_.path("top/below") + "': Input/output error\n");
}

}  // namespace
}  // namespace qvx
