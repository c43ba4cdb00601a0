// Functions of this room whose every allocation fails: what they make is whole, or they say that it is not.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "qvx/support/clock.h"
#include "qvx/support/log.h"
#include "qvx/support/log_recorder.h"
#include "qvx/support/name_match.h"
#include "qvx/support/number_parse.h"
#include "qvx/support/output_sink.h"
#include "qvx/support/string_array.h"
#include "tests/support/allocation_sweep.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/last_message.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::FailingAllocations;
using test::sweep_allocations;

std::vector<std::string> texts_of(const StringArrayPtr& array) {
  std::vector<std::string> texts;
  for (const char* const text : strings(array))
    texts.emplace_back(text);
  return texts;
}

using Texts = std::vector<std::string>;
constexpr const char* kLong = "a text that is longer than a string keeps within itself";

// Calls with allocation 0, 1, ... failing; gives the last message of each call that failed.
template <typename Call>
std::set<std::string> last_messages(Call call) {
  std::set<std::string> words;
  bool any_failed = true;
  for (std::size_t successes = 0; any_failed && successes < 1000; ++successes) {
    const test::LastMessage last;
    bool done = false;
    {
      const FailingAllocations failures(successes);
      done = call();
      any_failed = failures.any_failed();
    }
    EXPECT_TRUE(done || any_failed);
    if (!done) words.insert(last.get().text);
  }
  EXPECT_FALSE(any_failed);
  return words;
}

TEST(SupportShortMemory, ListsOfTextsAreWholeOrNone) {
  if (!FailingAllocations::kFailsMalloc) GTEST_SKIP();
  sweep_allocations(
      [] {
        return make_string_array({"a", kLong});
      },
      [](const auto& made) {
        return texts_of(made) == Texts{"a", kLong};
      });
  sweep_allocations([] { return StringArrayPtr(qvx_string_array_from_comma_separated("a,,bc", 5)); },
                    [](const auto& made) {
                      return texts_of(made) == Texts{"a", "bc"};
                    });
  const StringArrayPtr names = make_string_array({"cpu.load", "net.rx", "cpu.heat"});
  const StringArrayPtr patterns = make_string_array({"cpu"});
  const auto filter = [&] {
    return StringArrayPtr(qvx_names_filter(names.get(), patterns.get(), MatchMode::kContains, true));
  };
  ASSERT_EQ(texts_of(filter()), (Texts{"cpu.load", "cpu.heat"}));
  sweep_allocations(filter, [](const auto& made) { return texts_of(made) == Texts{"cpu.load", "cpu.heat"}; });
}

TEST(SupportShortMemory, ListOfCommaSeparatedTextsSaysWhyThereIsNone) {
  if (!FailingAllocations::kFailsMalloc) GTEST_SKIP();
  const std::set<std::string> words = last_messages(
      [] { return StringArrayPtr(qvx_string_array_from_comma_separated("a,bc", 4)) != nullptr; });
  EXPECT_EQ(words, (std::set<std::string>{"Unable to create string array", "Unable to append string"}));
}

TEST(SupportShortMemory, LinesOfAFileAreLoadedOrTheLoadFails) {
  if (!FailingAllocations::kFailsMalloc) GTEST_SKIP();
  const test::TempDir folder;
  const std::string path = folder.write_file("names", "one\ntwo\n# three\n four \n");
  const auto load = [&] {
    StringArrayPtr array = make_string_array();
    if (array == nullptr) return StringArrayPtr();
    qvx_string_array* raw = array.release();
    const bool done = qvx_string_array_load_lines(&raw, path.c_str(), nullptr);
    array.reset(raw);
    return done ? std::move(array) : StringArrayPtr();
  };
  // The C library's getline may end early without a word when it has no memory for a line, so here only
  // those calls count that have been given the line.
  const StringArrayPtr whole = load();
  ASSERT_EQ(texts_of(whole), (Texts{"one", "two", "four"}));
  bool has_failed = false;
  for (std::size_t successes = 0; successes < 20; ++successes) {
    const FailingAllocations failures(successes);
    const StringArrayPtr made = load();
    has_failed = has_failed || made == nullptr;
    if (!failures.any_failed()) {
      ASSERT_NE(made, nullptr);
      EXPECT_EQ(made->count, 3u);
    }
  }
  EXPECT_TRUE(has_failed);
}

