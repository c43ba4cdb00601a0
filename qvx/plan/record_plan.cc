#include "qvx/plan/record_plan.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "qvx/plan/plan_values.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/number.h"
#include "qvx/support/saturate.h"

namespace qvx {
namespace {

// Texts up to this size are written in place with one check of the room; larger ones in pieces.
constexpr std::uint64_t kInPlaceText = 128 * 1024;
// Literals are copied in pieces of this size, and may be read and written up to one piece too far.
constexpr std::size_t kLiteralPiece = Step::kTextSize;
// Every JSON text of a byte in a string is at most "\u00xx".
constexpr std::uint64_t kMaxEscape = 6;
constexpr std::uint64_t kEscapeSlack = 16;

std::uint64_t value_room(StepKind kind, std::uint64_t count) {
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

std::string_view text_of(const Step& step, const std::byte* from) {
  const std::string_view text(reinterpret_cast<const char*>(from), step.count);
  return text.substr(0, text.find('\0'));
}

// Whether an optional value is written.
bool has_optional_text(const Step& step, const std::byte* base) {
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
char* write_with_backslashes(char* out, std::string_view text, std::string_view characters) {
  for (const char c : text) {
    if (characters.find(c) != std::string_view::npos) *out++ = '\\';
    *out++ = c;
  }
  return out;
}

// A backslash at the end would escape what stands behind the tag.
char* write_tag(char* out, const Step& step, const std::byte* from) {
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
    for (;; ++step) {
      const StepKind kind = step->kind;
      const std::byte* const from = base + step->offset;
      if constexpr (!std::is_same_v<Room, InPlace>)
        out = room_.ensure(out, step->literal_size + value_room(kind, step->count));
      char* const start = out;
      out = copy_literal(out, *step);
      if (kind <= StepKind::last_plain) [[likely]] {
        out = write_plan_value(kind, from, step->count, out);
        if (out == nullptr) [[unlikely]]
          return nullptr;
        continue;
      }
      switch (kind) {
        case StepKind::end:
          return out;
        case StepKind::array:
          out = write_array(*step, from, out);
          break;
        case StepKind::loop:
          out = write_loop(*step, from, out);
          step = steps_.data() + step->end - 1;
          break;
        case StepKind::object_open:
          object_is_empty = true;
          break;
        case StepKind::need_member:
          if (object_is_empty) return nullptr;
          break;
        case StepKind::object_close:
          if (object_is_empty) {
            *start = '}';
            out = start + 1;
          }
          break;
        case StepKind::member:
        case StepKind::optional_f64:
        case StepKind::optional_text:
        case StepKind::optional_influx_f32:
        case StepKind::optional_influx_f64:
        case StepKind::optional_influx_u64:
        case StepKind::optional_influx_text:
        case StepKind::optional_tag:
        case StepKind::choice:
          if (object_is_empty) out = copy_literal_without_separator(start, *step);
          if (kind == StepKind::choice) {
            out = write_choice(*step, base, out);
          } else if (kind != StepKind::member) {
            out = write_optional(*step, from, out);
          }
          if (out != nullptr) {
            object_is_empty = false;
          } else {
            out = start;
          }
          break;
        case StepKind::local_time: {
          *out++ = '"';
          const std::size_t size = clock_->write(out, load_le<std::uint64_t>(from));
          if (size == 0) {
            out = start;
            break;
          }
          out += size;
          *out++ = '"';
          break;
        }
        default:
          break;
      }
      if (out == nullptr) [[unlikely]]
        return nullptr;
    }
    return out;
  }

 private:
  // In one go for nearly all: a step holds the first bytes itself.
  char* copy_literal(char* out, const Step& step) {
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
bool has_member(const Step* step, const std::byte* base) {
  while ((--step)->kind != StepKind::object_open)
    if (step->kind == StepKind::member || (step->kind > StepKind::member && has_optional_text(*step, base)))
      return true;
  return false;
}

// Whether every value of the steps has a text; nothing is written.
bool values_have_text(const std::vector<Step>& steps, const Step* step, const Step* end,
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

}  // namespace

bool RecordPlan::write(Bytes at_hand, std::string_view before, OutputSink& sink, LocalTimeText* clock) const {
  if (at_hand.size() < bytes_needed_) return false;
  const Step* const first = steps_.data();
  if (max_text_ <= kInPlaceText) [[likely]] {
    char* out = sink.reserve(max_text_ + before.size());
    out = std::copy(before.begin(), before.end(), out);
    Writer<InPlace> writer(steps_, candidates_.data(), literals_.data(), {}, clock);
    out = writer.run(first, at_hand.data(), out);
    if (out == nullptr) return false;
    sink.commit(out);
    return true;
  }
  // Too large to be taken back once parts of it are written out, so the values are looked at first.
  if (!values_have_text(steps_, first, first + steps_.size(), at_hand.data())) return false;
  sink.write(before);
  Writer<Piecewise> writer(steps_, candidates_.data(), literals_.data(), {sink}, clock);
  sink.commit(writer.run(first, at_hand.data(), sink.reserve(0)));
  return true;
}

std::optional<std::string> RecordPlan::text(Bytes at_hand, LocalTimeText* clock) const {
  std::string text;
  OutputSink sink(text);
  if (!write(at_hand, {}, sink, clock) || !sink.flush()) return std::nullopt;
  return text;
}

void PlanBuilder::add_text(std::string_view literal) {
  if (failed_) return;
  if (text_size_ + pending_.size() + literal.size() > limits_.literals) {
    failed_ = true;
    return;
  }
  pending_ += literal;
}

bool PlanBuilder::visit() {
  if (++visits_ > limits_.steps) failed_ = true;
  return !failed_;
}

Step& PlanBuilder::add(StepKind kind, std::uint64_t offset, std::uint64_t text_room) {
  Step& step = plan_.steps_.emplace_back();
  step.kind = kind;
  step.literal_size = static_cast<std::uint32_t>(pending_.size());
  std::copy_n(pending_.begin(), std::min(pending_.size(), Step::kTextSize), step.text.begin());
  // An offset that does not fit is never used: the plan then needs more bytes than any record has.
  step.offset = static_cast<std::uint32_t>(offset);
  if (pending_.size() > Step::kTextSize) {
    step.literal = static_cast<std::uint32_t>(plan_.literals_.size());
    plan_.literals_ += pending_;
  }
  text_size_ += pending_.size();
  extent_.text = saturating_add(extent_.text, pending_.size() + text_room);
  pending_.clear();
  return step;
}

void PlanBuilder::set_separator(Step& step, std::string_view separator) {
  if (separator.size() > std::numeric_limits<decltype(step.separator_size)>::max()) failed_ = true;
  step.separator = static_cast<std::uint32_t>(plan_.literals_.size());
  step.separator_size = static_cast<std::uint16_t>(separator.size());
  plan_.literals_ += separator;
  text_size_ += separator.size();
}

// A value without bytes lies in every record, wherever it stands.
void PlanBuilder::touch(std::uint64_t offset, std::uint64_t size) {
  if (size > 0) extent_.reach = std::max(extent_.reach, saturating_add(offset, size));
}

void PlanBuilder::value(StepKind kind, std::uint64_t offset, std::uint32_t size) {
  if (!visit()) return;
  add(kind, offset, value_room(kind, 1));
  touch(offset, size);
}

void PlanBuilder::characters(StepKind kind, std::uint64_t offset, std::uint32_t length) {
  if (!visit()) return;
  add(kind, length > 0 ? offset : 0, value_room(kind, length)).count = length;
  touch(offset, length);
}

void PlanBuilder::array(StepKind element, std::uint64_t offset, std::uint32_t count, std::uint64_t stride,
                        std::uint32_t element_size, std::string_view separator) {
  if (!visit() || count == 0) return;
  const std::uint64_t room =
      saturating_multiply(count, value_room(element, 1) + separator.size() + kLiteralPiece);
  Step& step = add(StepKind::array, offset, room);
  step.element = element;
  step.count = count;
  step.stride = static_cast<std::uint32_t>(stride);
  set_separator(step, separator);
  touch(saturating_add(offset, saturating_multiply(stride, count - 1)), element_size);
}

void PlanBuilder::open_loop(std::uint64_t offset, std::uint32_t count, std::uint64_t stride,
                            std::string_view separator) {
  if (!visit()) return;
  Step& step = add(StepKind::loop, offset, 0);
  step.count = count;
  step.stride = static_cast<std::uint32_t>(stride);
  set_separator(step, separator);
  loops_.push_back({plan_.steps_.size() - 1, offset, stride, extent_});
  extent_ = {};
}

void PlanBuilder::close_loop() {
  if (failed_) return;
  add(StepKind::end, 0, 0);
  const OpenLoop loop = loops_.back();
  loops_.pop_back();
  Step& step = plan_.steps_[loop.step];
  step.end = static_cast<std::uint32_t>(plan_.steps_.size());
  const Extent body = std::exchange(extent_, loop.outer);
  if (step.count == 0) return;
  if (body.reach > 0) {
    const std::uint64_t last = saturating_add(loop.offset, saturating_multiply(loop.stride, step.count - 1));
    extent_.reach = std::max(extent_.reach, saturating_add(last, body.reach));
  }
  extent_.text = saturating_add(
      extent_.text, saturating_multiply(saturating_add(body.text, step.separator_size), step.count));
}

void PlanBuilder::candidate(StepKind kind, std::uint64_t offset, std::uint32_t length) {
  if (!visit()) return;
  Step& step = plan_.candidates_.emplace_back();
  step.kind = kind;
  step.offset = static_cast<std::uint32_t>(length > 0 ? offset : 0);
  step.count = length;
  touch(offset, length);
}

void PlanBuilder::choice(std::uint32_t candidates, std::uint32_t count, std::uint32_t place) {
  if (!visit()) return;
  std::uint64_t room = 0;
  // Only one of the choices among the same candidates is written, so one has room for all their texts.
  for (std::uint32_t k = 0; place == 0 && k < count; ++k) {
    const Step& candidate = plan_.candidates_[candidates + k];
    room = saturating_add(room, value_room(candidate.kind, candidate.count));
  }
  Step& step = add(StepKind::choice, 0, room);
  step.end = candidates;
  step.stride = count;
  step.count = place;
}

void PlanBuilder::structure(StepKind kind) {
  if (failed_) return;
  if (kind == StepKind::literal && pending_.empty()) return;
  add(kind, 0, value_room(kind, 1));
}

std::optional<RecordPlan> PlanBuilder::finish() {
  if (failed_) return std::nullopt;
  add(StepKind::end, 0, 0);
  plan_.max_text_ = saturating_add(extent_.text, 2 * kLiteralPiece);
  plan_.bytes_needed_ = extent_.reach;
  plan_.literals_.append(kLiteralPiece, '\0');
  plan_.literals_.shrink_to_fit();
  plan_.steps_.shrink_to_fit();
  plan_.candidates_.shrink_to_fit();
  return std::move(plan_);
}

}  // namespace qvx
