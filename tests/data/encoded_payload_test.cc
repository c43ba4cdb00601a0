#include "qvx/data/encoded_payload.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <zlib.h>

#include <algorithm>
#include <random>
#include <span>
#include <string>
#include <utility>

#include "tests/data/sample_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::for_every_truncation;
using test::Guard;
using test::GuardedBuffer;
using test::gzip;
using test::LogCapture;
using test::LogMessage;
using test::snappy_stream;
using test::with_trailer;
using Messages = std::vector<LogMessage>;

const Messages kNone;
const Messages kNotGzip{{3, "[encoded_data] Error: stream is not gzip compressed data"}};
const Messages kTooSmall{{3, "[encoded_data] Error: Compressed data is too small"}};
const Messages kZlibError{{3, "[encoded_data] zlib error while decompressing"}};
const Messages kZlibFailed{{3, "[encoded_data] zlib decompression failed"}};
const Messages kSnappyFailed{{3, "[encoded_data] snappy decompression failed"}};

// Bytes that compress, with repeats near and far.
std::string sample_text(std::size_t size) {
  std::mt19937 random(7);
  std::string text;
  while (text.size() < size) {
    if (text.size() > 20 && random() % 2 == 0) {
      text += text.substr(random() % (text.size() - 10), random() % 40);
    } else {
      text += static_cast<char>(random() % 64);
    }
  }
  text.resize(size);
  return text;
}

// What came out of a decompression, with the messages that it logged.
struct Outcome {
  bool ok = false;
  std::string bytes;  // the whole output, when ok
  Messages messages;
};

// Decompresses on guarded pages, with the guard on either side of the output.
Outcome decompress(char encoding, std::string_view stream, std::size_t room, Guard guard = Guard::kBehind) {
  const GuardedBuffer in(stream);
  const GuardedBuffer out(std::string(room, '\xAA'), guard);
  LogCapture log;
  const bool ok = encoded_decompress(static_cast<std::uint8_t>(encoding), in.bytes(), out.bytes());
  return {ok, ok ? std::string(out.text()) : "", log.messages()};
}

void expect_bytes(char encoding, std::string_view stream, const std::string& expected) {
  for (const Guard guard : {Guard::kBehind, Guard::kBefore}) {
    const Outcome outcome = decompress(encoding, stream, expected.size(), guard);
    EXPECT_TRUE(outcome.ok);
    EXPECT_TRUE(outcome.bytes == expected);
    EXPECT_EQ(outcome.messages, kNone);
  }
}

void expect_failure(char encoding, std::string_view stream, std::size_t room, const Messages& messages) {
  const Outcome outcome = decompress(encoding, stream, room);
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.messages, messages);
}

struct StatedSize {
  std::uint64_t size;
  Messages messages;
  bool operator==(const StatedSize&) const = default;
};

StatedSize stated_size(char encoding, std::string_view stream) {
  const GuardedBuffer in(stream);
  LogCapture log;
  const std::uint64_t size = encoded_uncompressed_size(static_cast<std::uint8_t>(encoding), in.bytes());
  return {size, log.messages()};
}

// Streams spelt out, so that not only what zlib writes is read.
const std::string kStored(
    "\x1F\x8B\x08\0\0\0\0\0\0\x03"
    "\x01\x05\0\xFA\xFFhello"
    "\x86\xA6\x10\x36\x05\0\0\0",
    28);
const std::string kEmpty("\x1F\x8B\x08\0\0\0\0\0\0\x03\x03\0\0\0\0\0\0\0\0\0", 20);

// Sizes

TEST(UncompressedSize, OfGzipIsTheLastFourBytes) {
  EXPECT_EQ(stated_size('G', kStored), (StatedSize{5, {}}));
  EXPECT_EQ(stated_size('G', kEmpty), (StatedSize{0, {}}));
  EXPECT_EQ(stated_size('G', with_trailer(kEmpty, 0xFEDCBA98)), (StatedSize{0xFEDCBA98, {}}));
}

