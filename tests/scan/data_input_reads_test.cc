// The faults and pieces in which a system gives a file, and every place at which one may end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qvx/scan/data_input.h"
#include "tests/reader/reader_files.h"
#include "tests/support/fake_read.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::FakeRead;
using test::gunzip_beginning;
using test::gzip;
using test::ReadStep;

struct Outcome {
  std::string bytes;
  std::string fault;
  int error = 0;
  bool at_end = false;

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << outcome.bytes.size() << " bytes, fault '" << outcome.fault << "', error " << outcome.error
       << (outcome.at_end ? ", at the end" : "");
}

Outcome read_all(DataInput& input, std::size_t at_a_time = 100) {
  Outcome outcome;
  std::string part(at_a_time, '\0');
  for (std::size_t count = at_a_time; count == at_a_time;) {
    count = input.read(std::as_writable_bytes(std::span(part)));
    outcome.bytes.append(part, 0, count);
    EXPECT_EQ(input.position(), outcome.bytes.size());
  }
  outcome.fault = input.fault();
  outcome.error = input.error();
  outcome.at_end = input.at_end();
  return outcome;
}

Outcome read_file_at(const std::string& path, std::size_t at_a_time = 100) {
  DataInput input;
  EXPECT_TRUE(input.open(path.c_str()));
  return read_all(input, at_a_time);
}

// The same in views, behind a first byte that tells what kind of file it is.
Outcome view_all(const std::string& path, std::size_t at_a_time) {
  DataInput input;
  EXPECT_TRUE(input.open(path.c_str()));
  Outcome outcome;
  outcome.bytes.assign(1, '\0');
  outcome.bytes.resize(input.read(std::as_writable_bytes(std::span(outcome.bytes))));
  for (std::size_t count = at_a_time; count == at_a_time;) {
    const std::optional<Bytes> view = input.view(at_a_time);
    EXPECT_TRUE(view.has_value());
    if (!view) break;
    count = view->size();
    outcome.bytes += as_text(*view);
    EXPECT_EQ(input.position(), outcome.bytes.size());
  }
  outcome.fault = input.fault();
  outcome.error = input.error();
  outcome.at_end = input.at_end();
  return outcome;
}

// Text that packs, but not to nothing.
std::string sample_text(std::size_t size) {
  std::mt19937 random(1);
  std::string text;
  while (text.size() < size)
    text += "record " + std::to_string(random() % 10000) + ';';
  text.resize(size);
  return text;
}

TEST(DataInputReads, PlainFileComesAsItIs) {
  const test::TempDir folder;
  const std::string text = sample_text(200000);
  const std::string path = folder.write_file("a.bin", text);
  EXPECT_EQ(read_file_at(path), (Outcome{text, "", 0, true}));
  EXPECT_EQ(read_file_at(path, 70000), (Outcome{text, "", 0, true}));
  EXPECT_EQ(read_file_at(folder.write_file("empty.bin", "")), (Outcome{"", "", 0, true}));
}

TEST(DataInputReads, ViewsGiveAPlainFileAsItIs) {
  const test::TempDir folder;
  const std::string text = sample_text(200000);
  const std::string path = folder.write_file("a.bin", text);
  for (const std::size_t at_a_time : {1, 816, 30000, 65535, 65536})
    EXPECT_EQ(view_all(path, at_a_time), (Outcome{text, "", 0, true})) << at_a_time;
}

TEST(DataInputReads, ViewsAndReadsTakeTurns) {
  const test::TempDir folder;
  const std::string text = sample_text(200000);
  DataInput input;
  ASSERT_TRUE(input.open(folder.write_file("a.bin", text).c_str()));
  std::string got;
  std::string part(70000, '\0');
  for (std::size_t round = 0; got.size() < text.size(); ++round) {
    const std::size_t wanted = round % 5 == 4 ? 70000 : 300;
    part.resize(wanted);
    part.resize(input.read(std::as_writable_bytes(std::span(part))));
    got += part;
    const std::optional<Bytes> view = input.view(1000);
    ASSERT_TRUE(view.has_value());
    got += as_text(*view);
    ASSERT_EQ(got, text.substr(0, got.size()));
  }
  EXPECT_EQ(got.size(), 200000u);
}

