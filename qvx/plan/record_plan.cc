#include "qvx/plan/record_plan.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "qvx/plan/plan_writer.h"
#include "qvx/support/saturate.h"

namespace qvx {
namespace {

using detail::kLiteralPiece;
using detail::value_room;
using detail::Writer;

// Texts up to this size are written in place with one check of the room; larger ones in pieces.
constexpr std::uint64_t kInPlaceText = 128 * 1024;
}  // namespace

std::size_t RecordPlan::write_all(const Records& records, std::string_view first, std::string_view before,
                                  OutputSink& sink, LocalTimeText* clock) const {
  Writer<detail::InPlace> writer(steps_, candidates_.data(), literals_.data(), {}, clock);
  Bytes left = records.at_hand;
  std::string_view ahead = first;
  std::size_t written = 0;
  for (; written < records.count && left.size() >= bytes_needed_; ++written) {
    if (max_text_ <= kInPlaceText) [[likely]] {
      char* out = sink.reserve(max_text_ + ahead.size());
      if (!ahead.empty()) out = std::copy(ahead.begin(), ahead.end(), out);
      out = writer.run(steps_.data(), left.data(), out);
      if (out == nullptr) break;
      sink.commit(out);
    } else if (!write_in_pieces(left, ahead, sink, clock)) {
      break;
    }
    ahead = before;
    left = left.subspan(std::min(records.size, left.size()));
  }
  return written;
}

// Too large to be taken back once parts of it are written out, so the values are looked at first.
bool RecordPlan::write_in_pieces(Bytes record, std::string_view ahead, OutputSink& sink,
                                 LocalTimeText* clock) const {
  const Step* const first = steps_.data();
  if (!detail::values_have_text(steps_, first, first + steps_.size(), record.data())) return false;
  sink.write(ahead);
  Writer<detail::Piecewise> writer(steps_, candidates_.data(), literals_.data(), {sink}, clock);
  sink.commit(writer.run(first, record.data(), sink.reserve(0)));
  return true;
}

bool RecordPlan::write(Bytes at_hand, std::string_view before, OutputSink& sink, LocalTimeText* clock) const {
  return write_all({at_hand, at_hand.size(), 1}, before, {}, sink, clock) == 1;
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