TEST(SupportShortMemory, SelectedNamesAreWholeOrTheReasonIsLogged) {
  if (!FailingAllocations::kFailsMalloc) GTEST_SKIP();
  const StringArrayPtr names = make_string_array({"b", "a", "c"});
  const StringArrayPtr all = make_string_array({"*"});
  const StringArrayPtr none = make_string_array();
  const StringArrayPtr mandatory = make_string_array({"c", "d"});
  const auto select = [&] {
    return StringArrayPtr(
        qvx_select_counter_names(names.get(), all.get(), none.get(), mandatory.get(), MatchMode::kWildcard));
  };
  ASSERT_EQ(texts_of(select()), (Texts{"a", "b", "c", "d"}));
  sweep_allocations(select, [](const auto& made) { return texts_of(made) == Texts{"a", "b", "c", "d"}; });
  EXPECT_TRUE(last_messages([&] { return select() != nullptr; }).contains("failed to match counter names"));
}

TEST(SupportShortMemory, NumbersAndTimesAreWholeOrNone) {
  const std::string digits = std::string(30, ' ') + "12345";
  std::int32_t value = 7;
  {
    const FailingAllocations failures(0);
    EXPECT_FALSE(int32_from_text(digits.c_str(), digits.size(), &value));
    EXPECT_EQ(value, 7);
  }
  EXPECT_TRUE(int32_from_text(digits.c_str(), digits.size(), &value));
  EXPECT_EQ(value, 12345);
  const auto time = [] { return timestamp_text(1700000000123000); };
  ASSERT_EQ(time(), "2023-11-14 22:13:20.123");
  sweep_allocations(time, [](const auto& made) { return made == "2023-11-14 22:13:20.123"; });
}

TEST(SupportShortMemory, SinkIntoAStringKeepsABeginningAndFails) {
  std::string text;
  bool flushed = true;
  int error = 0;
  const std::string piece(100, 'p');
  {
    OutputSink sink(text, 16);
    const FailingAllocations failures(1, FailingAllocations::Failing::once);
    for (int i = 0; i < 50; ++i)
      sink.write(piece);
    flushed = sink.flush();
    error = sink.error();
  }
  EXPECT_FALSE(flushed);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_LT(text.size(), 5000u);
  EXPECT_EQ(text, std::string(text.size(), 'p'));
}

TEST(SupportShortMemory, LongLineOfTheLogIsCut) {
  const std::string message(3000, 'm');
  qvx_init_stderr_logger(QVX_LOG_ERROR);
  testing::internal::CaptureStderr();
  QVX_LOG(QVX_LOG_ERROR, "%s", message.c_str());
  {
    const FailingAllocations failures(0);
    QVX_LOG(QVX_LOG_ERROR, "%s", message.c_str());
  }
  const std::string lines = testing::internal::GetCapturedStderr();
  const std::size_t first = lines.find('\n') + 1;
  EXPECT_GT(first, 3000u);
  EXPECT_EQ(lines.size() - first, 1023u);
  EXPECT_EQ(lines.back(), '\n');
  EXPECT_EQ(lines[lines.size() - 2], 'm');
}

TEST(SupportShortMemory, LongMessageOfARecorderIsCutAndThatIsTold) {
  const std::string message(3000, 'm');
  const LogRecorder recorder(QVX_LOG_ERROR);
  QVX_LOG(QVX_LOG_ERROR, "%s", message.c_str());
  EXPECT_TRUE(recorder.is_complete());
  {
    const FailingAllocations failures(0, FailingAllocations::Failing::once);
    QVX_LOG(QVX_LOG_ERROR, "%s", message.c_str());
  }
  EXPECT_FALSE(recorder.is_complete());
  ASSERT_EQ(recorder.messages().size(), 2u);
  EXPECT_EQ(recorder.messages()[0].text, message);
  EXPECT_EQ(recorder.messages()[1].text, std::string(1023, 'm'));
}

}  // namespace
}  // namespace qvx
