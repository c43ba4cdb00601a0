#include "qvx/data/page.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/bytes.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"

namespace qvx {
namespace {

using test::FailingAllocations;
using test::FakeClock;
using test::LogCapture;
using test::LogMessage;
using test::MemoryLimit;

constexpr std::size_t kFilledBytesOffset = 12;
constexpr std::size_t kDataSizeOffset = 20;
constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();

PagePtr regular_page(std::uint32_t data_size, std::uint64_t size) {
  return page_alloc(data_size, size, {QVX_REGULAR_PAGE, "test", 0});
}

// What another process may do to a page.
void scribble_filled_bytes(qvx_data_page& page, std::uint64_t filled) {
  store_le(page_header(page).data() + kFilledBytesOffset, filled);
}
void scribble_data_size(qvx_data_page& page, std::uint32_t size) {
  store_le(page_header(page).data() + kDataSizeOffset, size);
}

std::string address_of(qvx_data_page& page) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", static_cast<void*>(page_header(page).data()));
  return text;
}

TEST(Page, HeaderFieldsFollowOneAnotherPacked) {
  EXPECT_EQ(offset_of(kPageLayout, "page_size"), 4u);
  EXPECT_EQ(offset_of(kPageLayout, "filled_bytes"), 12u);
  EXPECT_EQ(offset_of(kPageLayout, "data_size"), 20u);
  EXPECT_EQ(offset_of(kPageLayout, "first_timestamp"), 24u);
  EXPECT_EQ(offset_of(kPageLayout, "last_timestamp"), 32u);
  EXPECT_EQ(offset_of(kPageLayout, "schema_id"), 40u);
  EXPECT_EQ(offset_of(kPageLayout, "source_id"), 56u);
  EXPECT_EQ(offset_of(kPageLayout, "source_tag"), 120u);
  EXPECT_EQ(offset_of(kPageLayout, "kind"), 136u);
  EXPECT_EQ(offset_of(kPageLayout, "name"), 140u);
  EXPECT_EQ(offset_of(kPageLayout, "creator"), 208u);
  EXPECT_EQ(offset_of(kPageLayout, "number"), 212u);
  EXPECT_EQ(offset_of(kPageLayout, "adapters[0]"), 216u);
  EXPECT_EQ(offset_of(kPageLayout, "adapters[5]"), 636u);
}

TEST(Page, NewPageIsEmptyAndStatesItsRequest) {
  const PagePtr page = page_alloc(16, 800, {QVX_REGULAR_PAGE, "requested", 7});
  ASSERT_NE(page, nullptr);
  std::string expected(720, '\0');
  expected.replace(0, 24,
                   std::string("\x01\x16\x01\0"
                               "\x20\x03\0\0\0\0\0\0"
                               "\xD0\x02\0\0\0\0\0\0"
                               "\x10\0\0\0",
                               24));
  expected.replace(140, 9, "requested");
  expected[212] = 7;
  EXPECT_EQ(as_text(page_header(*page)), expected);
  EXPECT_EQ(page_version(*page), 71169u);
  EXPECT_EQ(page_size(*page), 800u);
  EXPECT_EQ(page_filled_bytes(*page), 720u);
  EXPECT_EQ(page_data_size(*page), 16u);
  EXPECT_EQ(page_last_timestamp(*page), 0u);
  EXPECT_EQ(page_kind(*page), QVX_REGULAR_PAGE);
  EXPECT_STREQ(page_name(*page), "requested");
  EXPECT_EQ(page_number(*page), 7u);
  EXPECT_EQ(page_creator(*page), 0);
  EXPECT_EQ(as_text(page_data(*page)), std::string(80, '\0'));
  EXPECT_TRUE(page_filled_data(*page).empty());
}

TEST(Page, RequestedSizeOfZeroStandsForTheWholeDataArea) {
  const PagePtr page = regular_page(0, 1000);
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_data_size(*page), 280u);
}

TEST(Page, HeaderAloneIsAPage) {
  const PagePtr page = regular_page(0, 720);
  ASSERT_NE(page, nullptr);
  EXPECT_TRUE(page_data(*page).empty());
  EXPECT_EQ(page_data_size(*page), 0u);
  EXPECT_EQ(page_block_count(*page), 0u);
  EXPECT_EQ(page_blocks(*page).count, 0u);
}

