// The primitive types that every schema may use without defining them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace qvx {

// How the bytes of a value are read; integers and floats of one width and signedness share a class.
enum class ValueClass : std::uint8_t { none, u8, i8, u16, i16, u32, i32, u64, i64, f32, f64 };

struct BuiltinType {
  std::uint32_t id;
  const char* name;
  std::size_t size;  // bytes
  ValueClass value_class;
};

inline constexpr std::uint32_t kCompositeTypeId = 0;
inline constexpr std::uint32_t kBoolTypeId = 1;
inline constexpr std::uint32_t kCharTypeId = 2;  // read as unsigned
inline constexpr std::uint32_t kUnsignedCharTypeId = 7;

inline constexpr std::array<BuiltinType, 22> kBuiltinTypes{{
    {1, "bool", 1, ValueClass::u8},
    {2, "char", 1, ValueClass::u8},
    {3, "short", 2, ValueClass::i16},
    {4, "int", 4, ValueClass::i32},
    {5, "long", 8, ValueClass::i64},
    {6, "long long", 8, ValueClass::i64},
    {7, "unsigned char", 1, ValueClass::u8},
    {8, "unsigned short", 2, ValueClass::u16},
    {9, "unsigned int", 4, ValueClass::u32},
    {10, "unsigned long", 8, ValueClass::u64},
    {11, "unsigned long long", 8, ValueClass::u64},
    {12, "float", 4, ValueClass::f32},
    {13, "double", 8, ValueClass::f64},
    {14, "int8_t", 1, ValueClass::i8},
    {15, "int16_t", 2, ValueClass::i16},
    {16, "int32_t", 4, ValueClass::i32},
    {17, "int64_t", 8, ValueClass::i64},
    {18, "uint8_t", 1, ValueClass::u8},
    {19, "uint16_t", 2, ValueClass::u16},
    {20, "uint32_t", 4, ValueClass::u32},
    {21, "uint64_t", 8, ValueClass::u64},
    {22, "timestamp", 8, ValueClass::u64},
}};

// Null, 0 and ValueClass::none for an id outside the table.
const char* builtin_type_name(std::uint32_t id) noexcept;
std::size_t builtin_type_size(std::uint32_t id) noexcept;
ValueClass builtin_value_class(std::uint32_t id) noexcept;

// 0 for a name that is not built in.
std::uint32_t builtin_type_id(const char* name) noexcept;

}  // namespace qvx

// The table, a line a type below a line of headings.
void qvx_builtin_types_print(std::FILE* stream) noexcept;
