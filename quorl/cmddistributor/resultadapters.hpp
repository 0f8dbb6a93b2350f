#pragma once
// The result adapters of typed function calls: detail::T2Array<T> turns a client value into a
// new hvArray, detail::Array2T<T> turns an hvArray back into a value. The library holds the
// IgnoreVariadicReturn forms and the two checks that every Array2T runs on what a call returned,
// with their fixed messages; the other value types are in fevalcall.hpp.
//
// Stateless; any thread (the caller holds the arrays). Errors: the checks raise
// std::runtime_error:
//   "feval expected N outputs, found M"
//   "Unexpected hvArray type returned from feval.  Expected T but found CLASS."
//   "Incorrect hvArray size returned from feval.  Expected size >= A and size <= B but size == N."
#include <quorl/cmddistributor/ignorevariadicreturn.hpp>

#include <hv/hvarray.hpp>
#include <hv/matrix.hpp>

#include <cstddef>
#include <memory>
#include <typeinfo>

namespace quorl {
namespace cmddistributor {
namespace detail {

template <class T> struct T2Array;
template <class T> struct Array2T;

template <> struct T2Array<IgnoreVariadicReturn> {
    // A 0-by-1 double array.
    std::unique_ptr<hvArray, matrix::detail::hvDestroy_deleter>
    operator()(const IgnoreVariadicReturn&) const;
};

template <> struct Array2T<IgnoreVariadicReturn> {
    // The array is not read; null is accepted.
    IgnoreVariadicReturn operator()(const hvArray*) const { return IgnoreVariadicReturn(); }
};

void verifyMinimumOutputSize(std::size_t expected, const std::size_t& found);
// `converted` is what the adapter made of `array`, null when the type was wrong; a null `array`
// counts as size 0.
void verifyHvArrayTypeAndSize(const hvArray* array, const hvArray* converted,
                              const std::type_info& expected, std::size_t minimumSize,
                              std::size_t maximumSize);

} // namespace detail
} // namespace cmddistributor
} // namespace quorl
