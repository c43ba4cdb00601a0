#include "qvx/scan/long_path.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "qvx/support/file_descriptor.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

// 20 folders in one another with names of 250 characters, and a file in the last: a path that the system
// takes in no single piece.
class LongPathTest : public testing::Test {
 protected:
  LongPathTest() {
    FileDescriptor folder(open(temp_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    path_ = temp_.path();
    for (int depth = 0; depth < 20; ++depth) {
      const std::string name(250, static_cast<char>('a' + depth));
      EXPECT_EQ(mkdirat(folder.get(), name.c_str(), 0700), 0);
      folder = FileDescriptor(openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
      path_ += "/" + name;
    }
    const FileDescriptor file(openat(folder.get(), "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(write(file.get(), "text", 4), 4);
  }

  static int error_of_stat(const std::string& path) {
    struct stat status {};
    errno = 0;
    return stat_path(path.c_str(), status) == 0 ? 0 : errno;
  }

  test::TempDir temp_;
  std::string path_;  // of the last folder
};

TEST_F(LongPathTest, FileAtItsEndIsOpenedAndLookedAt) {
  const std::string file = path_ + "/f";
  ASSERT_GT(file.size(), 5000u);
  struct stat status {};
  ASSERT_EQ(stat_path(file.c_str(), status), 0);
  EXPECT_EQ(status.st_size, 4);
  const FileDescriptor opened(open_path(file.c_str(), O_RDONLY | O_CLOEXEC));
  char text[5] = {};
  EXPECT_EQ(read(opened.get(), text, 4), 4);
  EXPECT_STREQ(text, "text");
}

TEST_F(LongPathTest, SlashesMayRepeatAndEndThePath) {
  std::string many = path_;
  for (std::size_t at = many.rfind('/'); at > temp_.path().native().size(); at = many.rfind('/', at - 1))
    many.insert(at, "///");
  struct stat status {};
  EXPECT_EQ(stat_path((many + std::string(5000, '/')).c_str(), status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(error_of_stat(many + "/f"), 0);
}

TEST_F(LongPathTest, FolderThatIsMissingIsTold) {
  std::string missing = path_ + "/f";
  missing[temp_.path().native().size() + 10] = '?';
  EXPECT_EQ(error_of_stat(missing), ENOENT);
  EXPECT_EQ(error_of_stat(path_ + "/none"), ENOENT);
  EXPECT_EQ(error_of_stat(path_ + "/f/" + std::string(200, 'n')), ENOTDIR);
}

TEST_F(LongPathTest, NameThatIsTooLongIsRefused) {
  const std::string name(5000, 'n');
  EXPECT_EQ(error_of_stat(name), ENAMETOOLONG);
  EXPECT_EQ(error_of_stat("/" + name), ENAMETOOLONG);
  EXPECT_EQ(error_of_stat(temp_.file(name)), ENAMETOOLONG);
  errno = 0;
  EXPECT_EQ(open_path(name.c_str(), O_RDONLY), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
}  // namespace qvx