TEST(UncompressedSize, OfFourBytesAreThoseFour) {
  EXPECT_EQ(stated_size('G', "\x1F\x8B\x02\x01"), (StatedSize{0x01028B1F, {}}));
}

TEST(UncompressedSize, GzipNeedsItsSignature) {
  for (const std::string stream : {"", "\x1F", "\x1F\x8A", "\x1E\x8B", "\x8B\x1F\x08zzzzzzzzzzzzzzz"})
    EXPECT_EQ(stated_size('G', stream), (StatedSize{0, kNotGzip}));
}

TEST(UncompressedSize, GzipOfTwoOrThreeBytesIsTooSmall) {
  EXPECT_EQ(stated_size('G', "\x1F\x8B"), (StatedSize{0, kTooSmall}));
  EXPECT_EQ(stated_size('G', "\x1F\x8B\x08"), (StatedSize{0, kTooSmall}));
}

TEST(UncompressedSize, OfSnappyIsTheLengthAtItsStart) {
  EXPECT_EQ(stated_size('S', snappy_stream("")), (StatedSize{0, {}}));
  EXPECT_EQ(stated_size('S', snappy_stream(std::string(300, 'x'))), (StatedSize{300, {}}));
  EXPECT_EQ(stated_size('S', "\xFF\xFF\xFF\xFF\x0F"), (StatedSize{4294967295, {}}));
}

TEST(UncompressedSize, OfAnInvalidSnappyLengthIsZeroWithoutAMessage) {
  EXPECT_EQ(stated_size('S', ""), (StatedSize{0, {}}));
  EXPECT_EQ(stated_size('S', "\x80"), (StatedSize{0, {}}));
  EXPECT_EQ(stated_size('S', "\xFF\xFF\xFF\xFF\x1F"), (StatedSize{0, {}}));
  EXPECT_EQ(stated_size('S', "\xFF\xFF\xFF\xFF\xFF\xFF"), (StatedSize{0, {}}));
}

TEST(Encoding, AnyOtherHasNoSizeAndFailsWithoutAMessage) {
  for (const char encoding : {'Z', 'g', 's', '\0', '\xFF'}) {
    EXPECT_EQ(stated_size(encoding, kStored), (StatedSize{0, {}}));
    expect_failure(encoding, kStored, 5, kNone);
    expect_failure(encoding, "", 0, kNone);
  }
}

// Gzip

TEST(Gzip, ReadsAStoredAndAnEmptyStream) {
  expect_bytes('G', kStored, "hello");
  expect_bytes('G', kEmpty, "");
}

// The type of the first deflate block: 0 stored, 1 fixed codes, 2 dynamic codes.
int block_kind(const std::string& stream) {
  return static_cast<unsigned char>(stream.at(10)) >> 1 & 3;
}

TEST(Gzip, ReadsEveryKindOfDeflateBlock) {
  const std::string text = sample_text(200000);
  const std::string stored = gzip(text, 0);
  const std::string fixed = gzip(text, 6, Z_FIXED);
  const std::string dynamic = gzip(text, 9);
  ASSERT_EQ(block_kind(stored), 0);
  ASSERT_EQ(block_kind(fixed), 1);
  ASSERT_EQ(block_kind(dynamic), 2);
  expect_bytes('G', stored, text);
  expect_bytes('G', fixed, text);
  expect_bytes('G', dynamic, text);
  expect_bytes('G', gzip(text, 6, Z_HUFFMAN_ONLY), text);
  expect_bytes('G', gzip(text, 6, Z_RLE), text);
}

TEST(Gzip, ReadsPagesOfEverySmallSize) {
  const std::string text = sample_text(300);
  for (std::size_t size = 0; size <= text.size(); ++size)
    expect_bytes('G', gzip(text.substr(0, size)), text.substr(0, size));
}

