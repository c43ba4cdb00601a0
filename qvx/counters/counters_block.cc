#include "qvx/counters/counters_block.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <map>
#include <vector>

#include "qvx/data/block.h"
#include "qvx/plan/json_spelling.h"

namespace qvx {
namespace {

constexpr const char* kUnnamedGroup = "unset";

std::string_view name_of(const qvx_counter_info& counter) {
  return counter.name ? std::string_view(*counter.name) : std::string_view();
}

// All sets of a group read the same bytes, so the size of a block says nothing of what its text takes.
bool is_work_bounded(const qvx_counters_schema& schema) {
  constexpr std::uint64_t kMaxRepeatedText = std::uint64_t{256} << 20;
  std::uint64_t values = 0;
  std::uint64_t repeated_text = 0;
  for (const auto& group : schema.groups) {
    const std::uint64_t sets = group->num_counter_sets;
    values += sets * std::max<std::uint64_t>(group->counters.size(), 1);
    if (values > kMaxCounterValues) return false;
    if (sets < 2) continue;
    for (const auto& counter : group->counters) {
      if (counter == nullptr) continue;
      repeated_text += sets * name_of(*counter).size();
      if (counter->data_type == QVX_COUNTER_STRING) repeated_text += sets * counter->length;
    }
  }
  return repeated_text <= kMaxRepeatedText;
}

class CountersCompiler {
 public:
  CountersCompiler(PlanBuilder& builder, json::Style style) : builder_(builder), spelling_(style) {}

  void block(const qvx_counters_schema& schema) {
    constexpr std::uint64_t kTimestamp = offset_of(kCountersBlockLayout, "timestamp");
    builder_.text("{", spelling_.line(1), spelling_.key("timestamp"));
    builder_.value(StepKind::json_u64, kTimestamp, sizeof(std::uint64_t));
    builder_.text(spelling_.item(false, 1), spelling_.key("@timestamp"));
    builder_.value(StepKind::local_time, kTimestamp, sizeof(std::uint64_t));
    builder_.text(spelling_.item(false, 1), spelling_.key("groups"), "[");
    for (std::size_t index = 0; index < schema.groups.size(); ++index) {
      builder_.text(spelling_.item(index == 0, 2));
      group(*schema.groups[index]);
    }
    if (!schema.groups.empty()) builder_.text(spelling_.line(1));
    builder_.text("]", spelling_.line(0), "}");
  }

 private:
  void group(const qvx_counter_group& group) {
    constexpr std::size_t kDepth = 3;  // of the group's members
    bool first = true;
    const auto begin_member = [&](std::string_view name) {
      builder_.text(spelling_.item(first, kDepth), spelling_.key(name));
      first = false;
    };
    const auto text_member = [&](std::string_view name, std::string_view value) {
      if (!json::is_valid_utf8(value)) return;
      begin_member(name);
      std::string quoted;
      json::append_quoted(quoted, value);
      builder_.text(quoted);
    };
    builder_.text("{");
    const char* const granularity = granularity_name(group.granularity);
    if (granularity != nullptr) text_member("granularity", granularity);
    const char* const name = counter_group_display_name(group);
    text_member("name", name != nullptr ? name : kUnnamedGroup);
    begin_member("counter_sets");
    builder_.text("[");
    if (group.num_counter_sets > 0) {
      builder_.text(spelling_.line(kDepth + 1));
      builder_.open_loop(0, group.num_counter_sets, 0, spelling_.item(false, kDepth + 1));
      counter_set(group, kDepth + 2);
      builder_.close_loop();
      builder_.text(spelling_.line(kDepth));
    }
    builder_.text("]", spelling_.line(kDepth - 1), "}");
  }

  static bool is_optional(const qvx_counter_info& counter) {
    return counter.data_type == QVX_COUNTER_FP64 || counter.data_type == QVX_COUNTER_STRING;
  }

  // The counters of one name, in order. The last one with a value is shown, at the place of the first one
  // with a value: both are known only when a block is written, unless there is one counter of that name.
  struct Namesakes {
    std::vector<const qvx_counter_info*> counters;
    std::size_t next = 0;  // counters before this one have been compiled
    std::uint32_t candidates = 0;
    bool has_place = false;  // a value that is never left out stands before the next counter
  };

