#include "qvx/counters/counter_data.h"

#include <array>
#include <new>

#include "qvx/support/format.h"
#include "qvx/support/log.h"

qvx_counter_info* qvx_counter_info_copy(const qvx_counter_info* info) noexcept {
  if (info == nullptr) return nullptr;
  try {
    return new qvx_counter_info(*info);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void qvx_destroy_counter_info(qvx_counter_info* info) noexcept {
  if (info == nullptr) return;
  for (const auto* text : {&info->name, &info->description, &info->units}) {
    if (*text) continue;
    QVX_LOG(QVX_LOG_WARNING, "on %s, %s %d attempted to free NULL ptr", "counter_data",
            "qvx_destroy_counter_info", __LINE__);
  }
  delete info;
}

std::optional<std::string> qvx_counter_line(const qvx_counter_info* info) noexcept {
  const auto text_of = [](const std::optional<std::string>& text) { return text ? text->c_str() : ""; };
  try {
    return qvx::format_text("| %-40s | %-60.60s |\n", text_of(info->name), text_of(info->description));
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

namespace qvx {
namespace {

constexpr std::uint32_t kUnknown = 0xFFFFFFFF;

constexpr std::array<const char*, 6> kDataTypes{"Undefined", "UINT64", "FP64", "BIT64", "INT64", "STRING"};
constexpr std::array<const char*, 2> kCountingTypes{"ABSOLUTE", "RUNNING_SUM"};
constexpr std::array<const char*, 3> kGranularities{"NODE", "CPU", "PACKAGE"};

template <std::size_t kSize>
std::uint32_t value_of(const std::array<const char*, kSize>& names, std::string_view name) {
  for (std::size_t value = 0; value < kSize; ++value)
    if (name == names[value]) return static_cast<std::uint32_t>(value);
  return kUnknown;
}

template <std::size_t kSize>
const char* name_of(const std::array<const char*, kSize>& names, std::uint32_t value) {
  return value < kSize ? names[value] : nullptr;
}

}  // namespace

std::uint32_t counter_data_type_from_name(std::string_view name) noexcept {
  return value_of(kDataTypes, name);
}
const char* counter_data_type_name(std::uint32_t value) noexcept {
  return name_of(kDataTypes, value);
}

std::uint32_t counter_counting_type_from_name(std::string_view name) noexcept {
  return value_of(kCountingTypes, name);
}
const char* counter_counting_type_name(std::uint32_t value) noexcept {
  return name_of(kCountingTypes, value);
}

std::uint32_t granularity_from_name(std::string_view name) noexcept {
  return value_of(kGranularities, name);
}
const char* granularity_name(std::uint32_t value) noexcept {
  return name_of(kGranularities, value);
}

}  // namespace qvx
