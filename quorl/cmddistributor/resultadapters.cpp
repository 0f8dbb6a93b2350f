#include <quorl/cmddistributor/resultadapters.hpp>

#include <foundation/core/diag/terminate.hpp>

#include <boost/lexical_cast.hpp>

#include <stdexcept>
#include <string>

namespace quorl {
namespace cmddistributor {
namespace detail {

std::unique_ptr<hvArray, matrix::detail::hvDestroy_deleter>
T2Array<IgnoreVariadicReturn>::operator()(const IgnoreVariadicReturn&) const {
    return matrix::detail::create_numeric(hvDOUBLE_CLASS, 0, 1);
}

void verifyMinimumOutputSize(std::size_t expected, const std::size_t& found) {
    if (found >= expected)
        return;
    throw std::runtime_error("feval expected " + boost::lexical_cast<std::string>(expected) +
                             " outputs, found " + boost::lexical_cast<std::string>(found));
}

void verifyHvArrayTypeAndSize(const hvArray* array, const hvArray* converted,
                              const std::type_info& expected, std::size_t minimumSize,
                              std::size_t maximumSize) {
    std::size_t const n = array ? hvGetNumberOfElements(array) : 0;
    if (!converted)
        throw std::runtime_error(
            "Unexpected hvArray type returned from feval.  Expected " +
            foundation::core::diag::detail::demangle_typeid_name(expected) + " but found " +
            (array ? std::string(hvGetClassName(array)) : std::string("null")) + ".");
    if (n >= minimumSize && n <= maximumSize)
        return;
    throw std::runtime_error("Incorrect hvArray size returned from feval.  Expected size >= " +
                             boost::lexical_cast<std::string>(minimumSize) +
                             " and size <= " + boost::lexical_cast<std::string>(maximumSize) +
                             " but size == " + boost::lexical_cast<std::string>(n) + ".");
}

} // namespace detail
} // namespace cmddistributor
} // namespace quorl