TEST(Page, AllocationOfOrdinaryMemoryIsTraced) {
  const LogCapture log;
  const PagePtr page = regular_page(0, 1000);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{7, "Allocating regular_page: size: 1000 ptr=" + address_of(*page)}}));
}

TEST(Page, PageWithoutRoomForItsBlockFails) {
  const LogCapture log;
  EXPECT_EQ(regular_page(281, 1000), nullptr);
  EXPECT_EQ(regular_page(0, 719), nullptr);
  EXPECT_EQ(regular_page(1, 0), nullptr);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[data_page] Data page allocation failed: Invalid argument"},
                                     {3, "[data_page] Data page allocation failed: Invalid argument"},
                                     {3, "[data_page] Data page allocation failed: Invalid argument"}}));
  EXPECT_NE(regular_page(280, 1000), nullptr);
}

TEST(Page, UnknownKindFails) {
  const LogCapture log;
  EXPECT_EQ(page_alloc(0, 1000, {2, "test", 0}), nullptr);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[data_page] Data page allocation failed: Invalid argument"}}));
}

TEST(Page, MemoryThatCannotBeHadFails) {
  if (!MemoryLimit::kSupported) GTEST_SKIP() << "the sanitizer ends the process for such a size";
  const LogCapture log;
  EXPECT_EQ(regular_page(16, std::uint64_t{1} << 62), nullptr);
  EXPECT_EQ(regular_page(16, kLargest), nullptr);
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{
                                {3, "[data_page] Data page allocation failed: Cannot allocate memory"},
                                {3, "[data_page] Data page allocation failed: Cannot allocate memory"}}));
}

TEST(Page, ShortMemoryForTheRecordFails) {
  const LogCapture silence(0);
  PagePtr page;
  {
    const FailingAllocations none(0);
    page = regular_page(16, 1000);
  }
  EXPECT_EQ(page, nullptr);
}

TEST(Page, BlockSizeThatTheHeaderCannotStateFails) {
  const LogCapture log;
  EXPECT_EQ(regular_page(0, 720 + (std::uint64_t{1} << 32)), nullptr);
  EXPECT_EQ(log.texts(3), (std::vector<std::string>{"[data_page] Data page allocation failed: Value too "
                                                    "large for defined data type"}));
}

TEST(Page, FreeingNothingIsAllowed) {
  const LogCapture log;
  page_free(nullptr);
  page_set_first_timestamp(nullptr);
  page_update_last_timestamp(nullptr);
  EXPECT_TRUE(log.messages().empty());
}

TEST(PageTimestamps, StampsTakeTheCurrentTimeAndTraceIt) {
  const PagePtr page = regular_page(0, 1000);
  const LogCapture log;
  FakeClock clock(1'700'000'000, 123'456'789);
  page_set_first_timestamp(page.get());
  clock.advance_microseconds(5);
  page_update_last_timestamp(page.get());
  EXPECT_EQ(page_first_timestamp(*page), 1'700'000'000'123'456u);
  EXPECT_EQ(page_last_timestamp(*page), 1'700'000'000'123'461u);
  const std::string address = address_of(*page);
  EXPECT_EQ(
      log.messages(),
      (std::vector<LogMessage>{{7, "[data_page] set first_ts = 1700000000123456 for page " + address},
                               {7, "[data_page] update last_ts = 1700000000123461 for page " + address},
                               {7, "[data_page] page " + address + ", first_timestamp = 1700000000123456"}}));
}

TEST(PageTimestamps, PageThatWasNeverStampedBeginsNow) {
  const PagePtr page = regular_page(0, 1000);
  const LogCapture log;
  const FakeClock clock(1'700'000'000, 0);
  EXPECT_EQ(page_first_timestamp(*page), 1'700'000'000'000'000u);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{
                {7, "[data_page] page " + address_of(*page) + ", first_timestamp = 0"},
                {3, "[data_page] going to return local timestamp rather than (correct) remote timestamp"}}));
}

TEST(PageTimestamps, BothCanBeSet) {
  const PagePtr page = regular_page(0, 1000);
  page_set_timestamps(*page, 11, 22);
  EXPECT_EQ(page_first_timestamp(*page), 11u);
  EXPECT_EQ(page_last_timestamp(*page), 22u);
}

TEST(PageFreeSpace, BytesFollowOneAnother) {
  const PagePtr page = regular_page(0, 726);
  EXPECT_TRUE(page_consume_free_space(*page, as_bytes("abcd")));
  EXPECT_TRUE(page_consume_free_space(*page, as_bytes("ef")));
  EXPECT_EQ(page_filled_bytes(*page), 726u);
  EXPECT_EQ(as_text(page_filled_data(*page)), "abcdef");
}

TEST(PageFreeSpace, CopyThatDoesNotFitIsRefusedWhole) {
  const PagePtr page = regular_page(0, 726);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("abc")));
  const LogCapture log;
  EXPECT_FALSE(page_consume_free_space(*page, as_bytes("defg")));
  EXPECT_EQ(page_filled_bytes(*page), 723u);
  EXPECT_EQ(as_text(page_data(*page)), std::string_view("abc\0\0\0", 6));
  EXPECT_TRUE(log.messages().empty());
}