TEST(Gzip, SkipsNameCommentExtraAndHeaderChecksum) {
  const std::string text = sample_text(1000);
  const auto with = [&](const test::GzipHeader& header) { return gzip(text, 6, Z_DEFAULT_STRATEGY, header); };
  EXPECT_EQ(with({.name = "page.bin"})[3], 0x08);
  EXPECT_EQ(with({.name = "n", .comment = "c", .extra = "e", .header_checksum = true})[3], 0x1E);
  expect_bytes('G', with({.name = "page.bin"}), text);
  expect_bytes('G', with({.comment = "a page"}), text);
  expect_bytes('G', with({.extra = std::string(1000, '\0')}), text);
  expect_bytes('G', with({.header_checksum = true}), text);
  expect_bytes('G', with({.name = "n", .comment = "c", .extra = "e", .header_checksum = true}), text);
}

TEST(Gzip, WrongHeaderChecksumIsAZlibError) {
  std::string stream = gzip("page", 6, Z_DEFAULT_STRATEGY, {.header_checksum = true});
  ASSERT_EQ(stream[3], 0x02);
  stream[10] = static_cast<char>(stream[10] ^ 1);
  expect_failure('G', stream, 4, kZlibError);
}

TEST(Gzip, ReservedFlagsAreAZlibError) {
  for (const char flag : {'\x20', '\x40', '\x80'}) {
    std::string stream = kStored;
    stream[3] = flag;
    expect_failure('G', stream, 5, kZlibError);
  }
}

TEST(Gzip, WrongSignatureMethodChecksumAndSizeAreZlibErrors) {
  for (const std::size_t place : {0u, 1u, 2u, 20u, 23u, 24u, 27u}) {
    std::string stream = kStored;
    stream[place] = static_cast<char>(stream[place] ^ 4);
    expect_failure('G', stream, 5, kZlibError);
  }
}

TEST(Gzip, AStreamCutShortIsAFailureAndNoStreamAnError) {
  for (const std::string& stream :
       {kStored, gzip(sample_text(500)), gzip("p", 6, 0, {.name = "n", .extra = "e"})}) {
    for_every_truncation(as_bytes(stream), [](Bytes cut) {
      expect_failure('G', as_text(cut), 500, cut.empty() ? kZlibError : kZlibFailed);
    });
  }
}

TEST(Gzip, OutputTooSmallIsAFailure) {
  const std::string text = sample_text(500);
  for (const std::string& stream : {gzip(text), gzip(text, 0), gzip(text, 6, Z_FIXED)}) {
    for (std::size_t room = 0; room < text.size(); ++room)
      expect_failure('G', stream, room, kZlibFailed);
  }
}

TEST(Gzip, OfJoinedMembersTheFirstIsTakenAndTheRestIsZero) {
  const std::string joined = gzip("first") + gzip(sample_text(1000));
  const Outcome outcome = decompress('G', joined, 1000);
  EXPECT_TRUE(outcome.ok);
  EXPECT_TRUE(outcome.bytes == "first" + std::string(995, '\0'));
  EXPECT_EQ(outcome.messages, kNone);
  EXPECT_TRUE(decompress('G', kEmpty + joined, 7).bytes == std::string(7, '\0'));
}

TEST(Gzip, WhatFollowsTheStreamIsIgnored) {
  expect_bytes('G', kStored + "anything at all, as long as it likes to be", "hello");
  expect_bytes('G', kStored + "\x1F\x8B", "hello");
}

// The decoder copies in steps larger than a byte, which must not show behind a page that ends early.
TEST(Gzip, WritingAheadDoesNotShow) {
  for (std::size_t run = 1; run < 300; ++run) {
    const Outcome outcome = decompress('G', gzip(std::string(run, 'a')) + std::string(1000, 'x'), 1000);
    ASSERT_TRUE(outcome.ok);
    ASSERT_TRUE(outcome.bytes == std::string(run, 'a') + std::string(1000 - run, '\0')) << run;
  }
}

