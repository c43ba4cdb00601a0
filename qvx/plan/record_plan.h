// The record plan: how records of one type become text.
//
// A type is compiled once, when it is first used, to a flat list of steps. Each step writes one literal
// (separator, indentation, quoted and escaped key, in one piece) and then one value read at a known offset;
// arrays are one step with a count, nested records are flattened. Compact JSON, pretty JSON, Influx text and
// counters blocks differ in their literals and value kinds only. Writing a record allocates nothing, looks
// nothing up and checks the room once.
//
// What a schema says about sizes is not trusted: a plan knows the furthest byte that it reads, and refuses a
// record that is shorter; fields may overlap. The number of steps is limited when the plan is built. How much
// work one record may ask for is for the compilers to limit, which know what their types claim.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/bytes.h"
#include "qvx/support/clock.h"
#include "qvx/support/output_sink.h"

namespace qvx {

enum class StepKind : std::uint8_t {
  literal,  // no value
  // Integers as decimal digits.
  u8,
  i8,
  u16,
  i16,
  u32,
  i32,
  u64,
  i64,
  // JSON numbers, which are doubles: 64-bit integers beyond 2^53 are rounded, NaN and infinities fail the
  // record.
  json_u64,
  json_i64,
  json_f32,
  json_f64,
  // Influx values.
  influx_bool,
  influx_f32,
  influx_f64,
  // Up to `count` bytes, ending before the first that is not printable ASCII; escaped for JSON, or as they
  // are.
  json_characters,
  influx_characters,
  // Writes nothing, but fails the record where the JSON number would: the value of a shadowed member.
  check_f32,
  check_f64,
  last_plain = check_f64,  // up to here: one literal, then one value
  end,                     // the literal; of the record, or of one round of a loop
  array,                   // `count` values of one kind, a separator between them
  loop,                    // `count` times the steps behind it, a separator between the rounds
  // Members of an object that may lose some of them. The literal begins with the separator, which is left out
  // while the object is empty.
  object_open,
  need_member,    // fails the record while the object is empty
  object_close,   // the literal, or "}" alone while the object is empty
  member,         // the literal only; the value is the next step
  optional_f64,   // left out when it is no JSON number
  optional_text,  // up to `count` bytes and to the first NUL; left out when it is not UTF-8
  choice,  // the last of several values that has a text, unless an earlier choice among them was written
  // Values of Influx lines, left out where a server would refuse them.
  optional_influx_f32,
  optional_influx_f64,
  optional_influx_u64,   // beyond the largest signed integer
  optional_influx_text,  // up to `count` bytes and to the first NUL; not UTF-8
  optional_tag,          // up to `count` printable characters; none
  local_time,  // a timestamp in microseconds as quoted local time; left out when it cannot be converted
};

// A cache line, so that all a value needs but its bytes is read at once.
struct Step {
  static constexpr std::size_t kTextSize = 32;

  std::array<char, kTextSize> text{};  // the literal, or as much of it as there is room for
  std::uint32_t literal_size = 0;
  std::uint32_t literal = 0;  // of one that is longer: its position in the plan's literals
  std::uint32_t offset = 0;   // from the start of the record, or of the round of a loop
  std::uint32_t count = 1;
  StepKind kind = StepKind::literal;
  StepKind element = StepKind::literal;  // of an array
  std::uint16_t separator_size = 0;
  std::uint32_t separator = 0;  // position in the plan's literals
  std::uint32_t stride = 0;     // bytes from one element or round to the next
  std::uint32_t end = 0;        // of a loop: the step behind its last; of a choice: its first candidate
};
static_assert(sizeof(Step) == 64);

class RecordPlan {
 public:
  // Bytes that must be at hand from the start of a record on.
  std::uint64_t bytes_needed() const { return bytes_needed_; }

  // Memory that the plan takes.
  std::size_t bytes() const { return sizeof *this + steps_.capacity() * sizeof(Step) + literals_.capacity(); }

  // Records of one size, one after the other.
  struct Records {
    Bytes at_hand;  // from the first record on
    std::size_t size;
    std::size_t count;
  };

