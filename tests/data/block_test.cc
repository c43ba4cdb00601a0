#include "qvx/data/block.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/data/sample_builder.h"
#include "tests/support/fake_clock.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/stream_text.h"

namespace qvx {
namespace {

using test::for_every_truncation;
using test::GuardedBuffer;

std::string text_of(const std::array<char, 4>& magic) {
  return {magic.data(), magic.size()};
}

// Kinds

TEST(BlockType, NamesAreThoseOfTheConstants) {
  EXPECT_STREQ(block_type_name(0), "QVX_COUNTERS_BLOCK");
  EXPECT_STREQ(block_type_name(1), "QVX_EVENTS_BLOCK");
  EXPECT_STREQ(block_type_name(2), "QVX_SCHEMAS_BLOCK");
  EXPECT_STREQ(block_type_name(3), "QVX_BLOB_BLOCK");
  EXPECT_STREQ(block_type_name(5), "QVX_PAGE_BLOCK");
  EXPECT_STREQ(block_type_name(6), "QVX_CNTX_BLOCK");
}

TEST(BlockType, OtherNumbersAreUnknownBlocks) {
  EXPECT_STREQ(block_type_name(4), "Unknown block");
  EXPECT_STREQ(block_type_name(7), "Unknown block");
  EXPECT_STREQ(block_type_name(-1), "Unknown block");
}

int type_of(std::string_view bytes) {
  const GuardedBuffer guarded(bytes);
  return block_type_of(guarded.bytes());
}

TEST(BlockType, IsToldByTheFourthByteAlone) {
  EXPECT_EQ(type_of("QVXD"), 0);
  EXPECT_EQ(type_of("QVXE"), 1);
  EXPECT_EQ(type_of("QVXS"), 2);
  EXPECT_EQ(type_of("QVXB"), 3);
  EXPECT_EQ(type_of("QVXP"), 5);
  EXPECT_EQ(type_of("CNTX"), 6);
  EXPECT_EQ(type_of("QVXX"), 6);
  EXPECT_EQ(type_of("???E"), 1);
  EXPECT_EQ(type_of(std::string_view("\0\0\0E", 4)), 1);
}

TEST(BlockType, EveryOtherFourthByteIsUnknown) {
  EXPECT_EQ(type_of("QVXA"), 4);
  EXPECT_EQ(type_of("QVXC"), 4);
  const std::string known = "BDEPSX";
  for (int byte = 0; byte < 256; ++byte) {
    const char letter = static_cast<char>(byte);
    if (known.find(letter) == std::string::npos) {
      EXPECT_EQ(type_of(std::string("QVX") + letter), 4) << byte;
    }
  }
}

TEST(BlockType, FewerThanFourBytesAreUnknown) {
  EXPECT_EQ(type_of(""), 4);
  EXPECT_EQ(type_of("E"), 4);
  EXPECT_EQ(type_of("EE"), 4);
  EXPECT_EQ(type_of("EEE"), 4);
}

std::string magic_of_type(int type) {
  std::array<char, 4> magic{'?', '?', '?', '?'};
  block_magic_set(magic, type);
  return text_of(magic);
}

TEST(BlockMagic, IsThePrefixAndTheLetterOfTheType) {
  EXPECT_EQ(magic_of_type(0), "QVXD");
  EXPECT_EQ(magic_of_type(1), "QVXE");
  EXPECT_EQ(magic_of_type(2), "QVXS");
  EXPECT_EQ(magic_of_type(3), "QVXB");
  EXPECT_EQ(magic_of_type(5), "QVXP");
}

TEST(BlockMagic, OfMetricsIsNotCntxButClassifiesTheSame) {
  EXPECT_EQ(magic_of_type(6), "QVXX");
}

TEST(BlockMagic, IsNotWrittenForTypesWithoutOne) {
  EXPECT_EQ(magic_of_type(4), "????");
  EXPECT_EQ(magic_of_type(7), "????");
  EXPECT_EQ(magic_of_type(-1), "????");
}

// Headers

TEST(CountersHeader, ReadsEveryFieldFromItsPlace) {
  const GuardedBuffer block(test::counters_block(0x0102030405060708, ""));
  ASSERT_EQ(block.size(), 16u);
  const CountersHeader header = counters_header_decode(block.bytes());
  EXPECT_EQ(text_of(header.magic), "QVXD");
  EXPECT_EQ(header.timestamp, 0x0102030405060708u);
}

TEST(CountersHeader, CutShortReadsZerosForWhatIsMissing) {
  const std::string bytes = test::counters_block(0x0102030405060708, "");
  for_every_truncation(as_bytes(bytes), [](Bytes block) {
    const CountersHeader header = counters_header_decode(block);
    EXPECT_EQ(text_of(header.magic), std::string("QVXD").substr(0, block.size()) +
                                         std::string(4 - std::min<std::size_t>(block.size(), 4), '\0'));
    if (block.size() <= 8) {
      EXPECT_EQ(header.timestamp, 0u);
    }
    if (block.size() == 10) {
      EXPECT_EQ(header.timestamp, 0x0708u);
    }
    if (block.size() == 15) {
      EXPECT_EQ(header.timestamp, 0x02030405060708u);
    }
  });
}

TEST(CountersHeader, InitialisedBlockHasMagicZeroPaddingAndTheTime) {
  GuardedBuffer block(std::string(16, '\xAA'));
  const test::FakeClock clock(1714996800, 123456789);
  counters_block_init(std::span<std::byte, kCountersHeaderSize>(block.data(), kCountersHeaderSize));
  // 1714996800123456 is 0x617C7CF0FF240.
  EXPECT_EQ(block.text(), std::string_view("QVXD\0\0\0\0\x40\xF2\x0F\xCF\xC7\x17\x06\0", 16));
}

TEST(EventHeader, ReadsEveryFieldFromItsPlace) {
  const GuardedBuffer block(test::events_block({.timestamp = 0x0102030405060708,
                                                .schema_index = 0x11,
                                                .type_index = 0x2122,
                                                .num_events = std::uint8_t{0xF1}},
                                               {}));
  ASSERT_EQ(block.size(), 16u);
  const EventHeader header = event_header_decode(block.bytes());
  EXPECT_EQ(text_of(header.magic), "QVXE");
  EXPECT_EQ(header.timestamp, 0x0102030405060708u);
  EXPECT_EQ(header.schema_index, 0x11);
  EXPECT_EQ(header.type_index, 0x2122);
  EXPECT_EQ(header.num_events, 0xF1);
}

TEST(EventHeader, CutShortReadsZerosForWhatIsMissing) {
  const std::string bytes = test::events_block({.timestamp = 0x0102030405060708,
                                                .schema_index = 0x11,
                                                .type_index = 0x2122,
                                                .num_events = std::uint8_t{0xF1}},
                                               {});
  for_every_truncation(as_bytes(bytes), [](Bytes block) {
    const EventHeader header = event_header_decode(block);
    EXPECT_EQ(header.num_events, 0);
    if (block.size() <= 4) {
      EXPECT_EQ(header.timestamp, 0u);
    }
    if (block.size() == 11) {
      EXPECT_EQ(header.timestamp, 0x02030405060708u);
    }
    EXPECT_EQ(header.schema_index, block.size() >= 13 ? 0x11 : 0);
    if (block.size() <= 13) {
      EXPECT_EQ(header.type_index, 0);
    }
    if (block.size() == 14) {
      EXPECT_EQ(header.type_index, 0x22);
    }
    if (block.size() == 15) {
      EXPECT_EQ(header.type_index, 0x2122);
    }
  });
}

TEST(BlobHeader, ReadsEveryFieldFromItsPlace) {
  const GuardedBuffer block(test::blob_block(0x0102030405060708, std::string(259, 'b')));
  const BlobHeader header = blob_header_decode(block.bytes());
  EXPECT_EQ(text_of(header.magic), "QVXB");
  EXPECT_EQ(header.timestamp, 0x0102030405060708u);
  EXPECT_EQ(header.data_size, 259u);
}

TEST(BlobHeader, CutShortReadsZerosForWhatIsMissing) {
  const std::string bytes("QVXB\x08\x07\x06\x05\x04\x03\x02\x01\x18\x17\x16\x15\x14\x13\x12\x11", 20);
  EXPECT_EQ(blob_header_decode(as_bytes(bytes)).data_size, 0x1112131415161718u);
  for_every_truncation(as_bytes(bytes), [](Bytes block) {
    const BlobHeader header = blob_header_decode(block);
    EXPECT_EQ(text_of(header.magic)[3], block.size() >= 4 ? 'B' : '\0');
    if (block.size() <= 4) {
      EXPECT_EQ(header.timestamp, 0u);
    }
    if (block.size() <= 12) {
      EXPECT_EQ(header.data_size, 0u);
    }
    if (block.size() == 19) {
      EXPECT_EQ(header.data_size, 0x12131415161718u);
    }
  });
}

TEST(SchemasBlock, ReadsSizeCountAndIdentifiers) {
  std::vector<qvx_schema_id> ids;
  for (std::uint8_t i = 0; i < 14; ++i)
    ids.push_back(test::id_of_byte(static_cast<std::uint8_t>(0x60 + i)));
  // Sixteen bytes of header and fifteen identifiers: the last stays empty.
  const GuardedBuffer block(test::schemas_block(ids, 0x0102));
  ASSERT_EQ(block.size(), 256u);
  const SchemasHeader header = schemas_header_decode(block.bytes());
  EXPECT_EQ(header.block_size, 0x0102);
  EXPECT_EQ(header.num_schemas, 14);
  EXPECT_EQ(schema_id_text(schemas_block_id(block.bytes(), 0)), "60606060606060606060606060606060");
  EXPECT_EQ(schema_id_text(schemas_block_id(block.bytes(), 6)), "66666666666666666666666666666666");
  EXPECT_EQ(schema_id_text(schemas_block_id(block.bytes(), 13)), "6d6d6d6d6d6d6d6d6d6d6d6d6d6d6d6d");
}

TEST(SchemasBlock, CutShortReadsZerosForWhatIsMissing) {
  const std::string bytes = test::schemas_block({test::id_of_byte(0x60)}, 0x0102, std::uint8_t{0xF1});
  for_every_truncation(as_bytes(bytes), [](Bytes block) {
    const SchemasHeader header = schemas_header_decode(block);
    EXPECT_EQ(header.block_size, block.size() >= 6 ? 0x0102 : block.size() == 5 ? 0x02 : 0);
    EXPECT_EQ(header.num_schemas, block.size() >= 7 ? 0xF1 : 0);
  });
}

TEST(SchemasBlock, AnIdentifierMayEndWithTheBlock) {
  const GuardedBuffer block(test::schemas_block({test::id_of_byte(0x60)}).substr(0, 32));
  EXPECT_EQ(schemas_block_id(block.bytes(), 0), test::id_of_byte(0x60));
}

// Dumps

TEST(CountersHeader, DumpShowsMagicAndTime) {
  const std::string bytes = test::counters_block(18446744073709551615u, "");
  EXPECT_EQ(counters_header_dump(counters_header_decode(as_bytes(bytes))),
            "Data block\n"
            " magic number         = QVXD\n"
            " last timestamp       = 18446744073709551615\n");
}

TEST(EventHeader, DumpShowsNoTime) {
  const char* const expected =
      "Event header\n"
      " magic number         = QVXE\n"
      " schema index         = 255\n"
      " type index           = 65535\n"
      " number of events     = 254\n";
  const EventHeader header{{'Q', 'V', 'X', 'E'}, 1714996800000000, 255, 65535, 254};
  EXPECT_EQ(event_header_dump(header), expected);
  EXPECT_EQ(test::text_written([&](std::FILE* stream) { print_event_header(stream, header); }), expected);
}

TEST(BlobHeader, DumpShowsTimeAndSize) {
  const char* const expected =
      "Blob block\n"
      " magic number         = QVXB\n"
      " timestamp            = 1714996800000000\n"
      " data size            = 18446744073709551615\n";
  const BlobHeader header{{'Q', 'V', 'X', 'B'}, 1714996800000000, 18446744073709551615u};
  EXPECT_EQ(blob_header_dump(header), expected);
  EXPECT_EQ(test::text_written([&](std::FILE* stream) { print_blob_header(stream, header); }), expected);
}

TEST(Dumps, PadAMagicThatIsCutShort) {
  EXPECT_EQ(event_header_dump(event_header_decode(as_bytes("QV"))),
            "Event header\n"
            " magic number         =   QV\n"
            " schema index         = 0\n"
            " type index           = 0\n"
            " number of events     = 0\n");
}

TEST(CountersBlockLayout, GivesNoSizeForTheValues) {
  EXPECT_EQ(test::text_written(print_counters_block_layout),
            "Field                       Offset    Size\n"
            " header.magic               0         4\n"
            " padding                    4         4\n"
            " timestamp                  8         8\n"
            " values[]                   16      \n");
}

TEST(EventHeaderLayout, ListsNameOffsetAndSize) {
  EXPECT_EQ(test::text_written(print_event_header_layout),
            "Field                       Offset    Size\n"
            " magic                      0         4\n"
            " timestamp                  4         8\n"
            " schema_index               12        1\n"
            " type_index                 13        2\n"
            " num_events                 15        1\n");
}

TEST(BlobHeaderLayout, ListsNameOffsetAndSize) {
  EXPECT_EQ(test::text_written(print_blob_header_layout),
            "Field                       Offset    Size\n"
            " header.magic               0         4\n"
            " timestamp                  4         8\n"
            " data_size                  12        8\n");
}

}  // namespace
}  // namespace qvx
