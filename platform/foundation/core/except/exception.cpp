#include <foundation/core/except/exception.hpp>

#include <boost/locale/encoding_utf.hpp>

namespace foundation {
namespace core {
namespace except {

IUserException::~IUserException() = default;

namespace detail {
std::string narrowLenient(ustring const& text) {
    return boost::locale::conv::utf_to_utf<char>(text, boost::locale::conv::skip);
}
ustring widenLenient(std::string const& text) {
    return boost::locale::conv::utf_to_utf<char16_t>(text, boost::locale::conv::skip);
}
} // namespace detail

} // namespace except
} // namespace core
} // namespace foundation
