#include "qvx/data/page_block.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tests/data/sample_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"

namespace qvx {
namespace {

using test::for_every_truncation;
using test::GuardedBuffer;
using test::gzip;
using test::LogCapture;
using test::LogMessage;
using test::page_block;
using test::page_block_of_payload;
using test::with_trailer;
using Messages = std::vector<LogMessage>;

constexpr std::uint64_t k4GiBLess1 = 4294967295;
constexpr std::size_t k20MiB = 20971520;

// Reading

TEST(PageBlockRead, TakesEveryFieldFromItsPlace) {
  const GuardedBuffer unit(
      std::string("QVXP"
                  "\x1D"                // header size: 22, 1 + 3, 1 + 2
                  "S"                   // encoding
                  "\x05\0\0\0"          // encoded size
                  "\x08\7\6\5\4\3\2\1"  // first timestamp
                  "\x18\x17\x16\x15\x14\x13\x12\x11"
                  "\3src"
                  "\2tg"
                  "data!"
                  "qvxp",
                  42));
  PageBlock block;
  ASSERT_TRUE(page_block_read(unit.bytes(), block));
  EXPECT_EQ(block.header.header_size, 29);
  EXPECT_EQ(block.header.encoding, 'S');
  EXPECT_EQ(block.header.encoded_size, 5u);
  EXPECT_EQ(block.header.first_timestamp, 0x0102030405060708u);
  EXPECT_EQ(block.header.last_timestamp, 0x1112131415161718u);
  EXPECT_EQ(as_text(block.data), "data!");
  EXPECT_EQ(block.source_id, "src");
  EXPECT_EQ(block.source_tag, "tg");
  EXPECT_EQ(block.total_size, 42u);
}

TEST(PageBlockRead, SourceIdOf64CharactersAndNoTagMakeAHeaderOf88) {
  const std::string unit =
      page_block_of_payload({.source_id = std::string(64, 's'), .source_tag = ""}, "data");
  PageBlock block;
  ASSERT_TRUE(page_block_read(as_bytes(unit), block));
  EXPECT_EQ(block.header.header_size, 88);
  EXPECT_EQ(block.source_id, std::string(64, 's'));
  EXPECT_EQ(block.source_tag, "");
  EXPECT_EQ(as_text(block.data), "data");
  EXPECT_EQ(block.total_size, 100u);
}

TEST(PageBlockRead, EveryTruncationIsRefused) {
  for_every_truncation(as_bytes(page_block({}, "page")), [](Bytes unit) {
    PageBlock block;
    EXPECT_FALSE(page_block_read(unit, block)) << unit.size();
  });
}

TEST(PageBlockRead, NextBlockBeginsBehindTheEndMagic) {
  const std::string first = page_block({}, "first page");
  const std::string unit = first + page_block({.encoding = 'S'}, "second page") + std::string(100, '\0');
  PageBlock block;
  ASSERT_TRUE(page_block_read(as_bytes(unit), block));
  EXPECT_EQ(block.total_size, first.size());
  ASSERT_TRUE(page_block_read(as_bytes(unit).subspan(block.total_size), block));
  EXPECT_EQ(block.header.encoding, 'S');
}

TEST(PageBlockRead, WrongEndMagicIsRefused) {
  PageBlock block;
  for (const char* end_magic : {"QVXP", "qvxP", "Qvxp", "qvxf"})
    EXPECT_FALSE(page_block_read(as_bytes(page_block({.end_magic = end_magic}, "page")), block));
}

TEST(PageBlockRead, SizesThatReachPastTheUnitAreRefused) {
  PageBlock block;
  for (const std::uint32_t size : {5u, 65536u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFDDu, 0xFFFFFFFFu}) {
    const GuardedBuffer unit(page_block_of_payload({.encoded_size = size}, "data"));
    EXPECT_FALSE(page_block_read(unit.bytes(), block)) << size;
  }
  const GuardedBuffer unit(page_block_of_payload({.header_size = std::uint8_t{255}}, "data"));
  EXPECT_FALSE(page_block_read(unit.bytes(), block));
}

TEST(PageBlockRead, EmptyDataIsAllowed) {
  const GuardedBuffer unit(page_block_of_payload({}, ""));
  PageBlock block;
  ASSERT_TRUE(page_block_read(unit.bytes(), block));
  EXPECT_EQ(block.data.size(), 0u);
}

// A header size that leaves no room for the fixed fields moves the data into them.
TEST(PageBlockRead, HeaderSizeBelowTheFixedFieldsIsTakenAtItsWord) {
  const GuardedBuffer unit(std::string("QVXP\0G\6\0\0\0qvxp", 14));
  PageBlock block;
  ASSERT_TRUE(page_block_read(unit.bytes(), block));
  EXPECT_EQ(as_text(block.data), std::string_view("\0G\6\0\0\0", 6));
  EXPECT_EQ(block.total_size, 14u);
  EXPECT_EQ(block.header.first_timestamp, 0x70787671u);  // the end magic stands there
  EXPECT_EQ(block.header.last_timestamp, 0u);
  EXPECT_EQ(block.source_id, "");
  EXPECT_EQ(block.source_tag, "");
}

TEST(PageBlockRead, TextsLongerThanTheirFieldsAreCut) {
  const std::string unit =
      page_block_of_payload({.source_id = std::string(100, 's'), .source_tag = std::string(50, 't')}, "data");
  PageBlock block;
  ASSERT_TRUE(page_block_read(as_bytes(unit), block));
  EXPECT_EQ(block.source_id, std::string(64, 's'));
  EXPECT_EQ(block.source_tag, std::string(16, 't'));
  EXPECT_EQ(as_text(block.data), "data");
}

// A block whose header ends at the first text, with `texts` and the end magic behind the fixed fields.
std::string with_header_of_22(const std::string& texts) {
  return std::string("QVXP\x16G", 6) + test::le(static_cast<std::uint32_t>(texts.size())) +
         std::string(16, '\0') + texts + "qvxp";
}

TEST(PageBlockRead, TextsLongerThanTheHeaderEndWithTheUnit) {
  PageBlock block;
  const GuardedBuffer id_too_long(with_header_of_22("\xFFname"));
  ASSERT_TRUE(page_block_read(id_too_long.bytes(), block));
  EXPECT_EQ(block.source_id, "nameqvxp");
  EXPECT_EQ(block.source_tag, "");
  const GuardedBuffer tag_too_long(with_header_of_22("\4name\x64tag"));
  ASSERT_TRUE(page_block_read(tag_too_long.bytes(), block));
  EXPECT_EQ(block.source_id, "name");
  EXPECT_EQ(block.source_tag, "tagqvxp");
  const GuardedBuffer no_texts(with_header_of_22(""));
  ASSERT_TRUE(page_block_read(no_texts.bytes(), block));
  EXPECT_EQ(block.source_id, "vxp");  // the length is the 'q' of the end magic
  EXPECT_EQ(block.source_tag, "");
}

// Decompression

PageBlock block_of(const std::string& unit) {
  PageBlock block;
  EXPECT_TRUE(page_block_read(as_bytes(unit), block));
  return block;
}

void expect_uncompressed(const std::string& unit, std::size_t size, bool ok, const Messages& messages) {
  const PageBlock block = block_of(unit);
  {
    const GuardedBuffer to(std::string(size, '\0'));
    LogCapture log;
    EXPECT_EQ(qvxp_uncompress(block, to.bytes()), ok);
    EXPECT_EQ(log.messages(), messages);
  }
  PageBuffer to = PageBuffer::allocate(size);
  ASSERT_TRUE(to);
  LogCapture log;
  Decompressor decompressor;
  EXPECT_EQ(qvxp_uncompress(block, to, decompressor), ok);
  EXPECT_EQ(log.messages(), messages);
}

const LogMessage kInvalidSize{3, "invalid buffer size to uncompress qvxp data"};

TEST(Uncompress, NeedsABufferOfExactlyTheStatedSize) {
  for (const char encoding : {'G', 'S'}) {
    const std::string unit = page_block({.encoding = encoding}, std::string(100, 'x'));
    expect_uncompressed(unit, 99, false, {kInvalidSize});
    expect_uncompressed(unit, 101, false, {kInvalidSize});
    expect_uncompressed(unit, 0, false, {kInvalidSize});
    expect_uncompressed(unit, 100, true, {});
  }
}

TEST(Uncompress, TellsFirstWhyThereIsNoSize) {
  const LogMessage not_gzip{3, "[encoded_data] Error: stream is not gzip compressed data"};
  expect_uncompressed(page_block_of_payload({}, "\x1F"), 10, false, {not_gzip, kInvalidSize});
  expect_uncompressed(page_block_of_payload({}, "\x1F\x8B\x08"), 10, false,
                      {{3, "[encoded_data] Error: Compressed data is too small"}, kInvalidSize});
  expect_uncompressed(page_block_of_payload({.encoding = 'Z'}, "anything"), 10, false, {kInvalidSize});
}

TEST(Uncompress, UnknownEncodingFailsWithoutAMessageWhenNothingIsWanted) {
  expect_uncompressed(page_block_of_payload({.encoding = 'Z'}, "anything"), 0, false, {});
}

TEST(Uncompress, PassesTheMessageOfTheDecoderOn) {
  expect_uncompressed(page_block_of_payload({}, with_trailer(gzip("hello"), 6)), 6, false,
                      {{3, "[encoded_data] zlib error while decompressing"}});
  expect_uncompressed(page_block_of_payload({}, with_trailer(gzip("hello"), 4)), 4, false,
                      {{3, "[encoded_data] zlib decompression failed"}});
  expect_uncompressed(page_block_of_payload({.encoding = 'S'}, "\x05zzz"), 5, false,
                      {{3, "[encoded_data] snappy decompression failed"}});
}

TEST(UncompressAlloc, GivesThePageAndItsSize) {
  for (const char encoding : {'G', 'S'}) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{70000}, k20MiB}) {
      const std::string unit = page_block({.encoding = encoding}, std::string(size, 'p'));
      std::uint64_t out_size = 7;
      LogCapture log;
      const PageBuffer page = qvxp_uncompress_alloc(block_of(unit), &out_size);
      EXPECT_TRUE(page);
      EXPECT_EQ(out_size, size);
      EXPECT_TRUE(as_text(page.bytes()) == std::string(size, 'p'));
      EXPECT_EQ(log.messages(), Messages{});
    }
  }
}