  // Writes the texts of the records with `first` ahead of the first and `before` ahead of each other. Gives
  // how many were written: all before the first one that has too few bytes at hand or a value without a text,
  // of which nothing is written. `clock` converts local times; plans without one take null. Throws
  // std::bad_alloc only when a single piece of text outgrows the sink's buffer.
  [[nodiscard]] std::size_t write_all(const Records& records, std::string_view first, std::string_view before,
                                      OutputSink& sink, LocalTimeText* clock = nullptr) const;

  // The same for one record; false when it was not written.
  [[nodiscard]] bool write(Bytes at_hand, std::string_view before, OutputSink& sink,
                           LocalTimeText* clock = nullptr) const;

  // The same text as a string.
  [[nodiscard]] std::optional<std::string> text(Bytes at_hand, LocalTimeText* clock = nullptr) const;

 private:
  friend class PlanBuilder;

  bool write_in_pieces(Bytes record, std::string_view ahead, OutputSink& sink, LocalTimeText* clock) const;

  std::vector<Step> steps_;
  std::vector<Step> candidates_;  // of choices, without literals
  std::string literals_;  // separators, and what is longer than a step's text; with readable bytes behind the
                          // last one, so that literals are copied in whole words
  std::uint64_t bytes_needed_ = 0;
  std::uint64_t max_text_ = 0;
};

// Builds one plan from front to back. Once a limit is passed everything else is ignored and finish() gives
// nothing.
class PlanBuilder {
 public:
  // What a plan may grow to; one that needs more fails.
  struct Limits {
    std::size_t steps = std::size_t{1} << 18;
    std::size_t literals = std::size_t{8} << 20;  // bytes of the text that stands around values
  };

  PlanBuilder() = default;
  explicit PlanBuilder(const Limits& limits) : limits_(limits) {}

  const Limits& limits() const { return limits_; }

  // Text that stands before the next value.
  template <typename... Pieces>
  void text(const Pieces&... pieces) {
    (add_text(pieces), ...);
  }

  void value(StepKind kind, std::uint64_t offset, std::uint32_t size);
  void characters(StepKind kind, std::uint64_t offset, std::uint32_t length);
  void array(StepKind element, std::uint64_t offset, std::uint32_t count, std::uint64_t stride,
             std::uint32_t element_size, std::string_view separator);

  // The steps added until close_loop() are one round; their offsets count from `offset` + round × `stride`.
  void open_loop(std::uint64_t offset, std::uint32_t count, std::uint64_t stride, std::string_view separator);
  void close_loop();

  // Values of which at most one is written, the last that has a text. They are added first, one behind the
  // other; then a choice is made at each place where the value may stand: at place k it is written when
  // candidate k has a text and none before it has. `candidates` and `count` say which they are.
  std::uint32_t next_candidate() const { return static_cast<std::uint32_t>(plan_.candidates_.size()); }
  void candidate(StepKind kind, std::uint64_t offset, std::uint32_t length);
  void choice(std::uint32_t candidates, std::uint32_t count, std::uint32_t place);

  // Ends the pending text in a step of its own.
  void structure(StepKind kind);

  // Counts one visited field or object against the limits; false when the plan has failed.
  bool visit();

  // A record must have this many bytes, wherever its values lie.
  void require(std::uint64_t bytes) { touch(0, bytes); }

  [[nodiscard]] std::optional<RecordPlan> finish();

 private:
  struct Extent {
    std::uint64_t reach = 0;  // furthest byte read, from the start of the record or round
    std::uint64_t text = 0;   // room that the text may take
  };
  struct OpenLoop {
    std::size_t step;
    std::uint64_t offset;
    std::uint64_t stride;
    Extent outer;
  };

  void add_text(std::string_view literal);
  Step& add(StepKind kind, std::uint64_t offset, std::uint64_t text_room);
  void set_separator(Step& step, std::string_view separator);
  void touch(std::uint64_t offset, std::uint64_t size);

  Limits limits_;
  RecordPlan plan_;
  std::string pending_;
  std::size_t text_size_ = 0;  // of all literals and separators so far
  Extent extent_;
  std::vector<OpenLoop> loops_;
  std::size_t visits_ = 0;
  bool failed_ = false;
};

}  // namespace qvx
