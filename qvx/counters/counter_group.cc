#include "qvx/counters/counter_group.h"

#include <new>
#include <utility>

#include "qvx/support/grow.h"
#include "qvx/support/log.h"

bool qvx_counter_group_add_counter(qvx_counter_group* group, const qvx_counter_info* info) noexcept {
  try {
    qvx::reserve_one_more(group->counters);
  } catch (const std::exception&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate array of %d counter pointers",
            static_cast<int>(group->counters.size() + 1));
    return false;
  }
  const qvx_counter_provider_ops* const ops = group->provider_ops;
  if (ops != nullptr && ops->accept_counter != nullptr && !ops->accept_counter(group, info)) return false;
  qvx::CounterInfoPtr copy(qvx_counter_info_copy(info));
  if (copy == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Deep copy of the counter failed");
    return false;
  }
  group->counters.push_back(std::move(copy));
  return true;
}

void qvx_free_counter_group(qvx_counter_group* group) noexcept {
  if (group == nullptr) return;
  for (const qvx::CounterInfoPtr& counter : group->counters) {
    if (counter != nullptr) continue;
    QVX_LOG(QVX_LOG_WARNING, "on %s, %s %d attempted to free NULL ptr", "counter_group",
            "qvx_free_counter_group", __LINE__);
  }
  delete group;
}

void qvx_counter_group_print_list(std::FILE* stream, const qvx_counter_group* group) noexcept {
  const auto text_of = [](const std::optional<std::string>& text) { return text ? text->c_str() : ""; };
  constexpr const char* kRule = "------------------------------------------\n";
  const char* const granularity = qvx::granularity_name(group->granularity);
  std::fputs(kRule, stream);
  std::fprintf(stream, "| Granularity per %s (%d counter sets) \n", granularity != nullptr ? granularity : "",
               static_cast<int>(group->num_counter_sets));
  std::fputs(kRule, stream);
  std::fprintf(stream, "| %2s | %-20s | %-40s\n", "#", "Active counter", "Description");
  std::fputs(kRule, stream);
  int position = 0;
  for (const qvx::CounterInfoPtr& counter : group->counters) {
    if (counter == nullptr) continue;
    std::fprintf(stream, "| %2d | %-20s | %-40.40s\n", position++, text_of(counter->name),
                 text_of(counter->description));
  }
  std::fputs(kRule, stream);
  std::fflush(stream);
}

namespace qvx {

void CounterGroupDelete::operator()(qvx_counter_group* group) const noexcept {
  if (group->provider_ops != nullptr && group->provider_ops->destroy_group != nullptr) {
    group->provider_ops->destroy_group(group);
  } else {
    qvx_free_counter_group(group);
  }
}

const char* counter_group_display_name(const qvx_counter_group& group) noexcept {
  if (group.name) return group.name->c_str();
  return group.provider_ops != nullptr ? group.provider_ops->name : nullptr;
}

}  // namespace qvx