TEST(DataInputReads, WhatHasToBeUnpackedOrIsTooLongForTheBufferIsNotViewed) {
  const test::TempDir folder;
  const std::string text = sample_text(300);
  for (const auto& [bytes, too_long] : {std::pair(text, 65537), std::pair(gzip(text), 1)}) {
    DataInput input;
    ASSERT_TRUE(input.open(folder.write_file("a.bin", bytes).c_str()));
    EXPECT_FALSE(input.view(10).has_value());  // it may be either
    std::string got(100, '\0');
    ASSERT_EQ(input.read(std::as_writable_bytes(std::span(got))), 100u);
    EXPECT_FALSE(input.view(static_cast<std::size_t>(too_long)).has_value());
    std::string rest(300, '\0');
    rest.resize(input.read(std::as_writable_bytes(std::span(rest))));
    EXPECT_EQ(got + rest, text);
  }
}

TEST(DataInputReads, ViewsContinueInterruptedAndShortReads) {
  const test::TempDir folder;
  const std::string text = sample_text(300);
  std::vector<ReadStep> steps;
  for (std::size_t at = 0; at < text.size(); ++at) {
    steps.push_back({.error = EINTR});
    steps.push_back({.most = 1});
  }
  const std::string path = folder.write_file("a.bin", text);
  const FakeRead fake(steps);
  EXPECT_EQ(view_all(path, 100), (Outcome{text, "", 0, true}));
  EXPECT_EQ(fake.steps_left(), 0u);
}

TEST(DataInputReads, ViewsGiveWhatWasReadBeforeAFaultOfTheSystem) {
  const test::TempDir folder;
  const std::string text = sample_text(5000);
  const std::string path = folder.write_file("a.bin", text);
  // Two bytes tell what kind of file it is.
  const FakeRead fake({{.most = 2}, {.most = 60}, {.most = 50}, {.error = EIO}});
  EXPECT_EQ(view_all(path, 100), (Outcome{text.substr(0, 112), "Input/output error", EIO, false}));
}

TEST(DataInputReads, EveryCutOfJoinedMembersGivesWhatWasDecoded) {
  const std::string first_text = sample_text(1500);
  const std::string second_text = sample_text(700);
  const std::string first = gzip(first_text);
  const std::string second = gzip(second_text);
  const std::string whole = first + second;
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const test::GuardedBuffer cut(std::string_view(whole).substr(0, size));
    Outcome expected{"", "", 0, true};
    if (size == 1) {
      expected.bytes = "\x1f";  // not yet the magic of a member
    } else if (size > 1 && size < first.size()) {
      expected = {gunzip_beginning(cut.text()), "unexpected end of file", 0, false};
    } else if (size >= first.size() && size < first.size() + 2) {
      expected.bytes = first_text;
    } else if (size >= first.size() + 2 && size < whole.size()) {
      expected = {first_text + gunzip_beginning(cut.text().substr(first.size())), "unexpected end of file", 0,
                  false};
    } else if (size == whole.size()) {
      expected.bytes = first_text + second_text;
    }
    for (const std::size_t at_a_time : {1, 64, 100000}) {
      DataInput input;
      input.open(Bytes(cut.bytes()));
      ASSERT_EQ(read_all(input, at_a_time), expected) << size << " " << at_a_time;
    }
  }
}