TEST(UncompressAlloc, WithoutAPlaceForTheSizeFails) {
  LogCapture log;
  EXPECT_FALSE(qvxp_uncompress_alloc(block_of(page_block({}, "page")), nullptr));
  EXPECT_EQ(log.messages(), (Messages{{3, "'uncompressed_size' must be allocated"}}));
}

TEST(UncompressAlloc, FailureLeavesTheStatedSizeAndNoPage) {
  std::uint64_t out_size = 0;
  LogCapture log;
  EXPECT_FALSE(
      qvxp_uncompress_alloc(block_of(page_block_of_payload({}, with_trailer(gzip("hello"), 6))), &out_size));
  EXPECT_EQ(out_size, 6u);
  EXPECT_EQ(log.messages(), (Messages{{3, "[encoded_data] zlib error while decompressing"}}));
  log.clear();
  EXPECT_FALSE(
      qvxp_uncompress_alloc(block_of(page_block_of_payload({.encoding = 'Z'}, "anything")), &out_size));
  EXPECT_EQ(out_size, 0u);
  EXPECT_EQ(log.messages(), Messages{});
}

TEST(UncompressAlloc, TellsWhyThereIsNoSizeBeforeTheBufferAndBeforeDecoding) {
  std::uint64_t out_size = 1;
  LogCapture log;
  EXPECT_FALSE(qvxp_uncompress_alloc(block_of(page_block_of_payload({}, "\x1F")), &out_size));
  EXPECT_EQ(out_size, 0u);
  const LogMessage not_gzip{3, "[encoded_data] Error: stream is not gzip compressed data"};
  EXPECT_EQ(log.messages(), (Messages{not_gzip, not_gzip, {3, "[encoded_data] zlib decompression failed"}}));
}

