#include <foundation/core/diag/terminate.hpp>

#include <boost/core/demangle.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace foundation {
namespace core {
namespace diag {

namespace {
std::atomic<terminate_handler> handler{nullptr};
}

terminate_handler set_terminate_handler(terminate_handler h) {
    return handler.exchange(h);
}

void terminate(std::string const& text, std::string const& source) {
    std::fprintf(stderr, "%s: %s\n", source.c_str(), text.c_str());
    std::fflush(stderr);
    if (terminate_handler h = handler.load())
        h(text, source);
    std::abort();
}

namespace detail {
std::string demangle_typeid_name(std::type_info const& type) {
    return boost::core::demangle(type.name());
}
} // namespace detail

} // namespace diag
} // namespace core
} // namespace foundation
