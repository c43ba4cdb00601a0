// A growing list of owned texts in one heap block: an unsigned 64-bit count, then that many pointers to
// NUL-terminated strings obtained from malloc. The block's address is the array; every growth may move it, so
// operations that grow or shrink take the address of the caller's pointer. Elements keep their order.
//
// No function throws. Failure (memory, or a null argument) is false or null.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

// The head of the block; the pointers follow it.
struct qvx_string_array {
  std::uint64_t count;
};

// An empty array; the caller frees it with qvx_string_array_free.
qvx_string_array* qvx_string_array_create() noexcept;

// Frees the strings and the block; null is ignored.
void qvx_string_array_free(qvx_string_array* array) noexcept;

// Appends a copy of the text.
bool qvx_string_array_append(qvx_string_array** array, const char* text) noexcept;

// Appends copies of all strings of `source`, which may be the same array. When a copy fails the destination
// is freed and set to null.
bool qvx_string_array_append_all(qvx_string_array** destination, const qvx_string_array* source) noexcept;

// True when some element equals the text.
bool qvx_string_array_contains(const qvx_string_array* array, const char* text) noexcept;

// A new array of the non-empty runs between commas in the first `length` bytes of the text, untrimmed.
qvx_string_array* qvx_string_array_from_comma_separated(const char* text, std::size_t length) noexcept;

// Drops every element that equals its predecessor. Only arrays that are sorted, as `sorted` states, are
// supported.
bool qvx_string_array_remove_duplicates(qvx_string_array** array, bool sorted) noexcept;

// Logs one line per element: the label, the index and the text.
void qvx_string_array_print(std::uint32_t level, const qvx_string_array* array, const char* label) noexcept;

// Appends the lines of a file, trimmed of white space at both ends, without the empty ones and those that
// begin with '#'. The label, which may be null, says in the log what the file is. Lines already appended stay
// in the array when a later one fails.
bool qvx_string_array_load_lines(qvx_string_array** array, const char* path, const char* label) noexcept;

namespace qvx {

struct StringArrayDeleter {
  void operator()(qvx_string_array* array) const noexcept { qvx_string_array_free(array); }
};
using StringArrayPtr = std::unique_ptr<qvx_string_array, StringArrayDeleter>;

// The elements, valid until the array changes; none for a null array. The pointers may be reordered in place.
std::span<char*> strings(qvx_string_array* array) noexcept;
std::span<char* const> strings(const qvx_string_array* array) noexcept;
std::span<char* const> strings(const StringArrayPtr& array) noexcept;

// An array of copies of the texts; null on failure.
StringArrayPtr make_string_array(std::initializer_list<const char*> texts = {}) noexcept;

// qvx_string_array_append for an array held by a smart pointer.
bool append(StringArrayPtr& array, const char* text) noexcept;

}  // namespace qvx