TEST(UncompressAlloc, SaysWhenTheMemoryCannotBeHad) {
  if (!test::MemoryLimit::kSupported) GTEST_SKIP() << "no memory limit under this sanitizer";
  const std::string unit = page_block_of_payload({}, with_trailer(gzip("hello"), 4294967295));
  const PageBlock block = block_of(unit);
  std::uint64_t out_size = 0;
  LogCapture log;
  {
    const test::MemoryLimit limit;
    EXPECT_FALSE(qvxp_uncompress_alloc(block, &out_size));
  }
  EXPECT_EQ(out_size, k4GiBLess1);
  EXPECT_EQ(log.messages(),
            (Messages{{3, "Failed to allocate data block of size 4294967295: Cannot allocate memory"}}));
}

// Sizes that lie

std::size_t peak_memory() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<std::size_t>(usage.ru_maxrss) * 1024;
}

std::size_t resident_bytes(const PageBuffer& buffer) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> resident((buffer.bytes().size() + page - 1) / page);
  EXPECT_EQ(mincore(const_cast<std::byte*>(buffer.bytes().data()), buffer.bytes().size(), resident.data()),
            0);
  return page * static_cast<std::size_t>(
                    std::ranges::count_if(resident, [](unsigned char state) { return state & 1; }));
}

