#include "qvx/data/write/page_block_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/text.h"
#include "tests/support/allocation_sweep.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::LogMessage;

using namespace std::string_literals;

PagePtr page_of(const qvx_source& source, std::string_view data) {
  PagePtr page = page_alloc(0, 720 + data.size() + 10, {});
  page_set_source(*page, source);
  page_set_timestamps(*page, 0x0102030405060708, 0x1112131415161718);
  EXPECT_TRUE(page_consume_free_space(*page, as_bytes(data)));
  return page;
}

// Room whose unwritten bytes show.
struct Room {
  explicit Room(std::size_t size) : bytes(size, std::byte{'#'}) {}
  std::string text() const { return std::string(as_text(bytes)); }
  std::vector<std::byte> bytes;
};

TEST(PascalString, WritesTheLengthAndTheCharacters) {
  Room room(6);
  EXPECT_EQ(copy_as_pascal_string("abc", 64, room.bytes.data(), 5), 4u);
  EXPECT_EQ(room.text(),
            "\x03"
            "abc##");
}

TEST(PascalString, EmptyTextIsOneByteEvenWithoutRoom) {
  Room room(2);
  EXPECT_EQ(copy_as_pascal_string("", 64, room.bytes.data(), 0), 1u);
  EXPECT_EQ(room.text(), "\0#"s);
}

TEST(PascalString, LengthByteDoesNotCountAgainstTheCapacity) {
  Room room(4);
  EXPECT_EQ(copy_as_pascal_string("abc", 64, room.bytes.data(), 3), 4u);
  EXPECT_EQ(room.text(),
            "\x03"
            "abc");
}

TEST(PascalString, CountsNoMoreThanTheStatedCharacters) {
  Room room(4);
  EXPECT_EQ(copy_as_pascal_string("abcdef", 2, room.bytes.data(), 3), 3u);
  EXPECT_EQ(room.text(),
            "\x02"
            "ab#");
}

TEST(PascalString, TextLargerThanTheRoomIsRefused) {
  Room room(4);
  const LogCapture log;
  EXPECT_EQ(copy_as_pascal_string("abc", 64, room.bytes.data(), 2), 0u);
  EXPECT_EQ(room.text(), "####");
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3,
                                      "[qvx_copy_as_pascal_string_info_buffer] buffer of 2 bytes is too "
                                      "small to accomodate string of 3 bytes"}}));
}

TEST(PascalString, Takes255CharactersWithoutAMessage) {
  Room room(256);
  const LogCapture log;
  const std::string text(255, 'x');
  EXPECT_EQ(copy_as_pascal_string(text, 1000, room.bytes.data(), 255), 256u);
  EXPECT_EQ(room.text(), "\xFF" + text);
  EXPECT_TRUE(log.messages().empty());
}

TEST(PascalString, LongerTextIsTruncatedTo255Characters) {
  Room room(257);
  const LogCapture log;
  EXPECT_EQ(copy_as_pascal_string(std::string(300, 'x'), 1000, room.bytes.data(), 256), 256u);
  EXPECT_EQ(room.text(), "\xFF" + std::string(255, 'x') + "#");
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3,
                                      "[qvx_copy_as_pascal_string_info_buffer] string of 300 bytes cannot "
                                      "fit pascal string, truncated to 255 characters"}}));
}

TEST(PascalString, TruncatedTextThatDoesNotFitEitherLogsBothLines) {
  Room room(255);
  const LogCapture log;
  EXPECT_EQ(copy_as_pascal_string(std::string(256, 'x'), 1000, room.bytes.data(), 254), 0u);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3,
                                      "[qvx_copy_as_pascal_string_info_buffer] string of 256 bytes cannot "
                                      "fit pascal string, truncated to 255 characters"},
                                     {3,
                                      "[qvx_copy_as_pascal_string_info_buffer] buffer of 254 bytes is too "
                                      "small to accomodate string of 255 bytes"}}));
}

TEST(QvxpHeaderSize, IsTwentyFourAndTheLengths) {
  EXPECT_EQ(qvxp_header_size(make_source("", "")), 24u);
  EXPECT_EQ(qvxp_header_size(make_source("host", "tag")), 31u);
  EXPECT_EQ(qvxp_header_size(make_source(std::string(64, 'i'), "")), 88u);
  EXPECT_EQ(qvxp_header_size(make_source(std::string(99, 'i'), std::string(99, 't'))), 104u);
}

