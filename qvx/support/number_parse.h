// Numbers from text: decimal, hexadecimal after "0x", octal after "0", white space and a sign before them.
// The whole text must be a number; an empty one is 0. On failure, also of a null text or result, the result
// is left alone. As in the C library, a minus sign before an unsigned number negates it modulo its width.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvx {

bool long_from_text(const char* text, long* result) noexcept;
bool unsigned_long_from_text(const char* text, unsigned long* result) noexcept;
bool int64_from_text(const char* text, std::int64_t* result) noexcept;
bool uint64_from_text(const char* text, std::uint64_t* result) noexcept;

// Read as unsigned 64-bit numbers that must not exceed the range.
bool uint8_from_text(const char* text, std::uint8_t* result) noexcept;
bool uint16_from_text(const char* text, std::uint16_t* result) noexcept;
bool uint32_from_text(const char* text, std::uint32_t* result) noexcept;

// From the first `length` characters of a text, or all of a shorter one.
bool int32_from_text(const char* text, std::size_t length, std::int32_t* result) noexcept;

}  // namespace qvx
