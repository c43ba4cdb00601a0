// Runs the steps of a plan over one record. Internal to the record plan.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>
#include <vector>

#include "qvx/plan/plan_values.h"
#include "qvx/plan/record_plan.h"
#include "qvx/support/bytes.h"
#include "qvx/support/clock.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/number.h"
#include "qvx/support/output_sink.h"

namespace qvx::detail {

// Literals are copied in pieces of this size, and may be read and written up to one piece too far.
inline constexpr std::size_t kLiteralPiece = Step::kTextSize;
// Every JSON text of a byte in a string is at most "\u00xx".
inline constexpr std::uint64_t kMaxEscape = 6;
inline constexpr std::uint64_t kEscapeSlack = 16;

inline std::uint64_t value_room(StepKind kind, std::uint64_t count) {
  switch (kind) {
    case StepKind::influx_f32:
    case StepKind::influx_f64:
    case StepKind::optional_influx_f32:
    case StepKind::optional_influx_f64:
      return kFixedNumberRoom;
    case StepKind::optional_influx_text:
    case StepKind::optional_tag:
    case StepKind::json_characters:
      return 2 * count + kEscapeSlack;
    case StepKind::influx_characters:
      return count + kEscapeSlack;
    case StepKind::optional_text:
      return kMaxEscape * count + 2 + kEscapeSlack;
    case StepKind::local_time:
      return LocalTimeText::kRoom + 2;
    case StepKind::choice:  // the value itself is asked for when it is known
    default:
      return kNumberRoom;
  }
}

inline std::string_view text_of(const Step& step, const std::byte* from) {
  const std::string_view text(reinterpret_cast<const char*>(from), step.count);
  return text.substr(0, text.find('\0'));
}

// Whether an optional value is written.
inline bool has_optional_text(const Step& step, const std::byte* base) {
  const std::byte* const from = base + step.offset;
  switch (step.kind) {
    case StepKind::optional_f64:
    case StepKind::optional_influx_f64:
      return std::isfinite(load_le<double>(from));
    case StepKind::optional_influx_f32:
      return std::isfinite(load_le<float>(from));
    case StepKind::optional_influx_u64:
      return load_le<std::uint64_t>(from) <= std::numeric_limits<std::int64_t>::max();
    case StepKind::optional_text:
    case StepKind::optional_influx_text:
      return json::is_valid_utf8(text_of(step, from));
    case StepKind::optional_tag:
      return step.count > 0 && from[0] >= std::byte{0x20} && from[0] <= std::byte{0x7E};
    default:
      return true;
  }
}

// Copies the text with a backslash before each of the characters.
inline char* write_with_backslashes(char* out, std::string_view text, std::string_view characters) {
  for (const char c : text) {
    if (characters.find(c) != std::string_view::npos) *out++ = '\\';
    *out++ = c;
  }
  return out;
}

// A backslash at the end would escape what stands behind the tag.
inline char* write_tag(char* out, const Step& step, const std::byte* from) {
  std::string_view text(reinterpret_cast<const char*>(from), step.count);
  const auto is_printable = [](char c) { return c >= 0x20 && c <= 0x7E; };
  text = text.substr(
      0, static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_printable) - text.begin()));
  out = write_with_backslashes(out, text, " ,=");
  if (out[-1] == '\\') out[-1] = '_';
  return out;
}

inline char* copy_text(char* out, const char* text, std::size_t size) {
  std::memcpy(out, text, kLiteralPiece);
  if (size > kLiteralPiece) [[unlikely]]
    std::memcpy(out + kLiteralPiece, text + kLiteralPiece, size - kLiteralPiece);
  return out + size;
}

// Where text goes when the room for the whole record was reserved before.
struct InPlace {
  char* ensure(char* out, std::uint64_t) { return out; }
};

// Where text goes piece by piece.
struct Piecewise {
  OutputSink& sink;
  char* ensure(char* out, std::uint64_t room) {
    sink.commit(out);
    return sink.reserve(room + 2 * kLiteralPiece);
  }
};