TEST(PageFreeSpace, FullPageTakesNothingButNothing) {
  const PagePtr page = regular_page(0, 723);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("abc")));
  EXPECT_FALSE(page_consume_free_space(*page, as_bytes("d")));
  EXPECT_TRUE(page_consume_free_space(*page, {}));
  EXPECT_EQ(page_filled_bytes(*page), 723u);
}

TEST(PageFreeSpace, FilledBytesBehindThePageAreLoggedAndNothingIsCopied) {
  const PagePtr page = regular_page(0, 1000);
  scribble_filled_bytes(*page, 1001);
  const LogCapture log;
  EXPECT_FALSE(page_consume_free_space(*page, as_bytes("a")));
  EXPECT_TRUE(page_consume_free_space(*page, {}));
  const LogMessage message{
      3, "qvx_data_page_consume_free_space: page->filled_bytes > page->page_size  1001 1000 "};
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{message, message}));
  EXPECT_EQ(as_text(page_data(*page)), std::string(280, '\0'));
}

TEST(PageFreeSpace, ScribbledHeaderCannotMoveTheCopyOutOfTheDataArea) {
  const PagePtr page = regular_page(0, 1000);
  store_le<std::uint64_t>(page_header(*page).data() + 4, kLargest);  // page_size
  const LogCapture log;
  for (const std::uint64_t filled : {std::uint64_t{0}, std::uint64_t{719}, kLargest, kLargest - 1}) {
    scribble_filled_bytes(*page, filled);
    EXPECT_FALSE(page_consume_free_space(*page, as_bytes("abc"))) << filled;
    EXPECT_EQ(page_filled_bytes(*page), filled);
  }
  EXPECT_EQ(page_size(*page), 1000u);
}

TEST(PageFreeSpace, ResetMakesThePageEmptyAndKeepsItsFirstTimestamp) {
  const PagePtr page = regular_page(0, 726);
  page_set_timestamps(*page, 11, 22);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("abc")));
  page_reset(*page);
  EXPECT_EQ(page_filled_bytes(*page), 720u);
  EXPECT_EQ(page_last_timestamp(*page), 0u);
  EXPECT_EQ(page_first_timestamp(*page), 11u);
  EXPECT_EQ(as_text(page_data(*page)).substr(0, 3), "abc");
}

TEST(PageBlocksToSave, OneByteIsOneBlockAndNoByteIsNone) {
  const PagePtr page = regular_page(16, 800);
  EXPECT_EQ(page_block_count(*page), 0u);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("a")));
  EXPECT_EQ(page_filled_bytes(*page), 721u);
  EXPECT_EQ(page_block_count(*page), 1u);
  const PageBlocks blocks = page_blocks(*page);
  EXPECT_EQ(blocks.block_size, 16u);
  EXPECT_EQ(blocks.count, 1u);
  EXPECT_EQ(as_text(blocks.data), "a");
  EXPECT_EQ(blocks.padding, 15u);
}

