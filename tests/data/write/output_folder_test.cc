#include "qvx/data/write/output_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/faulty_calls.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::FaultyCalls;
using test::read_file;
using test::TempDir;
using Components = std::vector<std::string>;

TEST(PathBelow, SplitsAtSlashes) {
  EXPECT_EQ(path_below("a/b/c.bin"), (Components{"a", "b", "c.bin"}));
}

TEST(PathBelow, DropsDotsAndRepeatedAndLeadingSlashes) {
  EXPECT_EQ(path_below("//a/./b///c.bin"), (Components{"a", "b", "c.bin"}));
}

TEST(PathBelow, ResolvesDotsThatStayBelow) {
  EXPECT_EQ(path_below("a/b/../c.bin"), (Components{"a", "c.bin"}));
  EXPECT_EQ(path_below("a/../b.bin"), (Components{"b.bin"}));
  EXPECT_EQ(path_below("..a/b..bin"), (Components{"..a", "b..bin"}));
}

TEST(PathBelow, RefusesPathsThatLeave) {
  EXPECT_EQ(path_below("../a.bin"), std::nullopt);
  EXPECT_EQ(path_below("a/../../b.bin"), std::nullopt);
  EXPECT_EQ(path_below("a/../../a/b.bin"), std::nullopt);
  EXPECT_EQ(path_below("/../a"), std::nullopt);
}

TEST(PathBelow, RefusesPathsThatNameNoFile) {
  for (const char* path : {"", ".", "..", "/", "a/", "a/.", "a/b/.."})
    EXPECT_EQ(path_below(path), std::nullopt) << path;
}

TEST(OpenFolderBelow, MakesMissingFoldersAndTheRoot) {
  const TempDir temp;
  FileDescriptor folder;
  ASSERT_EQ(open_folder_below(temp.file("x/root"), {"a", "b", "file"}, true, folder), FolderFault::none);
  EXPECT_TRUE(fs::is_directory(temp.path() / "x/root/a/b"));
  EXPECT_FALSE(fs::exists(temp.path() / "x/root/a/b/file"));
}

TEST(OpenFolderBelow, WithoutRootItIsTheWorkingFolder) {
  const TempDir temp;
  const fs::path before = fs::current_path();
  fs::current_path(temp.path());
  FileDescriptor folder;
  EXPECT_EQ(open_folder_below("", {"a", "file"}, true, folder), FolderFault::none);
  fs::current_path(before);
  EXPECT_TRUE(fs::is_directory(temp.path() / "a"));
}

// Somebody else makes it at the same time, and takes it away again.
TEST(OpenFolderBelow, FolderThatIsThereAlreadyWhenItIsMadeIsOpened) {
  const TempDir temp;
  FileDescriptor folder;
  const FaultyCalls faults(Call::mkdirat, EEXIST);
  EXPECT_EQ(open_folder_below(temp.path(), {"a", "file"}, true, folder), FolderFault::inaccessible);
  EXPECT_EQ(errno, ENOENT);
}

TEST(OpenFolderBelow, WithoutCreateMissingFoldersAreInaccessible) {
  const TempDir temp;
  FileDescriptor folder;
  EXPECT_EQ(open_folder_below(temp.path(), {"a", "file"}, false, folder), FolderFault::inaccessible);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(fs::exists(temp.path() / "a"));
}

TEST(OpenFolderBelow, FileInTheWayIsInaccessible) {
  const TempDir temp;
  temp.write_file("a", "");
  FileDescriptor folder;
  EXPECT_EQ(open_folder_below(temp.path(), {"a", "b", "file"}, true, folder), FolderFault::inaccessible);
  EXPECT_FALSE(folder);
}

TEST(OpenFolderBelow, LinkToAFolderLeaves) {
  const TempDir temp;
  const TempDir elsewhere;
  fs::create_directory_symlink(elsewhere.path(), temp.path() / "a");
  FileDescriptor folder;
  EXPECT_EQ(open_folder_below(temp.path(), {"a", "b", "file"}, true, folder), FolderFault::leaves);
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
}

TEST(OpenFolderBelow, DanglingLinkIsInaccessible) {
  const TempDir temp;
  fs::create_symlink(temp.path() / "nowhere", temp.path() / "a");
  FileDescriptor folder;
  EXPECT_EQ(open_folder_below(temp.path(), {"a", "file"}, true, folder), FolderFault::inaccessible);
  EXPECT_FALSE(fs::exists(temp.path() / "nowhere"));
}

