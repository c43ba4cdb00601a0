// Counters schemas put together by hand.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <new>
#include <string>
#include <utility>

#include "qvx/counters/counters_schema.h"

namespace qvx::test {

inline CounterInfoPtr make_counter(std::string name, std::uint32_t data_type, std::uint32_t length = 0) {
  CounterInfoPtr counter(new qvx_counter_info);
  counter->name = std::move(name);
  counter->description = "about it";
  counter->units = "";
  counter->data_type = data_type;
  counter->length = length;
  return counter;
}

struct CounterSpec {
  const char* name;
  std::uint32_t data_type;
  std::uint32_t length = 0;
};

// Granularity 0 is the node, 1 the CPU, 2 the package.
inline qvx_counter_group* make_group(std::uint32_t granularity, std::uint32_t sets,
                                     std::initializer_list<CounterSpec> counters) {
  auto* const group = new qvx_counter_group;
  group->granularity = granularity;
  group->num_counter_sets = sets;
  for (const CounterSpec& counter : counters)
    group->counters.push_back(make_counter(counter.name, counter.data_type, counter.length));
  return group;
}

// With offsets and size set.
inline CountersSchemaPtr make_schema(std::initializer_list<qvx_counter_group*> groups) {
  CountersSchemaPtr schema(qvx_counters_schema_create());
  for (qvx_counter_group* const group : groups)
    if (!qvx_counters_schema_add_group(schema.get(), group)) throw std::bad_alloc();
  qvx_counters_schema_update_counter_offsets(schema.get());
  schema->size_of_counters = qvx_counters_schema_size_of_counters(schema.get());
  return schema;
}

}  // namespace qvx::test
