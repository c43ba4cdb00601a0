// Numbers as text, exact to the byte and without printf.
//
// Every function writes at `out` without a terminator and returns the position behind the last byte. The
// buffer must offer the stated room, which may exceed the text: the routines store whole words.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvx {

// Room that the JSON and integer functions ask for. The longest text of theirs is 24 bytes.
inline constexpr std::size_t kNumberRoom = 32;
// Room that write_fixed6 asks for: the largest double has 309 digits before the point.
inline constexpr std::size_t kFixedNumberRoom = 352;

// The text that the C format "%1.17g" gives for a finite value. JSON has no text for NaN and the infinities;
// passing one is a fault of the caller.
char* write_json_number(char* out, double value);

// The text of the value converted to double, which is how JSON holds every number: exact up to 2^53, rounded
// beyond, in the exponent form from 1e17 on.
char* write_json_number(char* out, std::uint64_t value);
char* write_json_number(char* out, std::int64_t value);

// Plain decimal integers.
char* write_decimal(char* out, std::uint64_t value);
char* write_decimal(char* out, std::int64_t value);

// The text that the C format "%f" gives, for every double; NaN and the infinities print as "nan", "-nan",
// "inf" and "-inf".
char* write_fixed6(char* out, double value);

}  // namespace qvx