TEST(OpenFolderBelow, RootMayBeALink) {
  const TempDir temp;
  const TempDir target;
  fs::create_directory_symlink(target.path(), temp.path() / "root");
  FileDescriptor folder;
  EXPECT_EQ(open_folder_below(temp.file("root"), {"a", "file"}, true, folder), FolderFault::none);
  EXPECT_TRUE(fs::is_directory(target.path() / "a"));
}

TEST(LookAt, TellsWhatANameStandsFor) {
  const TempDir temp;
  temp.write_file("file", "");
  fs::create_symlink("file", temp.path() / "link");
  fs::create_symlink("nowhere", temp.path() / "dangling");
  FileDescriptor folder;
  ASSERT_EQ(open_folder_below(temp.path(), {"x"}, false, folder), FolderFault::none);
  FileIdentity identity;
  EXPECT_EQ(look_at(folder.get(), "missing", identity), EntryKind::missing);
  EXPECT_EQ(look_at(folder.get(), "link", identity), EntryKind::link);
  EXPECT_EQ(look_at(folder.get(), "dangling", identity), EntryKind::dangling_link);
  EXPECT_EQ(look_at(folder.get(), std::string(300, 'x'), identity), EntryKind::unknown);
  EXPECT_EQ(identity, FileIdentity{});
  EXPECT_EQ(look_at(folder.get(), "file", identity), EntryKind::file);
  struct stat status {};
  ASSERT_EQ(stat(temp.file("file").c_str(), &status), 0);
  EXPECT_EQ(identity.device, status.st_dev);
  EXPECT_EQ(identity.number, status.st_ino);
  EXPECT_EQ(identity.changed, status.st_ctim.tv_sec * 1000000000 + status.st_ctim.tv_nsec);
}

TEST(OpenIn, FollowsNoLinkAndDoesNotWaitForAPipe) {
  const TempDir temp;
  temp.write_file("file", "text");
  fs::create_symlink("file", temp.path() / "link");
  ASSERT_EQ(mkfifo(temp.file("pipe").c_str(), 0600), 0);
  FileDescriptor folder;
  ASSERT_EQ(open_folder_below(temp.path(), {"x"}, false, folder), FolderFault::none);
  EXPECT_TRUE(open_in(folder.get(), "file", O_RDWR));
  EXPECT_FALSE(open_in(folder.get(), "link", O_RDWR));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(open_in(folder.get(), "pipe", O_WRONLY));
  EXPECT_EQ(errno, ENXIO);
}

class CreateIn : public testing::Test {
 protected:
  CreateIn() { EXPECT_EQ(open_folder_below(temp_.path(), {"x"}, false, folder_), FolderFault::none); }

  bool create(const std::string& name) {
    file_ = create_in(folder_.get(), name, "bytes", 5, writing_);
    return static_cast<bool>(file_);
  }

  TempDir temp_;
  FileDescriptor folder_;
  FileDescriptor file_;
  bool writing_ = true;
};

TEST_F(CreateIn, LeavesTheFileAndNothingElse) {
  ASSERT_TRUE(create("name"));
  EXPECT_EQ(read_file(temp_.path() / "name"), "bytes");
  EXPECT_EQ(std::distance(fs::directory_iterator(temp_.path()), {}), 1);
  FileIdentity found;
  EXPECT_EQ(look_at(folder_.get(), "name", found), EntryKind::file);
  EXPECT_EQ(status_of(file_.get())->identity, found);
}

// Each of these is how some file system says that it does not have a way.
TEST_F(CreateIn, TakesAnotherWayWhereAFileSystemLacksOne) {
  const std::initializer_list<Call> nameless{Call::open_nameless};
  const std::initializer_list<Call> links{Call::linkat};
  const std::initializer_list<Call> all{Call::open_nameless, Call::linkat, Call::renameat2};
  int number = 0;
  for (const int error : {EOPNOTSUPP, ENOSYS, EINVAL, EISDIR, EPERM, ENOENT, EMLINK}) {
    for (const auto* lacking : {&nameless, &links, &all}) {
      const std::string name = std::to_string(number++);
      const FaultyCalls faults(*lacking, error);
      ASSERT_TRUE(create(name)) << error;
      EXPECT_TRUE(faults.any_failed());
      EXPECT_EQ(read_file(temp_.path() / name), "bytes");
    }
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(temp_.path()), {}), number);
}

TEST_F(CreateIn, WithoutNamelessFilesAndRenamesThatReplaceNothingADraftIsLinked) {
  const FaultyCalls faults({Call::open_nameless, Call::renameat2}, EINVAL);
  ASSERT_TRUE(create("name"));
  EXPECT_EQ(read_file(temp_.path() / "name"), "bytes");
  EXPECT_EQ(std::distance(fs::directory_iterator(temp_.path()), {}), 1);  // no draft
}

