// One performance counter: what it is called, how its value is read and where it lies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

enum qvx_counter_data_type : std::uint32_t {
  QVX_COUNTER_UNDEFINED = 0,
  QVX_COUNTER_UINT64 = 1,
  QVX_COUNTER_FP64 = 2,
  QVX_COUNTER_BIT64 = 3,
  QVX_COUNTER_INT64 = 4,
  QVX_COUNTER_STRING = 5,
};

// Owns its texts. A counter is always built with all three; a missing one is reported when the counter is
// freed.
struct qvx_counter_info {
  std::optional<std::string> name;
  std::optional<std::string> description;
  std::optional<std::string> units;
  std::uint32_t data_type = QVX_COUNTER_UNDEFINED;
  std::uint32_t counting_type = 0;
  std::uint32_t offset = 0;  // bytes from the start of the values area
  std::uint32_t length = 0;  // bytes of a string; for other types 0 means 8
  std::uint32_t reserved = 0;
  std::uint8_t hidden = 0;     // 0 or 1
  std::uint8_t mandatory = 0;  // 0 or 1
};

// A deep copy; null of nothing and when memory is short.
[[nodiscard]] qvx_counter_info* qvx_counter_info_copy(const qvx_counter_info* info) noexcept;

// Frees a counter; each text that is missing is reported at level 4.
void qvx_destroy_counter_info(qvx_counter_info* info) noexcept;

// "| name | description |" in columns of 40 and 60 characters, with a line end; nothing when memory is
// short.
[[nodiscard]] std::optional<std::string> qvx_counter_line(const qvx_counter_info* info) noexcept;

namespace qvx {

struct CounterInfoDelete {
  void operator()(qvx_counter_info* info) const noexcept { qvx_destroy_counter_info(info); }
};
using CounterInfoPtr = std::unique_ptr<qvx_counter_info, CounterInfoDelete>;

// The numeric types are as wide as a slot of the values area.
inline constexpr std::uint32_t kCounterSlotSize = 8;

// Names of the enumerations. An unknown name gives 0xFFFFFFFF, an unknown value null. The counting types are
// those of event fields but for "ABSOLUTE_MONOTONIC", which is unknown here.
std::uint32_t counter_data_type_from_name(std::string_view name) noexcept;
const char* counter_data_type_name(std::uint32_t value) noexcept;
std::uint32_t counter_counting_type_from_name(std::string_view name) noexcept;
const char* counter_counting_type_name(std::uint32_t value) noexcept;
std::uint32_t granularity_from_name(std::string_view name) noexcept;
const char* granularity_name(std::uint32_t value) noexcept;

}  // namespace qvx