TEST(LyingSize, FourGigabytesClaimedByTwentyBytesTouchNoMemory) {
  const std::string empty_page = gzip("");
  ASSERT_EQ(empty_page.size(), 20u);
  const std::string gzip_unit = page_block_of_payload({}, with_trailer(empty_page, 4294967295));
  const std::string snappy_unit = page_block_of_payload({.encoding = 'S'}, "\xFF\xFF\xFF\xFF\x0F\x0Cpage");
  const std::size_t before = peak_memory();
  LogCapture log;
  for (const std::string* const unit : {&gzip_unit, &snappy_unit}) {
    std::uint64_t out_size = 0;
    EXPECT_FALSE(qvxp_uncompress_alloc(block_of(*unit), &out_size));
    EXPECT_EQ(out_size, k4GiBLess1);
  }
  // The memory of an emulator is its own.
  if (test::MemoryLimit::kSupported) {
    EXPECT_LT(peak_memory() - before, std::size_t{8} << 20);
  }
  EXPECT_EQ(log.messages(), (Messages{{3, "[encoded_data] zlib error while decompressing"},
                                      {3, "[encoded_data] snappy decompression failed"}}));
}

TEST(LyingSize, PageThatEndsEarlyIsAsLongAsClaimedAndUntouchedBehindItsEnd) {
  const std::string unit = page_block_of_payload({}, gzip("short") + "\xFF\xFF\xFF\xFF");
  std::uint64_t out_size = 0;
  const PageBuffer page = qvxp_uncompress_alloc(block_of(unit), &out_size);
  if (!page) GTEST_SKIP() << "this system does not lend 4 GiB";
  EXPECT_EQ(out_size, k4GiBLess1);
  ASSERT_EQ(page.bytes().size(), k4GiBLess1);
  EXPECT_LT(resident_bytes(page), std::size_t{4} << 20);
  EXPECT_EQ(as_text(page.bytes().first(8)), std::string_view("short\0\0\0", 8));
  EXPECT_EQ(page.bytes()[k4GiBLess1 / 2], std::byte{0});
  EXPECT_EQ(page.bytes().back(), std::byte{0});
}

// The decoder copies in steps larger than a byte. In a buffer that the system gives as zeros nothing of that
// may stay behind either.
TEST(LyingSize, PageThatEndsEarlyReadsAsZeroWhereTheDecoderWroteAhead) {
  for (const std::size_t claimed : {std::size_t{100000}, k20MiB}) {
    for (std::size_t run = 1; run < 5000; run = run < 300 ? run + 1 : run + 97) {
      const std::string payload = gzip(std::string(run, 'a')) + std::string(1000, 'x');
      const std::string unit =
          page_block_of_payload({}, with_trailer(payload, static_cast<std::uint32_t>(claimed)));
      std::uint64_t out_size = 0;
      const PageBuffer page = qvxp_uncompress_alloc(block_of(unit), &out_size);
      ASSERT_TRUE(page);
      ASSERT_EQ(out_size, claimed);
      ASSERT_TRUE(as_text(page.bytes().first(10000)) ==
                  std::string(run, 'a') + std::string(10000 - run, '\0'))
          << run << " of " << claimed;
    }
  }
}

}  // namespace
}  // namespace qvx
