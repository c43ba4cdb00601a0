// A group of counters that are sampled together, for a node or for each of its CPUs or packages.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvx/counters/counter_data.h"

struct qvx_counter_group;

// The provider that made a group. Hooks may be null.
struct qvx_counter_provider_ops {
  const char* name;
  void (*destroy_group)(qvx_counter_group* group);
  // Whether the group takes a new counter.
  bool (*accept_counter)(qvx_counter_group* group, const qvx_counter_info* info);
  bool (*start)(qvx_counter_group* group);
  bool (*stop)(qvx_counter_group* group);
};

struct qvx_counter_group {
  const qvx_counter_provider_ops* provider_ops = nullptr;  // not owned; groups read from JSON have none
  std::uint32_t granularity = 0;
  std::uint32_t num_counter_sets = 0;  // instances, for example one per CPU
  std::vector<qvx::CounterInfoPtr> counters;
  std::optional<std::string> name;
  std::optional<std::string> provider;
};

// Appends a deep copy of the counter, unless the provider refuses it. False when it refuses or memory is
// short, or when there is no counter.
[[nodiscard]] bool qvx_counter_group_add_counter(qvx_counter_group* group,
                                                 const qvx_counter_info* info) noexcept;

// Frees the group and its counters; a missing counter is reported at level 4.
void qvx_free_counter_group(qvx_counter_group* group) noexcept;

// The table of the group's counters.
void qvx_counter_group_print_list(std::FILE* stream, const qvx_counter_group* group) noexcept;

namespace qvx {

// Frees through the provider's hook when there is one.
struct CounterGroupDelete {
  void operator()(qvx_counter_group* group) const noexcept;
};
using CounterGroupPtr = std::unique_ptr<qvx_counter_group, CounterGroupDelete>;

// The group's name, else that of its provider, else null.
const char* counter_group_display_name(const qvx_counter_group& group) noexcept;

}  // namespace qvx