TEST(QvxpHeaderSize, OfPlainTextsCountsTheirFullLengths) {
  EXPECT_EQ(qvxp_header_size("host", "tag"), 31u);
  EXPECT_EQ(qvxp_header_size(std::string(99, 'i'), std::string(20, 't')), 143u);
}

TEST(QvxpHeader, IsBuiltFromAPage) {
  const PagePtr page = page_of(make_source("host", "tag"), "");
  Room room(33);
  EXPECT_EQ(copy_qvxp_header(*page, 'G', 0x0A0B0C0D, room.bytes), 31u);
  EXPECT_EQ(room.text(),
            "\x1FG\x0D\x0C\x0B\x0A"
            "\x08\x07\x06\x05\x04\x03\x02\x01"
            "\x18\x17\x16\x15\x14\x13\x12\x11"
            "\x04host\x03tag##"s);
}

TEST(QvxpHeader, FitsExactlyIntoItsSize) {
  const PagePtr page = page_of(make_source(std::string(64, 'i'), std::string(16, 't')), "");
  Room room(104);
  EXPECT_EQ(copy_qvxp_header(*page, 'S', 5, room.bytes), 104u);
  EXPECT_EQ(room.text()[0], 104);
  EXPECT_EQ(room.text().substr(22), "\x40" + std::string(64, 'i') + "\x10" + std::string(16, 't'));
}

TEST(QvxpHeader, ThatDoesNotFitIsRefused) {
  const PagePtr page = page_of(make_source("host", "tag"), "");
  const LogCapture log;
  for (const std::size_t size : {std::size_t{0}, std::size_t{22}, std::size_t{30}}) {
    Room room(size);
    EXPECT_EQ(copy_qvxp_header(*page, 'G', 5, room.bytes), 0u);
    EXPECT_EQ(room.text(), std::string(size, '#'));
  }
  EXPECT_EQ(log.texts(3).back(),
            "[qvx_copy_qvxp_header_into_buffer] buffer of 30 bytes is too small to "
            "accomodate QVXP header of 31 bytes");
  EXPECT_EQ(log.texts(3).size(), 3u);
}

TEST(QvxpHeader, EncodedSizeAbove32BitsIsLoggedAndKeepsItsLowBits) {
  const PagePtr page = page_of(make_source("", ""), "");
  Room room(24);
  const LogCapture log;
  EXPECT_EQ(copy_qvxp_header(*page, 'G', 0x700000001, room.bytes), 24u);
  EXPECT_EQ(room.text().substr(2, 4), "\x01\0\0\0"s);
  EXPECT_EQ(log.texts(3),
            (std::vector<std::string>{
                "[qvx_copy_qvxp_header_into_buffer] encoded stream size of 30064771073 bytes is too large"}));
}

TEST(QvxpHeader, EmbedsAFixedPartAndASource) {
  const qvxp_header header{200, 'S', 0x01020304, 7, 8};
  Room room(31);
  EXPECT_EQ(embed_qvxp_header(header, make_source("abcd", "xyz"), room.bytes), 31u);
  EXPECT_EQ(room.text(),
            "\x1FS\x04\x03\x02\x01"
            "\x07\0\0\0\0\0\0\0"
            "\x08\0\0\0\0\0\0\0"
            "\x04"
            "abcd\x03xyz"s);
}

TEST(QvxpHeader, EmbeddedHeaderThatDoesNotFitIsRefused) {
  Room room(30);
  const LogCapture log;
  EXPECT_EQ(embed_qvxp_header({}, make_source("abcd", "xyz"), room.bytes), 0u);
  EXPECT_EQ(room.text(), std::string(30, '#'));
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3,
                                      "[qvx_embed_qvxp_header_into_buffer] buffer of 30 bytes is too "
                                      "small to accomodate QVXP header of 31 bytes"}}));
}

TEST(QvxpHeader, GivesItsSourceToAPage) {
  PageBlock block;
  block.source_id = "host";
  block.source_tag = "sixteen letters!";
  const PagePtr page = page_of(make_source("a longer one", "x"), "");
  qvxp_header_source(block, *page);
  EXPECT_EQ(page_source(*page), make_source("host", "sixteen letters!"));
}

