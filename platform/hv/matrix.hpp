#pragma once
// Helpers for holding arrays of the array library in C++ code: the owning pointer HvArrayPtr,
// its deleter, and conversions of char arrays to text.
//
// Ownership: HvArrayPtr owns one array and destroys it with hvDestroyArray. from_veldra_old
// takes over a raw pointer that the caller owned.
// Threads: as the arrays they hold (see hv/hvarray.hpp).
// Errors: get_ustring and get_string raise std::invalid_argument for an array that is not text
// (a char array or a 1-by-1 "string"), null included.
#include <fl/i18n/ustring.hpp>

#include <cstddef>
#include <memory>
#include <string>

struct hvArray_tag;
void hvDestroyArray(const hvArray_tag* array);

namespace matrix {
namespace detail {

struct hvDestroy_deleter {
    void operator()(const hvArray_tag* array) const noexcept { hvDestroyArray(array); }
};

// A zero-filled real numeric array of class `cls` (6 to 15), m by n.
std::unique_ptr<hvArray_tag, hvDestroy_deleter> create_numeric(int cls, std::size_t m,
                                                               std::size_t n);

} // namespace detail

// Takes ownership of a raw array pointer.
inline std::unique_ptr<hvArray_tag, detail::hvDestroy_deleter>
from_veldra_old(hvArray_tag* const& array) {
    return std::unique_ptr<hvArray_tag, detail::hvDestroy_deleter>(array);
}

ustring get_ustring(const hvArray_tag* array);
// UTF-8.
std::string get_string(const hvArray_tag* array);

} // namespace matrix

typedef std::unique_ptr<hvArray_tag, matrix::detail::hvDestroy_deleter> HvArrayPtr;