TEST(Gzip, TellsHowMuchItProduced) {
  std::array<std::byte, 64> out;
  const auto produced = [&](const std::string& stream) {
    const Decompressed result = Decompressor().decompress('G', as_bytes(stream), out);
    return result.ok ? result.produced : 999;
  };
  EXPECT_EQ(produced(kStored), 5u);
  EXPECT_EQ(produced(kEmpty), 0u);
  EXPECT_EQ(produced(gzip(std::string(64, 'x'))), 64u);
  EXPECT_EQ(produced(gzip("hello", 6, Z_DEFAULT_STRATEGY, {.header_checksum = true})), 5u);
}

TEST(Gzip, CountsRightInMoreThanFourGigabytesOfRoom) {
  constexpr std::size_t kRoom = (std::size_t{4} << 30) + 3;
  void* const room =
      mmap(nullptr, kRoom, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (room == MAP_FAILED) GTEST_SKIP() << "no address space";
  const std::span<std::byte> to(static_cast<std::byte*>(room), kRoom);
  const std::string stream = gzip("hello", 6, Z_DEFAULT_STRATEGY, {.header_checksum = true});
  const Decompressed result = Decompressor().decompress('G', as_bytes(stream), to);
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.produced, 5u);
  EXPECT_EQ(as_text(to.first(6)), std::string_view("hello\0", 6));
  munmap(room, kRoom);
}

// Against zlib

struct Inflated {
  bool ok = false;
  bool negative = false;
  std::size_t consumed = 0;
  std::string bytes;
};