class EncodedPage : public testing::TestWithParam<qvx_encoding> {
 protected:
  // The page block of the data, read back and unpacked again.
  static std::string round_trip(const qvx_source& source, std::string_view data) {
    const PagePtr page = page_of(source, data);
    const auto block = encode_page_block(*page, GetParam());
    EXPECT_TRUE(block.has_value());
    if (!block) return "no block";
    PageBlock read;
    EXPECT_TRUE(page_block_read(*block, read));
    EXPECT_EQ(read.total_size, block->size());
    EXPECT_EQ(read.header.encoding, GetParam());
    EXPECT_EQ(read.header.first_timestamp, 0x0102030405060708u);
    EXPECT_EQ(read.header.last_timestamp, 0x1112131415161718u);
    EXPECT_EQ(read.source_id, field_text(source.id));
    EXPECT_EQ(read.source_tag, field_text(source.tag));
    EXPECT_EQ(as_text(*block).substr(0, 4), "QVXP");
    EXPECT_EQ(block_end(*block), "qvxp");
    std::uint64_t size = 0;
    const PageBuffer unpacked = qvxp_uncompress_alloc(read, &size);
    EXPECT_EQ(size, data.size());
    return unpacked ? std::string(as_text(unpacked.bytes())) : "not unpacked";
  }

  static std::string_view block_end(const std::vector<std::byte>& block) {
    return as_text(Bytes(block).last(4));
  }
};

TEST_P(EncodedPage, ReadsBackAsItWas) {
  EXPECT_EQ(round_trip(make_source("host", "tag"), "some data"), "some data");
}

TEST_P(EncodedPage, MayBeEmpty) {
  EXPECT_EQ(round_trip(make_source("", ""), ""), "");
}

TEST_P(EncodedPage, MayHaveTheLongestSource) {
  EXPECT_EQ(round_trip(make_source(std::string(64, 'i'), std::string(16, 't')), "x"), "x");
}

TEST_P(EncodedPage, MayBeLargeAndIncompressible) {
  std::string data(3'000'000, '\0');
  std::uint32_t state = 1;
  for (char& byte : data) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  EXPECT_TRUE(round_trip(make_source("host", ""), data) == data);
}

TEST_P(EncodedPage, IsSmallerWhenItsDataRepeats) {
  const PagePtr page = page_of(make_source("host", ""), std::string(100'000, 'r'));
  const auto block = encode_page_block(*page, GetParam());
  ASSERT_TRUE(block.has_value());
  EXPECT_LT(block->size(), 10'000u);
}

TEST_P(EncodedPage, WhateverAllocationFailsItIsWholeOrNothing) {
  const PagePtr page = page_of(make_source("host", ""), "data");
  const auto whole = encode_page_block(*page, GetParam());
  ASSERT_TRUE(whole);
  test::sweep_allocations([&] { return encode_page_block(*page, GetParam()); },
                          [&](const auto& made) { return made == whole; });
}

TEST_P(EncodedPage, ShortMemoryGivesNothing) {
  const PagePtr page = page_of(make_source("host", ""), "data");
  const LogCapture silence(0);
  std::optional<std::vector<std::byte>> block;
  {
    const test::FailingAllocations none(0);
    block = encode_page_block(*page, GetParam());
  }
  EXPECT_FALSE(block.has_value());
}

INSTANTIATE_TEST_SUITE_P(BothEncodings, EncodedPage, testing::Values(QVX_ENCODING_GZIP, QVX_ENCODING_SNAPPY));

TEST(EncodePageBlock, UnknownEncodingGivesNothing) {
  const PagePtr page = page_of(make_source("host", ""), "data");
  EXPECT_FALSE(encode_page_block(*page, static_cast<qvx_encoding>('Z')).has_value());
}

TEST(EncodePageBlock, PageThatWasNeverStampedGetsTheCurrentTimeWithOneError) {
  const PagePtr page = page_alloc(0, 730, {});
  const LogCapture log;
  const test::FakeClock clock(1, 0);
  const auto block = encode_page_block(*page, QVX_ENCODING_GZIP);
  ASSERT_TRUE(block.has_value());
  PageBlock read;
  ASSERT_TRUE(page_block_read(*block, read));
  EXPECT_EQ(read.header.first_timestamp, 1'000'000u);
  EXPECT_EQ(log.texts(3), (std::vector<std::string>{"[data_page] going to return local timestamp rather "
                                                    "than (correct) remote timestamp"}));
}

}  // namespace
}  // namespace qvx