TEST_F(CreateIn, DraftIsRemovedWhenTheNameIsTaken) {
  temp_.write_file("name", "old");
  const FaultyCalls faults(Call::open_nameless, ENOSYS);
  EXPECT_FALSE(create("name"));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read_file(temp_.path() / "name"), "old");
  EXPECT_EQ(std::distance(fs::directory_iterator(temp_.path()), {}), 1);
}

TEST_F(CreateIn, DraftIsRemovedWhenItCannotBeLinked) {
  FaultyCalls faults({Call::open_nameless, Call::renameat2}, ENOSYS);
  faults.also(Call::linkat, EDQUOT);
  EXPECT_FALSE(create("name"));
  EXPECT_EQ(errno, EDQUOT);
  EXPECT_FALSE(writing_);
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(CreateIn, FileThatCannotBeWrittenUnderItsNameIsRemoved) {
  FaultyCalls faults({Call::open_nameless, Call::linkat, Call::renameat2}, ENOSYS);
  faults.also(Call::write, ENOSPC, 1);  // behind that of the draft
  EXPECT_FALSE(create("name"));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_TRUE(writing_);
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(CreateIn, OtherFaultsEndItWhateverTheWay) {
  {
    const FaultyCalls faults(Call::open_nameless, EIO);
    EXPECT_FALSE(create("name"));
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(writing_);
  }
  {
    const FaultyCalls faults({Call::open_nameless, Call::write}, EINVAL);
    EXPECT_FALSE(create("name"));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(writing_);
  }
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(CreateIn, FaultOfADraftOrOfTheLastWayEndsIt) {
  for (const int error : {EOPNOTSUPP, ENOSYS}) {
    const FaultyCalls faults({Call::open_nameless, Call::open}, error);
    EXPECT_FALSE(create("name"));
    EXPECT_EQ(errno, error);
    EXPECT_FALSE(writing_);
  }
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(CreateIn, WithoutDescriptorsAndWithoutRoomToMakeItFails) {
  for (const int error : {EMFILE, ENFILE}) {
    const FaultyCalls faults(Call::open_nameless, error);
    EXPECT_FALSE(create("name"));
    EXPECT_EQ(errno, error);
  }
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST_F(CreateIn, InterruptedCallIsMadeAgain) {
  const FaultyCalls faults(Call::open_nameless, EINTR, 0, 2);
  EXPECT_TRUE(create("name"));
  EXPECT_EQ(faults.calls(Call::open_nameless), 3U);
}

TEST_F(CreateIn, DoesNotReplaceWhatIsThere) {
  temp_.write_file("name", "old");
  EXPECT_FALSE(create("name"));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_FALSE(writing_);
  EXPECT_EQ(read_file(temp_.path() / "name"), "old");
}

TEST_F(CreateIn, DoesNotFollowADanglingLink) {
  fs::create_symlink(temp_.path() / "nowhere", temp_.path() / "name");
  EXPECT_FALSE(create("name"));
  EXPECT_FALSE(fs::exists(temp_.path() / "nowhere"));
}

TEST_F(CreateIn, NameThatIsTooLongIsNoFaultOfWriting) {
  EXPECT_FALSE(create(std::string(256, 'x')));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_FALSE(writing_);
  EXPECT_TRUE(fs::is_empty(temp_.path()));
}

TEST(FileIdentityEquality, BirthCountsWhereItIsKeptElseTheLastChange) {
  const FileIdentity born{1, 2, 3, 4};
  EXPECT_EQ(born, (FileIdentity{1, 2, 3, 5}));
  EXPECT_NE(born, (FileIdentity{1, 2, 4, 4}));
  EXPECT_NE(born, (FileIdentity{1, 3, 3, 4}));
  EXPECT_NE(born, (FileIdentity{2, 2, 3, 4}));
  EXPECT_NE(born, (FileIdentity{1, 2, 0, 4}));
  EXPECT_NE((FileIdentity{1, 2, 0, 4}), born);
  EXPECT_EQ((FileIdentity{1, 2, 0, 4}), (FileIdentity{1, 2, 0, 4}));
  EXPECT_NE((FileIdentity{1, 2, 0, 4}), (FileIdentity{1, 2, 0, 5}));
}

TEST(StatusOf, DescriptorThatIsNotOpenHasNone) {
  EXPECT_EQ(status_of(-1), std::nullopt);
}

TEST(WriteAll, ToldByErrnoWhenFewerBytesWereWritten) {
  const FileDescriptor full(open("/dev/full", O_WRONLY));
  ASSERT_TRUE(full);
  EXPECT_EQ(write_all(full.get(), "bytes", 5), 0u);
  EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
}  // namespace qvx