Inflated inflated(std::string_view stream, std::size_t room, int window_bits) {
  z_stream z{};
  EXPECT_EQ(inflateInit2(&z, window_bits), Z_OK);
  std::string out(std::max<std::size_t>(room, 1), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
  z.avail_in = static_cast<uInt>(stream.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(room);
  const int result = inflate(&z, Z_NO_FLUSH);
  out.resize(room - z.avail_out);
  const std::size_t consumed = stream.size() - z.avail_in;
  inflateEnd(&z);
  return {result == Z_STREAM_END, result < 0, consumed, out};
}

// A stream with a few bytes changed. Most changes would stop at the checksum, so where the changed deflate
// data can still be read, the trailer is made to fit it.
std::string mutated(std::string stream, std::mt19937& random) {
  constexpr std::size_t kHeader = 10;
  constexpr std::size_t kTrailer = 8;
  const bool in_data = random() % 8 != 0;
  for (auto changes = 1 + random() % 3; changes > 0; --changes) {
    const std::size_t place =
        in_data ? kHeader + random() % std::min<std::size_t>(stream.size() - kHeader - kTrailer, 120)
                : random() % stream.size();
    stream[place] = static_cast<char>(stream[place] ^ (1 << random() % 8));
  }
  if (!in_data) return stream;
  const Inflated raw = inflated(std::string_view(stream).substr(kHeader), 1 << 16, -15);
  if (!raw.ok) return stream;
  const uLong checksum =
      crc32(0, reinterpret_cast<const Bytef*>(raw.bytes.data()), static_cast<uInt>(raw.bytes.size()));
  stream.resize(kHeader + raw.consumed);
  return stream + test::le(static_cast<std::uint32_t>(checksum)) +
         test::le(static_cast<std::uint32_t>(raw.bytes.size()));
}

TEST(Gzip, MutatedStreamsGiveWhatZlibGives) {
  std::mt19937 random(20240506);
  const std::string text = sample_text(600);
  const std::vector<std::string> streams{gzip(text), gzip(text, 6, Z_FIXED), gzip(text, 0),
                                         gzip(text, 1, Z_HUFFMAN_ONLY), gzip(std::string(600, 'r'))};
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    const std::string stream = mutated(streams[random() % streams.size()], random);
    const std::size_t room = random() % 4 == 0 ? random() % 1200 : 1 << 12;
    const Inflated expected = inflated(stream, room, 31);
    const Outcome outcome = decompress('G', stream, room);
    if (expected.ok) {
      ++accepted;
      ASSERT_TRUE(outcome.ok) << round;
      ASSERT_TRUE(outcome.bytes == expected.bytes + std::string(room - expected.bytes.size(), '\0')) << round;
    } else if (!outcome.ok) {
      // The fast decoder may take a stream that zlib does not, about once in 14,000.
      ASSERT_EQ(outcome.messages, expected.negative ? kZlibError : kZlibFailed) << round;
    }
  }
  EXPECT_GT(accepted, 1000);
}

// Snappy

TEST(Gzip, ADecompressorThatWasMovedGoesOn) {
  const std::string stream = gzip("hello");
  std::string out(5, '\0');
  const auto unpacks = [&](Decompressor& decompressor) {
    out.assign(5, '\0');
    return decompressor.decompress('G', as_bytes(stream), std::as_writable_bytes(std::span(out))).ok &&
           out == "hello";
  };
  Decompressor first;
  EXPECT_TRUE(unpacks(first));
  Decompressor second(std::move(first));
  EXPECT_TRUE(unpacks(second));
  Decompressor third;
  EXPECT_TRUE(unpacks(third));
  third = std::move(second);
  EXPECT_TRUE(unpacks(third));
}

TEST(Snappy, ReadsPagesOfManySizes) {
  const std::string text = sample_text(200000);
  for (const std::size_t size :
       {0u, 1u, 2u, 15u, 16u, 17u, 60u, 61u, 255u, 256u, 4096u, 65535u, 65536u, 65537u, 200000u})
    expect_bytes('S', snappy_stream(text.substr(0, size)), text.substr(0, size));
}

TEST(Snappy, ReadsAStreamSpeltOut) {
  // Eleven bytes: a literal "abc" and a copy of 8 bytes from 3 back.
  expect_bytes('S',
               std::string("\x0B\x08"
                           "abc\x11\x03",
                           7),
               "abcabcabcab");
}

TEST(Snappy, AStreamCutShortIsAFailure) {
  const std::string text = sample_text(500);
  for_every_truncation(as_bytes(snappy_stream(text)),
                       [](Bytes cut) { expect_failure('S', as_text(cut), 500, kSnappyFailed); });
}

TEST(Snappy, CorruptStreamsAreFailures) {
  expect_failure('S',
                 std::string("\x0B\x08"
                             "abc\x11\x04",
                             7),
                 11, kSnappyFailed);  // from before the start
  expect_failure('S',
                 std::string("\x0B\x08"
                             "abc\x11\x00",
                             7),
                 11, kSnappyFailed);  // from itself
  expect_failure('S',
                 std::string("\x0B\x08"
                             "abc\x11\x03"
                             "\x00x",
                             9),
                 11, kSnappyFailed);  // a byte too many
  expect_failure('S',
                 std::string("\x0C\x08"
                             "abc\x11\x03",
                             7),
                 12, kSnappyFailed);  // a byte too few
}

TEST(Snappy, OutputTooSmallIsAFailure) {
  const std::string text = sample_text(100);
  for (std::size_t room = 0; room < text.size(); ++room)
    expect_failure('S', snappy_stream(text), room, kSnappyFailed);
}

TEST(Snappy, WhatTheOutputHasMoreIsZero) {
  const Outcome outcome = decompress('S', snappy_stream("hello"), 40);
  EXPECT_TRUE(outcome.ok);
  EXPECT_TRUE(outcome.bytes == "hello" + std::string(35, '\0'));
}

TEST(Snappy, MutatedStreamsStayInsideTheirBuffers) {
  std::mt19937 random(20240507);
  const std::string text = sample_text(600);
  const std::string stream = snappy_stream(text);
  for (int round = 0; round < 20000; ++round) {
    std::string changed = stream;
    for (auto changes = 1 + random() % 3; changes > 0; --changes)
      changed[random() % changed.size()] = static_cast<char>(random());
    const Outcome outcome = decompress('S', changed, 600);
    ASSERT_EQ(outcome.messages, outcome.ok ? kNone : kSnappyFailed);
  }
}

}  // namespace
}  // namespace qvx
