#include "qvx/data/blob_page.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/failing_allocations.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::FakeClock;

TEST(BlobPage, CarriesOneBlobBlockOfItsSource) {
  const FakeClock clock(0, 258'000);
  const PagePtr page = blob_page_create(make_source("host", "tag"), as_bytes("hello"));
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_size(*page), 745u);
  EXPECT_STREQ(page_name(*page), "blob_data_page");
  EXPECT_EQ(page_source(*page), make_source("host", "tag"));
  EXPECT_EQ(page_first_timestamp(*page), 258u);
  EXPECT_EQ(page_last_timestamp(*page), 258u);
  EXPECT_TRUE(page_is_blob(*page));
  EXPECT_EQ(as_text(page_data(*page)), std::string_view("QVXB"
                                                        "\x02\x01\0\0\0\0\0\0"
                                                        "\x05\0\0\0\0\0\0\0"
                                                        "hello",
                                                        25));
}

TEST(BlobPage, FilledBytesStayAtTheHeader) {
  const PagePtr page = blob_page_create({}, as_bytes("hello"));
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_filled_bytes(*page), 720u);
  EXPECT_EQ(page_block_count(*page), 0u);
}

TEST(BlobPage, BlobOfNoBytesIsAccepted) {
  const PagePtr page = blob_page_create({}, {});
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_size(*page), 740u);
  EXPECT_TRUE(page_is_blob(*page));
}

TEST(BlobPage, SizeThatOverflowsWithTheHeadersMakesNoPage) {
  const std::byte* const start = as_bytes("x").data();
  EXPECT_EQ(blob_page_create({}, Bytes(start, static_cast<std::size_t>(-1))), nullptr);
  EXPECT_EQ(blob_page_create({}, Bytes(start, static_cast<std::size_t>(-20))), nullptr);
}

TEST(BlobPage, PageOf740BytesHoldsABlobOfNoBytesAndNoMore) {
  const PagePtr page = page_alloc(20, 740, {});
  ASSERT_NE(page, nullptr);
  EXPECT_FALSE(blob_page_fill(*page, as_bytes("x")));
  EXPECT_EQ(as_text(page_data(*page)), std::string(20, '\0'));
  EXPECT_TRUE(blob_page_fill(*page, {}));
  EXPECT_EQ(as_text(page_data(*page)).substr(0, 4), "QVXB");
}

TEST(BlobPage, PageWithoutRoomForTheBlockHeaderHoldsNoBlob) {
  const PagePtr page = page_alloc(0, 739, {});
  ASSERT_NE(page, nullptr);
  EXPECT_FALSE(blob_page_fill(*page, {}));
  page_mark_blob(*page);
  EXPECT_FALSE(page_is_blob(*page));
}

TEST(BlobPage, MarkMakesAPageABlobPageAndDataOrASchemaDoesNot) {
  const PagePtr page = page_alloc(0, 800, {});
  ASSERT_NE(page, nullptr);
  EXPECT_FALSE(page_is_blob(*page));
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("data")));
  page_mark_blob(*page);
  EXPECT_TRUE(page_is_blob(*page));
  EXPECT_EQ(page_filled_bytes(*page), 720u);
  EXPECT_EQ(as_text(page_schema_id(*page).bytes), "BLOB_DATA_SCHEMA");
  ASSERT_TRUE(page_consume_free_space(*page, as_bytes("x")));
  EXPECT_FALSE(page_is_blob(*page));
}

TEST(BlobPage, ShortMemoryGivesNone) {
  const test::LogCapture silence(0);
  PagePtr page;
  {
    const test::FailingAllocations none(0);
    page = blob_page_create({}, as_bytes("hello"));
  }
  EXPECT_EQ(page, nullptr);
}

}  // namespace
}  // namespace qvx
