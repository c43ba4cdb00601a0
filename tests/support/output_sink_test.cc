#include "qvx/support/output_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include "qvx/support/file_descriptor.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::FailingAllocations;
using test::read_file;
using test::TempDir;

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
    out = FileDescriptor(ends[0]);
    in = FileDescriptor(ends[1]);
  }

  // What is in the pipe now.
  std::string at_hand() const {
    fcntl(out.get(), F_SETFL, O_NONBLOCK);
    std::string text(1 << 16, '\0');
    const ssize_t count = read(out.get(), text.data(), text.size());
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
  }

  FileDescriptor out;
  FileDescriptor in;
};

void commit(OutputSink& sink, std::string_view text) {
  sink.commit(std::copy(text.begin(), text.end(), sink.reserve(text.size())));
}

TEST(OutputSink, RoomStaysValidWhileWhatWasCommittedIsWrittenOut) {
  std::string text;
  {
    OutputSink sink(text, 16);
    commit(sink, "before ");
    char* const room = sink.reserve(4);
    std::copy_n("half", 2, room);
    sink.write_committed();
    EXPECT_EQ(text, "before ");
    std::copy_n("lf", 2, room + 2);
    sink.commit(room + 4);
    commit(sink, " and after");
    EXPECT_TRUE(sink.flush());
    EXPECT_EQ(text, "before half and after");
  }
  EXPECT_EQ(text, "before half and after");
}

TEST(OutputSink, LargerRoomThanTheBufferKeepsTheOrder) {
  std::string text;
  OutputSink sink(text, 8);
  sink.write("12345");
  sink.write_committed();
  sink.write("678");
  commit(sink, std::string(100, 'x'));
  sink.write(std::string(200, 'y'));
  EXPECT_EQ(sink.capacity(), 100U);
  EXPECT_TRUE(sink.flush());
  EXPECT_EQ(text, "12345678" + std::string(100, 'x') + std::string(200, 'y'));
}

TEST(OutputSink, TextThatCannotGrowFailsTheFlushAndThrowsNothing) {
  std::string text;
  {
    OutputSink sink(text);
    sink.write(std::string(100, 'x'));
    const FailingAllocations none(0);
    EXPECT_FALSE(sink.flush());
    EXPECT_EQ(sink.error(), ENOMEM);
    sink.write("dropped");
    EXPECT_FALSE(sink.flush());
  }
  EXPECT_EQ(text, "");
}

TEST(OutputSink, DestructorThrowsNothing) {
  std::string text;
  const auto destroy = [&text] {
    OutputSink sink(text);
    sink.write("a text that is longer than the room inside of a string object");
    static const FailingAllocations none(0);
  };
  EXPECT_EXIT((destroy(), std::_Exit(0)), testing::ExitedWithCode(0), "");
}

int fault = 0;

TEST(OutputSink, FirstFailedWriteIsKeptAndToldOnce) {
  fault = 0;
  const FileDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  OutputSink sink(full.get());
  sink.set_fault_handler([](int error) { fault = fault * 1000 + error; });
  sink.write("text");
  EXPECT_FALSE(sink.flush());
  sink.write("text");
  EXPECT_FALSE(sink.flush());
  EXPECT_EQ(fault, ENOSPC);
  EXPECT_EQ(sink.error(), ENOSPC);
}

TEST(OutputSink, DescriptorThatIsNotOpenIsTheFirstFault) {
  OutputSink sink(-1);
  sink.write("text");
  EXPECT_FALSE(sink.flush());
  EXPECT_EQ(sink.error(), EBADF);
}

TEST(OutputSink, WaitsForADescriptorThatDoesNotBlock) {
  const Pipe pipe;
  ASSERT_EQ(fcntl(pipe.in.get(), F_SETFL, O_NONBLOCK), 0);
  const std::string text(1 << 20, 'x');
  std::string received;
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::array<char, 5000> part{};
    while (received.size() < text.size()) {
      const ssize_t count = read(pipe.out.get(), part.data(), part.size());
      if (count <= 0) break;
      received.append(part.data(), static_cast<std::size_t>(count));
    }
  });
  OutputSink sink(pipe.in.get());
  sink.write(text);
  EXPECT_TRUE(sink.flush());
  EXPECT_EQ(sink.error(), 0);
  if (sink.error() != 0) close(pipe.in.get());
  reader.join();
  EXPECT_EQ(received, text);
}

TEST(OutputSink, EndsTheWaitWhenTheReaderGoesAway) {
  std::signal(SIGPIPE, SIG_IGN);
  Pipe pipe;
  ASSERT_EQ(fcntl(pipe.in.get(), F_SETFL, O_NONBLOCK), 0);
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pipe.out.reset();
  });
  OutputSink sink(pipe.in.get());
  sink.write(std::string(1 << 20, 'x'));
  EXPECT_FALSE(sink.flush());
  EXPECT_EQ(sink.error(), EPIPE);
  reader.join();
  std::signal(SIGPIPE, SIG_DFL);
}

TEST(OutputSink, PipeGetsWhatWasDecodedWhenNoInputIsAtHand) {
  const Pipe output;
  const Pipe input;
  OutputSink sink(output.in.get());
  commit(sink, "first\n");
  EXPECT_EQ(output.at_hand(), "");
  sink.before_reading(input.out.get());
  EXPECT_EQ(output.at_hand(), "first\n");
  commit(sink, "second\n");
  sink.before_reading(input.out.get());
  EXPECT_EQ(output.at_hand(), "second\n");
}

TEST(OutputSink, PipeGetsFullBuffersWhileInputIsAtHandButNothingOlderThan100Milliseconds) {
  const Pipe output;
  const FileDescriptor input(open("/dev/zero", O_RDONLY | O_CLOEXEC));
  OutputSink sink(output.in.get());
  commit(sink, "first\n");
  sink.before_reading(input.get());
  EXPECT_EQ(output.at_hand(), "first\n");
  commit(sink, "second\n");
  sink.before_reading(input.get());
  EXPECT_EQ(output.at_hand(), "");
  std::this_thread::sleep_for(std::chrono::milliseconds(110));
  sink.before_reading(input.get());
  EXPECT_EQ(output.at_hand(), "second\n");
}

TEST(OutputSink, SocketIsAwaitedLikeAPipe) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  const FileDescriptor near(ends[0]);
  const FileDescriptor far(ends[1]);
  OutputSink sink(near.get());
  commit(sink, "text");
  sink.before_reading(far.get());
  std::array<char, 8> got{};
  EXPECT_EQ(recv(far.get(), got.data(), got.size(), MSG_DONTWAIT), 4);
}

TEST(OutputSink, RegularFileKeepsFullBuffers) {
  const TempDir dir;
  const std::string path = dir.write_file("out", "");
  const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  const Pipe input;
  OutputSink sink(file.get());
  commit(sink, "text");
  sink.before_reading(input.out.get());
  EXPECT_EQ(read_file(path), "");
  EXPECT_TRUE(sink.flush());
  EXPECT_EQ(read_file(path), "text");
}

}  // namespace
}  // namespace qvx
