#include "qvx/counters/counters_block.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <utility>

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

  void counter_set(const qvx_counter_group& group, std::size_t depth) {
    // A name that repeats keeps its first place and takes its last value.
    std::unordered_map<std::string_view, const qvx_counter_info*> shown;
    std::vector<std::string_view> order;
    for (const auto& counter : group.counters) {
      const auto [place, is_new] = shown.try_emplace(name_of(*counter), counter.get());
      if (is_new) {
        order.push_back(place->first);
      } else {
        hidden_value(*std::exchange(place->second, counter.get()));
      }
    }
    builder_.text("{");
    if (order.empty()) {
      builder_.text("}");
      return;
    }
    // While nothing certain stands before a member, its separator depends on what was left out.
    bool certain = !is_optional(*shown[order.front()]);
    if (!certain) builder_.structure(StepKind::object_open);
    for (std::size_t index = 0; index < order.size(); ++index) {
      const qvx_counter_info& counter = *shown[order[index]];
      builder_.text(spelling_.item(index == 0 && certain, depth), spelling_.key(order[index]));
      if (is_optional(counter)) {
        optional_value(counter);
        continue;
      }
      if (!certain) builder_.structure(StepKind::member);
      certain = true;
      builder_.value(counter_kind(counter), offset_in_block(counter), kCounterSlotSize);
    }
    builder_.text(spelling_.line(depth - 1), "}");
    if (!certain) builder_.structure(StepKind::object_close);
  }

  void optional_value(const qvx_counter_info& counter) {
    if (counter.data_type == QVX_COUNTER_FP64) {
      builder_.value(StepKind::optional_f64, offset_in_block(counter), kCounterSlotSize);
    } else {
      builder_.characters(StepKind::optional_text, offset_in_block(counter), counter.length);
    }
  }

  // Must lie in the block like any other, but is not seen.
  void hidden_value(const qvx_counter_info& counter) {
    const std::uint32_t size = counter.data_type == QVX_COUNTER_STRING ? counter.length : kCounterSlotSize;
    builder_.array(StepKind::literal, offset_in_block(counter), 1, 0, size, "");
  }

  static std::uint64_t offset_in_block(const qvx_counter_info& counter) {
    return std::uint64_t{kCountersHeaderSize} + counter.offset;
  }

  static StepKind counter_kind(const qvx_counter_info& counter) {
    const bool is_unsigned =
        counter.data_type == QVX_COUNTER_UINT64 || counter.data_type == QVX_COUNTER_BIT64;
    return is_unsigned ? StepKind::json_u64 : StepKind::json_i64;
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
                                                      qvx::json::Style style) {
  const std::optional<qvx::RecordPlan> plan = qvx::compile_counters_plan(*schema, style, "");
  if (!plan) return std::nullopt;
  qvx::LocalTimeText clock;
  return plan->text(block, &clock);
}
