#pragma once
// The element types of a foundation::extdata::Array, and the mapping from C++ element types to
// them. Plain data, no ownership, usable from any thread, throws nothing.
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace foundation {
namespace extdata {

// Unscoped on purpose: callers test `getType() == 0` for a default-constructed array.
enum ArrayType : int {
    UNKNOWN = 0, // only a default-constructed Array has this type
    LOGICAL = 1,
    CHAR = 2, // 16-bit code units
    DOUBLE = 3,
    SINGLE = 4,
    INT8 = 5,
    UINT8 = 6,
    INT16 = 7,
    UINT16 = 8,
    INT32 = 9,
    UINT32 = 10,
    INT64 = 11,
    UINT64 = 12,
    STRING = 13, // elements are std::u16string
    CELL = 14,   // elements are Arrays
    STRUCT = 15, // elements hold one Array per field
};

// Highest valid type code; codes above it are rejected by readers.
constexpr int ArrayTypeLast = STRUCT;

// True for the types whose elements are fixed-size values held as one byte block.
constexpr bool isPlainDataType(ArrayType t) {
    return t >= LOGICAL && t <= UINT64;
}

// Byte size of one element of a plain-data type, 0 for the others.
constexpr std::size_t elementSize(ArrayType t) {
    switch (t) {
    case LOGICAL:
    case INT8:
    case UINT8:
        return 1;
    case CHAR:
    case INT16:
    case UINT16:
        return 2;
    case SINGLE:
    case INT32:
    case UINT32:
        return 4;
    case DOUBLE:
    case INT64:
    case UINT64:
        return 8;
    default:
        return 0;
    }
}

// The ArrayType of a C++ element type; logical values are held as bool (one byte each).
template <class T> struct ArrayTypeOf;
template <> struct ArrayTypeOf<bool> : std::integral_constant<ArrayType, LOGICAL> {};
template <> struct ArrayTypeOf<char16_t> : std::integral_constant<ArrayType, CHAR> {};
template <> struct ArrayTypeOf<double> : std::integral_constant<ArrayType, DOUBLE> {};
template <> struct ArrayTypeOf<float> : std::integral_constant<ArrayType, SINGLE> {};
template <> struct ArrayTypeOf<std::int8_t> : std::integral_constant<ArrayType, INT8> {};
template <> struct ArrayTypeOf<std::uint8_t> : std::integral_constant<ArrayType, UINT8> {};
template <> struct ArrayTypeOf<std::int16_t> : std::integral_constant<ArrayType, INT16> {};
template <> struct ArrayTypeOf<std::uint16_t> : std::integral_constant<ArrayType, UINT16> {};
template <> struct ArrayTypeOf<std::int32_t> : std::integral_constant<ArrayType, INT32> {};
template <> struct ArrayTypeOf<std::uint32_t> : std::integral_constant<ArrayType, UINT32> {};
template <> struct ArrayTypeOf<std::int64_t> : std::integral_constant<ArrayType, INT64> {};
template <> struct ArrayTypeOf<std::uint64_t> : std::integral_constant<ArrayType, UINT64> {};

} // namespace extdata
} // namespace foundation
