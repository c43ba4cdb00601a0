#include "examples/recording.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "qvx/support/bytes.h"
#include "qvx/support/version.h"
#include "tests/support/temp_dir.h"

namespace qvx::examples {
namespace {

using test::TempDir;

std::string text_of(const ByteArray& bytes) {
  return std::string(as_text(bytes));
}

TEST(Packer, PutsValuesSideBySideInLittleEndianOrder) {
  const Packer packer =
      Packer().add(std::uint16_t{0x0201}).add(std::int8_t{-1}).add(std::uint32_t{0x06050403});
  EXPECT_EQ(text_of(packer.bytes()), std::string("\x01\x02\xFF\x03\x04\x05\x06", 7));
}

TEST(Packer, CutsTextsThatLeaveNoRoomForTheTerminator) {
  EXPECT_EQ(text_of(Packer().add_text("abcd", 4).bytes()), std::string("abc\0", 4));
  EXPECT_EQ(text_of(Packer().add_text("", 3).bytes()), std::string("\0\0\0", 3));
}

TEST(Blocks, CountersBlockHasMagicPaddingTimeAndValues) {
  const ByteArray block = counters_block(0x0102, Packer().add(std::uint8_t{7}));
  EXPECT_EQ(text_of(block), std::string("QVXD\0\0\0\0\x02\x01\0\0\0\0\0\0\x07", 17));
}

TEST(Blocks, EventBlockHasMagicTimeIndexesCountAndEvents) {
  const std::array<Packer, 2> events = {Packer().add('a'), Packer().add('b')};
  const ByteArray block = event_block({3, 4}, 0x0102, events);
  EXPECT_EQ(text_of(block), std::string("QVXE\x02\x01\0\0\0\0\0\0\x03\x04\0\x02"
                                        "ab",
                                        18));
}

TEST(Blocks, SchemasBlockHasSizeCountAndSevenIdentifiersInAMinimalBlock) {
  std::array<qvx_schema_id, kEventSchemaSlots> ids;
  ids[0].bytes.fill(std::byte{'a'});
  ids[6].bytes.fill(std::byte{'g'});
  const std::string block = text_of(schemas_block(ids));
  ASSERT_EQ(block.size(), 256u);
  EXPECT_EQ(block.substr(0, 7), std::string("QVXS\0\x01\x07", 7));
  EXPECT_EQ(block.substr(16, 32), std::string(16, 'a') + std::string(16, '\0'));
  EXPECT_EQ(block.substr(16 + 96), std::string(16, 'g') + std::string(128, '\0'));
}

TEST(Schemas, RefuseATypeWithAnUnknownFieldType) {
  Schemas schemas;
  schemas.add_schema("provider", pack_version(1, 0, 0));
  EXPECT_THROW(schemas.add_type("event", {{"field", "", "no_such_type", 0, 1}}), std::runtime_error);
}

TEST(Schemas, LargestBlockHoldsAllCountersOrTheLargestEvent) {
  Schemas schemas;
  schemas.add_schema("provider", pack_version(1, 0, 0));
  schemas.add_type("event", {{"field", "", "uint16_t", 0, 5}});
  EXPECT_EQ(schemas.largest_block_size(), 26u);
  schemas.add_counters("group", kNodeGranularity, 1,
                       {{"a", "", "", QVX_COUNTER_INT64}, {"b", "", "", QVX_COUNTER_FP64}});
  EXPECT_EQ(schemas.largest_block_size(), 32u);
}

TEST(Schemas, WithoutCountersHaveTheEmptyIdentifier) {
  Schemas schemas;
  EXPECT_TRUE(schema_id_is_empty(schemas.counters_schema_id()));
}

class DataFileTest : public testing::Test {
 protected:
  // Size in the header, last time in the header, size on the disk.
  struct State {
    std::uint64_t header_size;
    std::uint64_t last_timestamp;
    std::uint64_t real_size;
    friend bool operator==(const State&, const State&) = default;
  };

  State state() const {
    const std::string content = test::read_file(path_);
    return {load_le<std::uint64_t>(content.data() + 8), load_le<std::uint64_t>(content.data() + 104),
            content.size()};
  }

  TempDir folder_;
  std::string path_ = folder_.file("host.bin");
  Schemas schemas_;
};

TEST_F(DataFileTest, HeaderIsRightAfterEveryAppend) {
  DataFile file(path_, schemas_, "source", "tag", 16, 1000);
  EXPECT_EQ(state(), (State{256, 0, 256}));
  file.append_unit(as_bytes("one"), 1001);
  EXPECT_EQ(state(), (State{272, 1001, 272}));
  file.append_unit(as_bytes("two"), 1002);
  EXPECT_EQ(state(), (State{288, 1002, 288}));

  const std::string content = test::read_file(path_);
  EXPECT_EQ(content.substr(0, 8), std::string("QVXF\x01\x07\0\0", 8));
  EXPECT_EQ(content.substr(16, 7), std::string("source\0", 7));
  EXPECT_EQ(content.substr(80, 4), std::string("tag\0", 4));
  EXPECT_EQ(content.substr(256),
            std::string("one\0\0\0\0\0\0\0\0\0\0\0\0\0two\0\0\0\0\0\0\0\0\0\0\0\0\0", 32));
}

TEST_F(DataFileTest, CutsLongSourceTexts) {
  const DataFile file(path_, schemas_, std::string(80, 's'), std::string(20, 't'), 16, 1000);
  const std::string content = test::read_file(path_);
  EXPECT_EQ(content.substr(16, 64), std::string(63, 's') + '\0');
  EXPECT_EQ(content.substr(80, 16), std::string(15, 't') + '\0');
}

TEST_F(DataFileTest, RefusesMoreThanADataBlock) {
  DataFile file(path_, schemas_, "source", "tag", 16, 1000);
  EXPECT_THROW(file.append_unit(as_bytes("seventeen letters"), 1001), std::length_error);
  EXPECT_EQ(state(), (State{256, 0, 256}));
}

TEST_F(DataFileTest, EmptiesAFileThatExists) {
  folder_.write_file("host.bin", std::string(1000, 'x'));
  const DataFile file(path_, schemas_, "source", "tag", 16, 1000);
  EXPECT_EQ(state(), (State{256, 0, 256}));
}

TEST_F(DataFileTest, ReportsAFolderThatDoesNotExist) {
  EXPECT_THROW(DataFile(folder_.file("none/host.bin"), schemas_, "source", "tag", 16, 1000),
               std::system_error);
}

TEST_F(DataFileTest, EndsWhereItDidWhenABlockDoesNotFitOnTheDisk) {
  DataFile file(path_, schemas_, "source", "tag", 16, 1000);
  file.append_unit(as_bytes("one"), 1001);
  rlimit old_limit{};
  getrlimit(RLIMIT_FSIZE, &old_limit);
  const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{280, old_limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_THROW(file.append_unit(as_bytes("two"), 1002), std::system_error);
  setrlimit(RLIMIT_FSIZE, &old_limit);
  std::signal(SIGXFSZ, old_handler);
  EXPECT_EQ(state(), (State{272, 1001, 272}));
}

}  // namespace
}  // namespace qvx::examples
