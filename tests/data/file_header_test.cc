#include "qvx/data/file_header.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tests/data/sample_builder.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/stream_text.h"

namespace qvx {
namespace {

using test::FileHeader;
using test::GuardedBuffer;
using test::id_of_byte;
using test::LogCapture;
using test::LogMessage;
using Messages = std::vector<LogMessage>;

qvx_data_file_header decoded(const std::string& bytes) {
  EXPECT_EQ(bytes.size(), 256u);
  const GuardedBuffer guarded(bytes);
  return file_header_decode(std::span<const std::byte, kFileHeaderSize>(guarded.data(), kFileHeaderSize));
}

template <std::size_t kSize>
std::string text_of(const std::array<char, kSize>& chars) {
  return {chars.data(), chars.size()};
}

// Every field different, every byte of a number different.
FileHeader full_header() {
  FileHeader header;
  header.version_major = 1;
  header.version_minor = 6;
  header.version_patch = 0x0203;
  header.file_size = 0x1112131415161718;
  header.source_id = "the-source";
  header.source_tag = "the-tag";
  header.first_timestamp = 0x2122232425262728;
  header.last_timestamp = 0x3132333435363738;
  header.block_size = 0x41424344;
  header.counters_schema_id = id_of_byte(0xC0);
  for (std::uint8_t slot = 0; slot < 7; ++slot)
    header.event_schema_ids.push_back(id_of_byte(static_cast<std::uint8_t>(0xE0 + slot)));
  header.byte_order = 0x51;
  return header;
}

TEST(FileHeader, ReadsEveryFieldFromItsPlace) {
  const qvx_data_file_header header = decoded(test::file_header(full_header()));
  EXPECT_EQ(text_of(header.magic), "QVXF");
  EXPECT_EQ(header.version_major, 1);
  EXPECT_EQ(header.version_minor, 6);
  EXPECT_EQ(header.version_patch, 0x0203);
  EXPECT_EQ(header.file_size, 0x1112131415161718u);
  EXPECT_EQ(text_of(header.source_id), "the-source" + std::string(54, '\0'));
  EXPECT_EQ(text_of(header.source_tag), "the-tag" + std::string(9, '\0'));
  EXPECT_EQ(header.first_timestamp, 0x2122232425262728u);
  EXPECT_EQ(header.last_timestamp, 0x3132333435363738u);
  EXPECT_EQ(header.block_size, 0x41424344u);
  EXPECT_EQ(header.counters_schema_id, id_of_byte(0xC0));
  EXPECT_EQ(header.event_schema_ids[0], id_of_byte(0xE0));
  EXPECT_EQ(header.event_schema_ids[6], id_of_byte(0xE6));
  EXPECT_EQ(header.byte_order, 0x51);
  EXPECT_EQ(text_of(header.magic_end), "qvxf");
}

TEST(FileHeader, EncodeGivesBackTheBytesThatWereDecoded) {
  std::string bytes(256, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>(255 - i);
  const FileHeaderBytes encoded = file_header_encode(decoded(bytes));
  EXPECT_EQ(as_text(encoded), bytes);
  EXPECT_EQ(as_text(file_header_encode(decoded(test::file_header(full_header())))),
            test::file_header(full_header()));
}

TEST(FileHeader, CreatedHeaderIsThatOfAnEmptyFile) {
  const auto header = create_header();
  ASSERT_NE(header, nullptr);
  std::string expected(256, '\0');
  expected.replace(0, 7, "QVXF\x01\x07");  // with its NUL the low byte of the patch
  expected[9] = '\x01';                    // 256
  expected.replace(252, 4, "qvxf");
  EXPECT_EQ(as_text(file_header_encode(*header)), expected);
  EXPECT_TRUE(validate_header(*header));
}

TEST(FileHeader, IsNotCreatedWhenMemoryIsShort) {
  const test::FailingAllocations none(0);
  EXPECT_EQ(create_header(), nullptr);
}

// Validation

struct Verdict {
  bool valid;
  Messages messages;
};

Verdict verdict(const FileHeader& header) {
  LogCapture log;
  const bool valid = validate_header(decoded(test::file_header(header)));
  return {valid, log.messages()};
}

void expect_accepted(const FileHeader& header) {
  const Verdict found = verdict(header);
  EXPECT_TRUE(found.valid);
  EXPECT_EQ(found.messages, Messages{});
}

void expect_rejected(const FileHeader& header, const std::string& message) {
  const Verdict found = verdict(header);
  EXPECT_FALSE(found.valid);
  EXPECT_EQ(found.messages, (Messages{{3, message}}));
}

TEST(ValidateHeader, WrongKindLetterGivesMagicMessageNotVersionMessage) {
  for (const char* magic : {"QVXE", "QVXf", "QVXD", "qvxf", "QVYF", "RVXF", "QWXF"})
    expect_rejected({.magic = magic, .version_major = 9}, "Wrong data page magic number.");
  expect_rejected({.magic = ""}, "Wrong data page magic number.");
}

TEST(ValidateHeader, AcceptsOlderMinorsAndAnyPatch) {
  expect_accepted({});
  expect_accepted({.version_minor = 7, .version_patch = 9});
  expect_accepted({.version_minor = 0, .version_patch = 0});
  expect_accepted({.version_minor = 7, .version_patch = 65535});
}

TEST(ValidateHeader, RejectsNewerMinorsAndOtherMajors) {
  expect_rejected({.version_minor = 8},
                  "Version of data page 1.8.0 is incompatible with Quorvex version 1.22.1");
  expect_rejected({.version_major = 2},
                  "Version of data page 2.7.0 is incompatible with Quorvex version 1.22.1");
  expect_rejected({.version_major = 0},
                  "Version of data page 0.7.0 is incompatible with Quorvex version 1.22.1");
  expect_rejected({.version_major = 255, .version_minor = 255, .version_patch = 65535},
                  "Version of data page 255.255.65535 is incompatible with Quorvex version 1.22.1");
}

TEST(ValidateHeader, WrongVersionIsToldBeforeWrongSize) {
  expect_rejected({.version_major = 2, .file_size = 0},
                  "Version of data page 2.7.0 is incompatible with Quorvex version 1.22.1");
}

TEST(ValidateHeader, FileSizeStartsAt256) {
  expect_accepted({.file_size = 256});
  expect_rejected({.file_size = 255}, "Wrong data file size 255 is less then file header size 256");
  expect_rejected({.file_size = 0}, "Wrong data file size 0 is less then file header size 256");
}

TEST(ValidateHeader, FileSizeIsComparedUnsigned) {
  expect_accepted({.file_size = 0x8000000000000000});
  expect_accepted({.file_size = 0xFFFFFFFFFFFFFFFF});
}

TEST(ValidateHeader, LooksNeitherAtTheEndMagicNorAtTheByteOrderNorAtTheBlockSize) {
  expect_accepted({.block_size = 0, .byte_order = 1, .magic_end = "\xFF\xFE*?"});
}

// The two bounds that a reader checks the block size against.
TEST(FileHeader, BlockSizesGoFrom16To125829119) {
  EXPECT_EQ(kMinBlockSize, 16u);
  EXPECT_EQ(kBlockSizeEnd, 125829120u);
}

// Dumps

TEST(HeaderDump, ShowsEveryFieldOnALine) {
  FileHeader header = full_header();
  header.version_patch = 9;
  header.file_size = 18446744073709551615u;
  header.first_timestamp = 1714996800000000;
  header.last_timestamp = 1714996800000001;
  header.block_size = 4294967295;
  header.byte_order = 1;
  header.magic_end = "abc?";
  header.event_schema_ids.resize(2);
  const char* const expected =
      "Data file header\n"
      " magic number         = QVXF\n"
      " version              = 1.6.9\n"
      " file size            = 18446744073709551615\n"
      " source id            = the-source\n"
      " source tag           = the-tag\n"
      " first timestamp      = 1714996800000000\n"
      " last timestamp       = 1714996800000001\n"
      " data block size      = 4294967295\n"
      " counters schema id   = c0c0c0c0c0c0c0c0c0c0c0c0c0c0c0c0\n"
      " schema id[0]         = e0e0e0e0e0e0e0e0e0e0e0e0e0e0e0e0\n"
      " schema id[1]         = e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1\n"
      " schema id[2]         = 00000000000000000000000000000000\n"
      " schema id[3]         = 00000000000000000000000000000000\n"
      " schema id[4]         = 00000000000000000000000000000000\n"
      " schema id[5]         = 00000000000000000000000000000000\n"
      " schema id[6]         = 00000000000000000000000000000000\n"
      " byte order           = 1 (BE)\n"
      " end magic number     = abc?\n";
  const qvx_data_file_header record = decoded(test::file_header(header));
  EXPECT_EQ(header_dump(record), expected);
  EXPECT_EQ(test::text_written([&](std::FILE* stream) { print_header(stream, record); }), expected);
}

TEST(HeaderDump, AnAllZeroHeaderPadsTheMagicsAndIsLittleEndian) {
  EXPECT_EQ(header_dump({}),
            "Data file header\n"
            " magic number         =     \n"
            " version              = 0.0.0\n"
            " file size            = 0\n"
            " source id            = \n"
            " source tag           = \n"
            " first timestamp      = 0\n"
            " last timestamp       = 0\n"
            " data block size      = 0\n"
            " counters schema id   = 00000000000000000000000000000000\n"
            " schema id[0]         = 00000000000000000000000000000000\n"
            " schema id[1]         = 00000000000000000000000000000000\n"
            " schema id[2]         = 00000000000000000000000000000000\n"
            " schema id[3]         = 00000000000000000000000000000000\n"
            " schema id[4]         = 00000000000000000000000000000000\n"
            " schema id[5]         = 00000000000000000000000000000000\n"
            " schema id[6]         = 00000000000000000000000000000000\n"
            " byte order           = 0 (LE)\n"
            " end magic number     =     \n");
}

TEST(HeaderDump, TextsWithoutATerminatorEndWithTheirField) {
  FileHeader header;
  header.source_id = std::string(64, 'i');
  header.source_tag = std::string(16, 't');
  header.first_timestamp = 0x4141414141414141;
  const std::string dump = header_dump(decoded(test::file_header(header)));
  EXPECT_NE(dump.find(" source id            = " + std::string(64, 'i') + "\n"), std::string::npos);
  EXPECT_NE(dump.find(" source tag           = tttttttttttttttt\n"), std::string::npos);
}

TEST(HeaderDump, SaysSoWhereTheTextOfAnIdCannotBeMade) {
  qvx_data_file_header header;
  std::string dump;
  {
    const test::FailingAllocations only_the_dump(1);
    dump = header_dump(header);
  }
  EXPECT_NE(dump.find(" counters schema id   = Failed to get schema id string\n"), std::string::npos);
  EXPECT_NE(dump.find(" schema id[0]         = Failed to get schema id string\n"), std::string::npos);
  EXPECT_NE(dump.find(" schema id[6]         = Failed to get schema id string\n"), std::string::npos);
}

TEST(HeaderLayout, ListsNameOffsetAndSizeOnStandardOutput) {
  testing::internal::CaptureStdout();
  print_header_layout();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Field                       Offset    Size\n"
            " magic                      0         4\n"
            " version                    4         4\n"
            " file_size                  8         8\n"
            " source_id                  16        64\n"
            " source_tag                 80        16\n"
            " first_timestamp            96        8\n"
            " last_timestamp             104       8\n"
            " block_size                 112       4\n"
            " counters_schema_id         116       16\n"
            " event_schema_ids           132       112\n"
            " byte_order                 244       1\n"
            " padding                    245       7\n"
            " magic_end                  252       4\n");
}

TEST(HeaderEventSchemaIdText, HasSevenSlots) {
  FileHeader header;
  header.event_schema_ids = {id_of_byte(0x0A), id_of_byte(0xFF)};
  const qvx_data_file_header record = decoded(test::file_header(header));
  EXPECT_EQ(header_event_schema_id_text(record, 0), "0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a");
  EXPECT_EQ(header_event_schema_id_text(record, 1), "ffffffffffffffffffffffffffffffff");
  EXPECT_EQ(header_event_schema_id_text(record, 6), "00000000000000000000000000000000");
  EXPECT_FALSE(header_event_schema_id_text(record, 7).has_value());
  EXPECT_FALSE(header_event_schema_id_text(record, static_cast<std::size_t>(-1)).has_value());
  const test::FailingAllocations none(0);
  EXPECT_FALSE(header_event_schema_id_text(record, 0).has_value());
}

TEST(Magic, SetWritesThePrefixAndTheLetter) {
  std::array<char, 4> magic{'?', '?', '?', '?'};
  magic_set(magic, 'D');
  EXPECT_EQ(text_of(magic), "QVXD");
  magic_set_lower(magic, 'D');
  EXPECT_EQ(text_of(magic), "qvxd");
  magic_set_lower(magic, '\xC4');
  EXPECT_EQ(text_of(magic), "qvx\xC4");
}

TEST(Magic, IsNeedsAllFourBytes) {
  const auto is = [](const char(&text)[5], char letter) {
    return magic_is(std::span<const char, 4>(text, 4), letter);
  };
  EXPECT_TRUE(is("QVXF", 'F'));
  EXPECT_FALSE(is("QVXF", 'E'));
  EXPECT_FALSE(is("qVXF", 'F'));
  EXPECT_FALSE(is("QvXF", 'F'));
  EXPECT_FALSE(is("QVxF", 'F'));
}

TEST(Magic, EqualComparesAllFourBytes) {
  const auto equal = [](const char(&a)[5], const char(&b)[5]) {
    return magic_equal(std::span<const char, 4>(a, 4), std::span<const char, 4>(b, 4));
  };
  EXPECT_TRUE(equal("CNTX", "CNTX"));
  EXPECT_FALSE(equal("CNTX", "QNTX"));
  EXPECT_FALSE(equal("CNTX", "CNTx"));
}

}  // namespace
}  // namespace qvx
