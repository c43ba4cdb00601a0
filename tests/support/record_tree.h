// The slow and obvious way from a record to its text, to check the record plans against: event records and
// counters blocks as document trees built value by value, Influx text and tables by printf.
#pragma once

#include <optional>
#include <string>

#include "qvx/counters/counters_schema.h"
#include "qvx/data/schema/schema.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_value.h"

namespace qvx::test {

// Nothing when the record has no JSON form: a value that is no JSON number, one outside the bytes at hand, or
// more bytes in all its values together than 16 × its size + 1,024, the declared one and that at hand (an
// object without members counts for one).
std::optional<json::Value> record_tree(const qvx_type_definition& type, Bytes at_hand);

// The field set, without a line end.
std::optional<std::string> record_influx_text(const qvx_type_definition& type, Bytes at_hand);

std::optional<json::Value> counters_tree(const qvx_counters_schema& schema, Bytes block);

std::string counters_tables_text(const qvx_counters_schema& schema, Bytes block);

}  // namespace qvx::test
