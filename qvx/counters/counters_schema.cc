#include "qvx/counters/counters_schema.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "qvx/support/grow.h"
#include "qvx/support/log.h"

namespace {

// Offsets and sizes stop at the largest value instead of wrapping: such a counter lies outside every block.
std::uint32_t add_sizes(std::uint32_t a, std::uint32_t b) {
  return a > std::numeric_limits<std::uint32_t>::max() - b ? std::numeric_limits<std::uint32_t>::max()
                                                           : a + b;
}

const char* name_of(const qvx_counter_info& counter) {
  return counter.name ? counter.name->c_str() : "";
}

}  // namespace

qvx_counters_schema* qvx_counters_schema_create() noexcept {
  auto* const schema = new (std::nothrow) qvx_counters_schema;
  if (schema == nullptr) QVX_LOG(QVX_LOG_ERROR, "failed to allocate schema");
  return schema;
}

void qvx_counters_schema_destroy(qvx_counters_schema* schema) noexcept {
  delete schema;
}

bool qvx_counters_schema_add_group(qvx_counters_schema* schema, qvx_counter_group* group) noexcept {
  if (group == nullptr) return false;
  try {
    qvx::reserve_one_more(schema->groups);
  } catch (const std::exception&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed allocating memory for %d's group: %s",
            static_cast<int>(schema->groups.size() + 1), std::strerror(ENOMEM));
    return false;
  }
  schema->groups.emplace_back(group);
  return true;
}

const qvx_counter_info* qvx_counters_schema_find_counter(const qvx_counters_schema* schema,
                                                         const char* name) noexcept {
  if (name == nullptr) return nullptr;
  for (const auto& group : schema->groups)
    for (const auto& counter : group->counters)
      if (counter != nullptr && counter->name && *counter->name == name) return counter.get();
  return nullptr;
}

void qvx_counters_schema_update_counter_offsets(qvx_counters_schema* schema) noexcept {
  std::uint32_t offset = 0;
  for (const auto& group : schema->groups) {
    for (const auto& counter : group->counters) {
      if (counter == nullptr) continue;
      std::uint32_t size = counter->length;
      if (size == 0) {
        if (counter->data_type == QVX_COUNTER_STRING) {
          QVX_LOG(QVX_LOG_ERROR, "[%s] Fail: received 0 length string counter %s",
                  "qvx_counters_schema_update_counter_offsets", name_of(*counter));
          return;
        }
        size = qvx::kCounterSlotSize;
      }
      counter->offset = offset;
      QVX_LOG(QVX_LOG_DEBUG, "[schema] Set up counter %s  size=%d  offset=%d", name_of(*counter),
              static_cast<int>(counter->length), static_cast<int>(offset));
      offset = add_sizes(offset, size);
    }
  }
}

std::uint32_t qvx_counters_schema_size_of_counters(const qvx_counters_schema* schema) noexcept {
  constexpr const char* kRoutine = "qvx_counters_schema_size_of_counters";
  std::uint32_t total = 0;
  for (const auto& group : schema->groups) {
    const char* const name = qvx::counter_group_display_name(*group);
    QVX_LOG(QVX_LOG_DEBUG, "%s group %s has %d counter sets", kRoutine, name != nullptr ? name : "",
            static_cast<int>(group->num_counter_sets));
    for (const auto& counter : group->counters)
      if (counter != nullptr)
        total = add_sizes(total,
                          counter->data_type == QVX_COUNTER_STRING ? counter->length : qvx::kCounterSlotSize);
  }
  QVX_LOG(QVX_LOG_DEBUG, "%s returning %d d", kRoutine, static_cast<int>(total));
  return total;
}

std::uint32_t qvx_counters_schema_number_of_counters(const qvx_counters_schema* schema) noexcept {
  std::size_t total = 0;
  for (const auto& group : schema->groups) {
    if (group->num_counter_sets != 1) {
      QVX_LOG(QVX_LOG_ERROR, "[%s] num_counter_sets should be 1, not %d",
              "qvx_counters_schema_number_of_counters", static_cast<int>(group->num_counter_sets));
      return 0;
    }
    total += group->counters.size();
  }
  return static_cast<std::uint32_t>(total);
}

std::uint64_t qvx_counters_schema_number_of_values(const qvx_counters_schema* schema) noexcept {
  std::uint64_t total = 0;
  for (const auto& group : schema->groups)
    total += std::uint64_t{group->num_counter_sets} * group->counters.size();
  return total;
}