// Runs the steps of a plan over one record.
template <typename Room>
class Writer {
 public:
  Writer(const std::vector<Step>& steps, const Step* candidates, const char* literals, Room room,
         LocalTimeText* clock)
      : steps_(steps), candidates_(candidates), literals_(literals), room_(room), clock_(clock) {}

  // Writes the steps up to the next `end`; null when a value has no text. What is read of a step is read
  // before anything is written: for all the compiler knows, the text may be written over the steps.
  char* run(const Step* step, const std::byte* base, char* out) {
    bool object_is_empty = false;
    for (;;) {
      const StepKind kind = step->kind;
      switch (kind) {
        case StepKind::literal:
          out = write_alike<StepKind::literal>(step, base, out);
          continue;
        case StepKind::u8:
          out = write_alike<StepKind::u8>(step, base, out);
          continue;
        case StepKind::i8:
          out = write_alike<StepKind::i8>(step, base, out);
          continue;
        case StepKind::u16:
          out = write_alike<StepKind::u16>(step, base, out);
          continue;
        case StepKind::i16:
          out = write_alike<StepKind::i16>(step, base, out);
          continue;
        case StepKind::u32:
          out = write_alike<StepKind::u32>(step, base, out);
          continue;
        case StepKind::i32:
          out = write_alike<StepKind::i32>(step, base, out);
          continue;
        case StepKind::u64:
          out = write_alike<StepKind::u64>(step, base, out);
          continue;
        case StepKind::i64:
          out = write_alike<StepKind::i64>(step, base, out);
          continue;
        case StepKind::json_u64:
          out = write_alike<StepKind::json_u64>(step, base, out);
          continue;
        case StepKind::json_i64:
          out = write_alike<StepKind::json_i64>(step, base, out);
          continue;
        case StepKind::json_f32:
          out = write_alike<StepKind::json_f32>(step, base, out);
          if (out == nullptr) [[unlikely]]
            return nullptr;
          continue;
        case StepKind::json_f64:
          out = write_alike<StepKind::json_f64>(step, base, out);
          if (out == nullptr) [[unlikely]]
            return nullptr;
          continue;
        case StepKind::influx_bool:
          out = write_alike<StepKind::influx_bool>(step, base, out);
          continue;
        case StepKind::influx_f32:
          out = write_alike<StepKind::influx_f32>(step, base, out);
          continue;
        case StepKind::influx_f64:
          out = write_alike<StepKind::influx_f64>(step, base, out);
          continue;
        case StepKind::json_characters:
          out = write_alike<StepKind::json_characters>(step, base, out);
          continue;
        case StepKind::influx_characters:
          out = write_alike<StepKind::influx_characters>(step, base, out);
          continue;
        case StepKind::check_f32:
          out = write_alike<StepKind::check_f32>(step, base, out);
          if (out == nullptr) [[unlikely]]
            return nullptr;
          continue;
        case StepKind::check_f64:
          out = write_alike<StepKind::check_f64>(step, base, out);
          if (out == nullptr) [[unlikely]]
            return nullptr;
          continue;
        case StepKind::end:
          if constexpr (!std::is_same_v<Room, InPlace>) out = room_.ensure(out, step->literal_size);
          return copy_literal(out, *step);
        case StepKind::array:
        case StepKind::loop:
        case StepKind::object_open:
        case StepKind::need_member:
        case StepKind::object_close:
        case StepKind::member:
        case StepKind::optional_f64:
        case StepKind::optional_text:
        case StepKind::choice:
        case StepKind::optional_influx_f32:
        case StepKind::optional_influx_f64:
        case StepKind::optional_influx_u64:
        case StepKind::optional_influx_text:
        case StepKind::optional_tag:
        case StepKind::local_time:
          out = write_structure(*step, base, out, object_is_empty);
          if (out == nullptr) [[unlikely]]
            return nullptr;
          step = kind == StepKind::loop ? steps_.data() + step->end : step + 1;
          continue;
        default:
          __builtin_unreachable();  // which saves a compare per value
      }
    }
  }

