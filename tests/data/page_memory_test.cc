// Pages in shared memory, with a second process where it takes two.
#include "qvx/data/page_memory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "qvx/support/text.h"
#include "tests/data/shared_object.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::in_another_process;
using test::LogCapture;
using test::LogMessage;
using test::ObjectName;
using test::text_of_pointer;

TEST(SharedPage, IsCreatedSizedAndCleared) {
  const ObjectName name;
  const LogCapture log;
  const PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{7, "Creating shared-mem named " + name.object()},
                                     {7, "shared memory was created: " + name.object()},
                                     {6, "Allocating shared_page: " + name.object() +
                                             " of size: 4096 ptr=" + text_of_pointer(page->memory)}}));
  EXPECT_EQ(page_kind(*page), QVX_SHARED_PAGE);
  EXPECT_EQ(page_name(*page), name.object());
  EXPECT_EQ(page_creator(*page), getpid());
  EXPECT_EQ(load_le<std::int32_t>(page_header(*page).data() + 208), getpid());
  EXPECT_EQ(page_filled_bytes(*page), 720u);
  EXPECT_EQ(page_size(*page), 4096u);
}

TEST(SharedPage, CreatorRemovesTheNameWhenItIsFreed) {
  const ObjectName name;
  PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  const std::string address = text_of_pointer(page->memory);
  const LogCapture log;
  page.reset();
  EXPECT_FALSE(name.exists());
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{
                                {6, "Freeing shared-memory page: " + address},
                                {6, "| unlinking shared memory: " + name.object() + " " + address + " 4096"},
                                {6, "| --> shm_unlink(" + name.object() + ") ok"}}));
}

TEST(SharedPage, OpeningKeepsTheContentsAndFreeingItKeepsTheName) {
  const ObjectName name;
  const PagePtr created = name.allocate();
  ASSERT_NE(created, nullptr);
  page_set_timestamps(*created, 11, 22);
  page_set_source(*created, make_source("host", "tag"));
  ASSERT_TRUE(page_consume_free_space(*created, as_bytes("data")));

  const LogCapture log;
  PagePtr opened = name.allocate();
  ASSERT_NE(opened, nullptr);
  const std::string address = text_of_pointer(opened->memory);
  EXPECT_EQ(page_creator(*opened), -1);
  EXPECT_EQ(load_le<std::int32_t>(page_header(*opened).data() + 208), getpid());
  EXPECT_EQ(page_first_timestamp(*opened), 11u);
  EXPECT_EQ(page_last_timestamp(*opened), 0u);
  EXPECT_EQ(page_source(*opened), make_source("host", "tag"));
  EXPECT_EQ(as_text(page_data(*opened)).substr(0, 5), std::string_view("data\0", 5));
  opened.reset();
  EXPECT_TRUE(name.exists());
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{
                {7, "Creating shared-mem named " + name.object()},
                {6, "shared memory was opened: " + name.object()},
                {6, "Allocating shared_page: " + name.object() + " of size: 4096 ptr=" + address},
                {7, "[data_page] page " + address + ", first_timestamp = 11"},
                {6, "Freeing shared-memory page: " + address},
                {6, "| unmapping shared memory: " + name.object() + " " + address + " 4096"},
                {6, "| --> munmap (page=" + address + ", size=4096) "},
                {6, "| ----> ok"}}));
}

TEST(SharedPage, TwoProcessesSeeOneAnothersData) {
  const ObjectName name;
  const PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  page_set_timestamps(*page, 11, 22);
  std::copy_n("from the parent", 15, reinterpret_cast<char*>(page_data(*page).data()));
  EXPECT_TRUE(in_another_process([&] {
    const PagePtr opened = name.allocate();
    if (opened == nullptr || page_creator(*opened) != -1) return false;
    if (page_first_timestamp(*opened) != 11) return false;
    if (as_text(page_data(*opened)).substr(0, 15) != "from the parent") return false;
    page_set_source(*opened, make_source("child", "tag"));
    return page_consume_free_space(*opened, as_bytes("from the child!"));
  }));
  EXPECT_TRUE(name.exists()) << "the child only unmaps";
  EXPECT_EQ(as_text(page_filled_data(*page)), "from the child!");
  EXPECT_EQ(page_source(*page), make_source("child", "tag"));
}

TEST(SharedPage, OutlivesAProcessThatCreatedItAndDiedWithoutFreeing) {
  const ObjectName name;
  ASSERT_TRUE(in_another_process([&] {
    qvx_data_page* const page = name.allocate().release();
    return page != nullptr && page_consume_free_space(*page, as_bytes("left behind"));
  }));
  PagePtr opened = name.allocate();
  ASSERT_NE(opened, nullptr);
  EXPECT_EQ(page_creator(*opened), -1);
  EXPECT_EQ(as_text(page_data(*opened)).substr(0, 11), "left behind");
  opened.reset();
  EXPECT_TRUE(name.exists());
}

TEST(SharedPage, ForkedCopyOfTheCreatorOnlyUnmaps) {
  const ObjectName name;
  PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  EXPECT_TRUE(in_another_process([&] {
    page.reset();
    return name.exists();
  }));
  EXPECT_TRUE(name.exists());
}

