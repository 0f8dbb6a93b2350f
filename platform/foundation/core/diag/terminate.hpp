#pragma once
// Ends the process after an assertion that cannot be recovered from, and names types for
// diagnostics. Both may be called from any thread.
#include <string>
#include <typeinfo>

namespace foundation {
namespace core {
namespace diag {

// Writes "<source>: <text>" to the standard error stream, then aborts.
[[noreturn]] void terminate(std::string const& text, std::string const& source);

// Replaces the action taken after the message (std::abort by default), so that a test can
// observe a termination. The handler must not return; if it does, the process aborts.
typedef void (*terminate_handler)(std::string const& text, std::string const& source);
terminate_handler set_terminate_handler(terminate_handler handler);

namespace detail {
// The readable name of a type, such as "std::vector<int, std::allocator<int> >".
std::string demangle_typeid_name(std::type_info const& type);
} // namespace detail

} // namespace diag
} // namespace core
} // namespace foundation