TEST(PageBlocksToSave, LastBlockMayBeFullOrReachBehindThePage) {
  const PagePtr page = regular_page(16, 760);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes(std::string(32, 'a'))));
  EXPECT_EQ(page_block_count(*page), 2u);
  EXPECT_EQ(page_blocks(*page).padding, 0u);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes(std::string(8, 'b'))));
  EXPECT_EQ(page_block_count(*page), 3u);
  EXPECT_EQ(page_blocks(*page).data.size(), 40u);
  EXPECT_EQ(page_blocks(*page).padding, 8u);
}

TEST(PageBlocksToSave, DataSizeOfZeroCountsNothingAndSavesTheDataAreaAsOneBlock) {
  const PagePtr page = regular_page(16, 800);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("abc")));
  scribble_data_size(*page, 0);
  EXPECT_EQ(page_block_count(*page), 0u);
  const PageBlocks blocks = page_blocks(*page);
  EXPECT_EQ(blocks.block_size, 80u);
  EXPECT_EQ(blocks.count, 1u);
  EXPECT_EQ(blocks.padding, 77u);
}

TEST(PageBlocksToSave, ScribbledHeaderNeverReachesBehindThePage) {
  const PagePtr page = regular_page(16, 800);
  for (const std::uint64_t filled : {std::uint64_t{801}, kLargest, kLargest - 15}) {
    scribble_filled_bytes(*page, filled);
    EXPECT_EQ(page_filled_data(*page).size(), 80u);
    EXPECT_EQ(page_block_count(*page), 5u);
  }
  scribble_filled_bytes(*page, 0);
  EXPECT_TRUE(page_filled_data(*page).empty());
  EXPECT_EQ(page_block_count(*page), 0u);
  scribble_filled_bytes(*page, 800);
  scribble_data_size(*page, 0xFFFFFFFF);
  const PageBlocks blocks = page_blocks(*page);
  EXPECT_EQ(blocks.count, 1u);
  EXPECT_EQ(blocks.data.size(), 80u);
  EXPECT_EQ(blocks.padding, 4294967215u);
}

TEST(PageFields, SchemaSourceAndAdaptersAreKept) {
  const PagePtr page = regular_page(0, 720);
  qvx_schema_id id;
  id.bytes.fill(std::byte{0xAB});
  page_set_schema_id(*page, id);
  const qvx_source source = make_source(std::string(64, 'i'), std::string(16, 't'));
  page_set_source(*page, source);
  std::array<qvx_adapter_info, 2> adapters;
  adapters[0].name.fill('n');
  adapters[1].port_2_guid.fill('2');
  page_set_adapters(*page, adapters);
  EXPECT_EQ(page_schema_id(*page), id);
  EXPECT_EQ(page_source(*page), source);
  const auto kept = page_adapters(*page);
  EXPECT_EQ(kept[0], adapters[0]);
  EXPECT_EQ(kept[1], adapters[1]);
  EXPECT_EQ(kept[2], qvx_adapter_info{});
  const std::string_view header = as_text(page_header(*page));
  EXPECT_EQ(header.substr(40, 16), std::string(16, '\xAB'));
  EXPECT_EQ(header.substr(56, 80), std::string(64, 'i') + std::string(16, 't'));
  EXPECT_EQ(header.substr(216, 21), std::string(20, 'n') + '\0');
  EXPECT_EQ(header.substr(300 + 68, 16), std::string(16, '2'));
}

TEST(PageFields, SettingAdaptersClearsTheOthersAndTakesSixAtMost) {
  const PagePtr page = regular_page(0, 800);
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("data")));
  std::array<qvx_adapter_info, 8> many;
  for (qvx_adapter_info& entry : many)
    entry.name.fill('x');
  page_set_adapters(*page, many);
  EXPECT_EQ(page_adapters(*page)[5], many[5]);
  EXPECT_EQ(as_text(page_filled_data(*page)), "data");
  page_set_adapters(*page, {});
  EXPECT_EQ(page_adapters(*page)[0], qvx_adapter_info{});
  EXPECT_EQ(page_adapters(*page)[5], qvx_adapter_info{});
}

}  // namespace
}  // namespace qvx