  void counter_set(const qvx_counter_group& group, std::size_t depth) {
    std::map<std::string_view, Namesakes> by_name;
    std::vector<const qvx_counter_info*> counters;
    for (const auto& counter : group.counters) {
      if (counter == nullptr) continue;
      counters.push_back(counter.get());
      by_name[name_of(*counter)].counters.push_back(counter.get());
    }
    builder_.text("{");
    if (counters.empty()) {
      builder_.text("}");
      return;
    }
    // While nothing certain stands before a member, its separator depends on what was left out.
    bool certain = !is_optional(*counters.front());
    if (!certain) builder_.structure(StepKind::object_open);
    for (const qvx_counter_info* const counter : counters) {
      Namesakes& namesakes = by_name[name_of(*counter)];
      const std::size_t place = namesakes.next++;
      if (namesakes.has_place) continue;
      builder_.text(spelling_.item(counter == counters.front() && certain, depth),
                    spelling_.key(name_of(*counter)));
      if (namesakes.counters.size() > 1) {
        if (place == 0) namesakes.candidates = candidates(namesakes);
        builder_.choice(namesakes.candidates, static_cast<std::uint32_t>(namesakes.counters.size()),
                        static_cast<std::uint32_t>(place));
      } else if (is_optional(*counter)) {
        optional_value(*counter);
      } else {
        if (!certain) builder_.structure(StepKind::member);
        builder_.value(value_kind(*counter), offset_in_block(*counter), kCounterSlotSize);
      }
      namesakes.has_place = !is_optional(*counter);
      certain = certain || namesakes.has_place;
    }
    builder_.text(spelling_.line(depth - 1), "}");
    if (!certain) builder_.structure(StepKind::object_close);
  }

  std::uint32_t candidates(const Namesakes& namesakes) {
    const std::uint32_t first = builder_.next_candidate();
    for (const qvx_counter_info* const counter : namesakes.counters) {
      const bool is_text = counter->data_type == QVX_COUNTER_STRING;
      builder_.candidate(value_kind(*counter), offset_in_block(*counter),
                         is_text ? counter->length : kCounterSlotSize);
    }
    return first;
  }

  void optional_value(const qvx_counter_info& counter) {
    if (counter.data_type == QVX_COUNTER_FP64) {
      builder_.value(StepKind::optional_f64, offset_in_block(counter), kCounterSlotSize);
    } else {
      builder_.characters(StepKind::optional_text, offset_in_block(counter), counter.length);
    }
  }

  static std::uint64_t offset_in_block(const qvx_counter_info& counter) {
    return std::uint64_t{kCountersHeaderSize} + counter.offset;
  }

  static StepKind value_kind(const qvx_counter_info& counter) {
    switch (counter.data_type) {
      case QVX_COUNTER_FP64:
        return StepKind::optional_f64;
      case QVX_COUNTER_STRING:
        return StepKind::optional_text;
      case QVX_COUNTER_UINT64:
      case QVX_COUNTER_BIT64:
        return StepKind::json_u64;
      default:
        return StepKind::json_i64;
    }
  }

  PlanBuilder& builder_;
  JsonSpelling spelling_;
};

}  // namespace

std::optional<RecordPlan> compile_counters_plan(const qvx_counters_schema& schema, json::Style style,
                                                std::string_view after) {
  if (!is_work_bounded(schema)) return std::nullopt;
  // The text around values comes out of the schema as it is, so nothing else bounds the plan.
  PlanBuilder builder({.steps = 4 * kMaxCounterValues, .literals = std::size_t{1} << 30});
  CountersCompiler(builder, style).block(schema);
  builder.text(after);
  return builder.finish();
}

}  // namespace qvx

std::optional<std::string> qvx_counters_block_to_json(qvx::Bytes block, const qvx_counters_schema* schema,
                                                      qvx::json::Style style) noexcept {
  if (schema == nullptr) return std::nullopt;
  try {
    const std::optional<qvx::RecordPlan> plan = qvx::compile_counters_plan(*schema, style, "");
    if (!plan) return std::nullopt;
    qvx::LocalTimeText clock;
    return plan->text(block, &clock);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}