 private:
  // Writes a step that is more than one literal and one value.
  char* write_structure(const Step& step, const std::byte* base, char* out, bool& object_is_empty) {
    const StepKind kind = step.kind;
    const std::byte* const from = base + step.offset;
    if constexpr (!std::is_same_v<Room, InPlace>)
      out = room_.ensure(out, step.literal_size + value_room(kind, step.count));
    char* const start = out;
    out = copy_literal(out, step);
    switch (kind) {
      case StepKind::array:
        return write_array(step, from, out);
      case StepKind::loop:
        return write_loop(step, from, out);
      case StepKind::object_open:
        object_is_empty = true;
        return out;
      case StepKind::need_member:
        return object_is_empty ? nullptr : out;
      case StepKind::object_close:
        if (!object_is_empty) return out;
        *start = '}';
        return start + 1;
      case StepKind::local_time:
        return write_time(start, out, load_le<std::uint64_t>(from));
      default:
        break;
    }
    if (object_is_empty) out = copy_literal_without_separator(start, step);
    if (kind == StepKind::choice) {
      out = write_choice(step, base, out);
    } else if (kind != StepKind::member) {
      out = write_optional(step, from, out);
    }
    if (out == nullptr) return start;
    object_is_empty = false;
    return out;
  }

  // Takes back what stands from `start` on where the time has no text.
  char* write_time(char* start, char* out, std::uint64_t timestamp) {
    *out++ = '"';
    const std::size_t size = clock_->write(out, timestamp);
    if (size == 0) return start;
    out += size;
    *out++ = '"';
    return out;
  }

  // Writes the values from `step` on that are of one kind and leaves it behind them.
  template <StepKind kKind>
  [[gnu::always_inline]] char* write_alike(const Step*& step, const std::byte* base, char* out) {
    do {
      if constexpr (!std::is_same_v<Room, InPlace>)
        out = room_.ensure(out, step->literal_size + value_room(kKind, step->count));
      const std::byte* const from = base + step->offset;
      out = copy_literal(out, *step);
      out = write_plan_value(kKind, from, step->count, out);
      if (out == nullptr) [[unlikely]]
        return nullptr;
      ++step;
    } while (step->kind == kKind);
    return out;
  }

  // In one go for nearly all: a step holds the first bytes itself.
  [[gnu::always_inline]] char* copy_literal(char* out, const Step& step) {
    const std::size_t size = step.literal_size;
    std::memcpy(out, step.text.data(), Step::kTextSize);
    if (size > Step::kTextSize) [[unlikely]]
      std::memcpy(out, literals_ + step.literal, size);
    return out + size;
  }

  char* copy_literal_without_separator(char* out, const Step& step) {
    const bool is_long = step.literal_size > Step::kTextSize;
    const char* const literal = is_long ? literals_ + step.literal : step.text.data();
    std::memcpy(out, literal + 1, step.literal_size - 1);
    return out + step.literal_size - 1;
  }

  char* write_array(const Step& step, const std::byte* from, char* out) {
    const char* const separator = literals_ + step.separator;
    for (std::uint32_t k = 0; k < step.count; ++k) {
      out = room_.ensure(out, kNumberRoom + step.separator_size);
      if (k > 0) out = copy_text(out, separator, step.separator_size);
      out = write_plan_value(step.element, from, 1, out);
      if (out == nullptr) [[unlikely]]
        return nullptr;
      from += step.stride;
    }
    return out;
  }

  char* write_loop(const Step& step, const std::byte* from, char* out) {
    const Step* const body = &step + 1;
    const char* const separator = literals_ + step.separator;
    for (std::uint32_t k = 0; k < step.count; ++k) {
      out = room_.ensure(out, step.separator_size);
      if (k > 0) out = copy_text(out, separator, step.separator_size);
      out = run(body, from, out);
      if (out == nullptr) return nullptr;
      from += step.stride;
    }
    return out;
  }