TEST(DataInputReads, DamagedMemberIsToldInTheWordsOfTheDecompressor) {
  const std::string text = sample_text(500);
  const std::string packed = gzip(text);
  const auto damaged = [&](std::size_t at) {
    std::string bytes = packed;
    bytes[at] = static_cast<char>(bytes[at] ^ 0xFF);
    DataInput input;
    input.open(as_bytes(bytes));
    return read_all(input);
  };
  EXPECT_EQ(damaged(2), (Outcome{"", "unknown compression method", 0, false}));
  EXPECT_EQ(damaged(3), (Outcome{"", "unknown header flags set", 0, false}));
  {
    const std::string third_kind = packed.substr(0, 10) + '\x07';
    DataInput input;
    input.open(as_bytes(third_kind));
    EXPECT_EQ(read_all(input), (Outcome{"", "invalid block type", 0, false}));
  }
  EXPECT_EQ(damaged(packed.size() - 5), (Outcome{text, "incorrect data check", 0, false}));
  EXPECT_EQ(damaged(packed.size() - 1), (Outcome{text, "incorrect length check", 0, false}));
}

TEST(DataInputReads, InterruptedAndShortReadsAreContinued) {
  const test::TempDir folder;
  const std::string text = sample_text(300);
  for (const std::string& bytes : {text, gzip(text)}) {
    std::vector<ReadStep> steps;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      steps.push_back({.error = EINTR});
      steps.push_back({.most = 1});
    }
    const std::string path = folder.write_file("a.bin", bytes);
    const FakeRead fake(steps);
    EXPECT_EQ(read_file_at(path), (Outcome{text, "", 0, true}));
    EXPECT_EQ(fake.steps_left(), 0u);
  }
}

TEST(DataInputReads, FaultOfTheSystemStandsBehindWhatWasRead) {
  const test::TempDir folder;
  const std::string text = sample_text(5000);
  const std::string packed = gzip(text);
  const Outcome plain_start{text.substr(0, 110), "Input/output error", EIO, false};
  {
    const std::string path = folder.write_file("plain.bin", text);
    const FakeRead fake({{.most = 60}, {.most = 50}, {.error = EIO}});
    EXPECT_EQ(read_file_at(path), plain_start);
  }
  {
    const std::string path = folder.write_file("packed.bin", packed);
    const FakeRead fake({{.most = 90}, {.most = 90}, {.most = 90}, {.error = EIO}});
    EXPECT_EQ(read_file_at(path),
              (Outcome{gunzip_beginning(packed.substr(0, 270)), "Input/output error", EIO, false}));
  }
  {
    const std::string path = folder.write_file("at_once.bin", text);
    const FakeRead fake(std::vector<ReadStep>{{.error = EIO}});
    EXPECT_EQ(read_file_at(path), (Outcome{"", "Input/output error", EIO, false}));
  }
  EXPECT_GT(gunzip_beginning(packed.substr(0, 270)).size(), 200u);
}

TEST(DataInputReads, FolderCanBeOpenedButNotRead) {
  const test::TempDir folder;
  EXPECT_EQ(read_file_at(folder.path().string()), (Outcome{"", "Is a directory", EISDIR, false}));
  DataInput input;
  EXPECT_FALSE(input.open(folder.file("gone").c_str()));
  EXPECT_EQ(errno, ENOENT);
}

TEST(DataInputReads, DescriptorThatDoesNotBlockIsWaitedFor) {
  const test::TempDir folder;
  const std::string text = sample_text(5000);
  for (const std::string& bytes : {text, gzip(text)}) {
    const std::string fifo = folder.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::thread writer([&] {
      const int to = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
      for (std::size_t at = 0; at < bytes.size(); at += 500) {
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        const std::string piece = bytes.substr(at, 500);
        EXPECT_EQ(write(to, piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
      }
      close(to);
    });
    const int free_descriptor = dup(0);
    close(free_descriptor);  // the one that open() takes
    DataInput input;
    EXPECT_TRUE(input.open(fifo.c_str()));
    EXPECT_EQ(fcntl(free_descriptor, F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(read_all(input), (Outcome{text, "", 0, true}));
    writer.join();
    ASSERT_EQ(unlink(fifo.c_str()), 0);
  }
}

}  // namespace
}  // namespace qvx