TEST(SharedPage, OtherProcessMayScribbleOverTheHeader) {
  const ObjectName name;
  const PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  ASSERT_TRUE(in_another_process([&] {
    const PagePtr opened = name.allocate();
    if (opened == nullptr) return false;
    for (std::byte& byte : page_header(*opened))
      byte = std::byte{0xFF};
    return true;
  }));
  const LogCapture log;
  EXPECT_EQ(page_size(*page), 4096u);
  EXPECT_EQ(page_name(*page), name.object());
  EXPECT_EQ(page_filled_data(*page).size(), 3376u);
  EXPECT_EQ(page_blocks(*page).count, 1u);
  EXPECT_FALSE(page_consume_free_space(*page, as_bytes("x")));
  EXPECT_EQ(field_text(page_source(*page).id).size(), 64u);
}

TEST(SharedPage, ObjectOfALivingCreatorThatIsTooSmallIsNotMappedAndBothSizesAreTold) {
  const ObjectName name;
  const PagePtr small = name.allocate(4095);
  ASSERT_NE(small, nullptr);
  const LogCapture log;
  EXPECT_EQ(name.allocate(4096), nullptr);
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{
                                {7, "Creating shared-mem named " + name.object()},
                                {3, "[qvx_allocate_shared_mem] shared memory " + name.object() +
                                        " has 4095 bytes, the page needs 4096"},
                                {3, "FAILED to allocate shared_page: " + name.object() + " of size: 4096 "},
                                {3, "[data_page] Data page allocation failed: No buffer space available"}}));
  EXPECT_TRUE(name.exists()) << "what others made is not removed";
}

TEST(SharedPage, ObjectLargerThanThePageIsMappedInPart) {
  const ObjectName name;
  name.make(100000);
  const PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_data(*page).size(), 3376u);
}

TEST(SharedPage, NameThatTheSystemRefusesFails) {
  const LogCapture log;
  EXPECT_EQ(page_alloc(16, 4096, {QVX_SHARED_PAGE, "no/such/folder", 3}), nullptr);
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{
                                {7, "Creating shared-mem named no/such/folder_3"},
                                {3, "[qvx_allocate_shared_mem] cannot create shared memory no/such/folder_3"},
                                {3, "FAILED to allocate shared_page: no/such/folder_3 of size: 4096 "},
                                {3, "[data_page] Data page allocation failed: Invalid argument"}}));
}

TEST(SharedPage, SizeThatTheSystemRefusesRemovesTheNewObject) {
  const ObjectName name;
  const LogCapture log;
  EXPECT_EQ(name.allocate(std::uint64_t{1} << 63), nullptr);
  EXPECT_FALSE(name.exists());
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{
                {7, "Creating shared-mem named " + name.object()},
                {3, "[qvx_allocate_shared_mem] Cannot ftruncate shared page " + name.object() +
                        ".  Cleaning up this page"},
                {3, "FAILED to allocate shared_page: " + name.object() + " of size: 9223372036854775808 "},
                {3, "[data_page] Data page allocation failed: Invalid argument"}}));
}

TEST(SharedPage, StorageThatIsNotThereFailsInsteadOfEndingTheProcessLater) {
  const ObjectName name;
  const LogCapture log;
  EXPECT_EQ(name.allocate(std::uint64_t{1} << 45), nullptr);
  EXPECT_FALSE(name.exists());
  EXPECT_TRUE(log.has(3, "[qvx_allocate_shared_mem] Cannot ftruncate shared page " + name.object() +
                             ".  Cleaning up this page"));
}

TEST(SharedPage, NameIsCutAt118Characters) {
  const LogCapture log;
  const std::string base = "qvx_" + std::to_string(getpid()) + std::string(200, 'n');
  const PagePtr page = page_alloc(16, 4096, {QVX_SHARED_PAGE, base.c_str(), 3});
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_name(*page), base.substr(0, 118));
  const std::string_view header = as_text(page_header(*page));
  EXPECT_EQ(header.substr(140, 68), base.substr(0, 67) + '\0');
}

TEST(SharedPage, AbsentNameIsAnEmptyOne) {
  const LogCapture log;
  const PagePtr page = page_alloc(16, 4096, {QVX_REGULAR_PAGE, nullptr, 3});
  ASSERT_NE(page, nullptr);
  EXPECT_STREQ(page_name(*page), "");
}

TEST(SharedPage, NameThatVanishedIsReportedWhenFreeing) {
  const ObjectName name;
  PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  shm_unlink(name.object().c_str());
  const std::string address = text_of_pointer(page->memory);
  const LogCapture log;
  page.reset();
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{
                                {6, "Freeing shared-memory page: " + address},
                                {6, "| unlinking shared memory: " + name.object() + " " + address + " 4096"},
                                {6, "| --> shm_unlink(" + name.object() + ") failed"},
                                {3, "Problem freeing shared-memory page"}}));
}

TEST(SharedPage, MemoryThatCannotBeUnmappedIsReportedWhenFreeing) {
  const ObjectName name;
  const PagePtr creator = name.allocate();
  PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  std::byte* const memory = page->memory;
  page->memory = memory + 1;  // not the start of a page of the system
  const LogCapture log;
  page.reset();
  EXPECT_EQ(log.texts(3),
            (std::vector<std::string>{"| --> cannot unmap (" + text_of_pointer(memory + 1) + ", 4096)",
                                      "Problem freeing shared-memory page"}));
  EXPECT_EQ(munmap(memory, 4096), 0);
}

}  // namespace
}  // namespace qvx