  // Null when the value stands elsewhere or there is none. An earlier value is looked for backwards, so that
  // all choices among n candidates together look at each of them a few times only.
  char* write_choice(const Step& step, const std::byte* base, char* out) {
    const Step* const first = candidates_ + step.end;
    const Step* const own = first + step.count;
    if (!has_optional_text(*own, base)) return nullptr;
    for (const Step* earlier = own; earlier != first;)
      if (has_optional_text(*--earlier, base)) return nullptr;
    const Step* last = first + step.stride - 1;
    while (!has_optional_text(*last, base))
      --last;
    const std::byte* const from = base + last->offset;
    const bool is_optional = last->kind == StepKind::optional_f64 || last->kind == StepKind::optional_text;
    if constexpr (!std::is_same_v<Room, InPlace>)
      out = room_.ensure(out, value_room(last->kind, last->count));
    return is_optional ? write_optional(*last, from, out) : write_plan_value(last->kind, from, 1, out);
  }

  // Null when the value has no text: the member is then left out.
  static char* write_optional(const Step& step, const std::byte* from, char* out) {
    if (step.kind == StepKind::optional_text) qvx_log_hex_dump_if_enabled(from, step.count);
    if (!has_optional_text(step, from - step.offset)) return nullptr;
    switch (step.kind) {
      case StepKind::optional_f64:
        return write_json_number(out, load_le<double>(from));
      case StepKind::optional_influx_f32:
        return write_fixed6(out, double{load_le<float>(from)});
      case StepKind::optional_influx_f64:
        return write_fixed6(out, load_le<double>(from));
      case StepKind::optional_influx_u64:
        out = write_decimal(out, load_le<std::uint64_t>(from));
        *out++ = 'i';
        return out;
      case StepKind::optional_tag:
        return write_tag(out, step, from);
      default:
        break;
    }
    *out++ = '"';
    if (step.kind == StepKind::optional_influx_text) {
      out = write_with_backslashes(out, text_of(step, from), "\"\\");
    } else {
      out = json::write_escaped(out, text_of(step, from));
    }
    *out++ = '"';
    return out;
  }

  static void qvx_log_hex_dump_if_enabled(const std::byte* bytes, std::size_t size) {
    if (QVX_LOG_IS_ENABLED(QVX_LOG_DEBUG)) qvx_log_hex_dump(bytes, size);
  }

  const std::vector<Step>& steps_;
  const Step* candidates_;
  const char* literals_;
  [[no_unique_address]] Room room_;
  LocalTimeText* clock_;
};

// Whether the object that was opened last before the step has a member.
inline bool has_member(const Step* step, const std::byte* base) {
  while ((--step)->kind != StepKind::object_open)
    if (step->kind == StepKind::member || (step->kind > StepKind::member && has_optional_text(*step, base)))
      return true;
  return false;
}

// Whether every value of the steps has a text; nothing is written.
inline bool values_have_text(const std::vector<Step>& steps, const Step* step, const Step* end,
                             const std::byte* base) {
  for (; step != end; ++step) {
    const std::byte* from = base + step->offset;
    if (step->kind == StepKind::array) {
      for (std::uint32_t k = 0; k < step->count; ++k, from += step->stride)
        if (!plan_value_has_text(step->element, from)) return false;
    } else if (step->kind == StepKind::loop) {
      const Step* const after = steps.data() + step->end;
      for (std::uint32_t k = 0; k < step->count; ++k, from += step->stride)
        if (!values_have_text(steps, step + 1, after, from)) return false;
      step = after - 1;
    } else if (step->kind == StepKind::need_member) {
      if (!has_member(step, base)) return false;
    } else if (!plan_value_has_text(step->kind, from)) {
      return false;
    }
  }
  return true;
}

}  // namespace qvx::detail
