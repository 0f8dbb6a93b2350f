#pragma once
// The message of the exception of type E that a call throws, for tests that check it: "(no error)"
// when the call returns. An exception of another type passes through and fails the test.
#include <exception>
#include <string>

namespace quorl_testing {

template <class E = std::exception, class F> std::string errorOf(F&& f) {
    try {
        f();
    } catch (E const& e) {
        return e.what();
    }
    return "(no error)";
}

} // namespace quorl_testing
