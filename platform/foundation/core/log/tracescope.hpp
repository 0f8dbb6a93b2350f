#pragma once
// trace_scope: logs the entry and the exit of a scope at trace severity on a logger's channel;
// an exit by exception is marked "[throw]". Costs one mask test when tracing is off. Not
// copyable; lives on one thread's stack.
#include <foundation/core/log/diagnosticlogger.hpp>

#include <exception>

namespace foundation {
namespace core {
namespace log {

class trace_scope {
public:
    trace_scope(diagnostic_logger const& logger, char const* name)
        : logger_(logger), name_(name), on_(logger.is_enabled(trace)),
          uncaught_(std::uncaught_exceptions()) {
        if (on_)
            detail::emit(logger_.channel(), trace, std::string("enter ") + name_);
    }
    trace_scope(trace_scope const&) = delete;
    trace_scope& operator=(trace_scope const&) = delete;
    ~trace_scope() {
        if (on_) {
            try {
                bool const throwing = std::uncaught_exceptions() > uncaught_;
                detail::emit(logger_.channel(), trace,
                             std::string("leave ") + name_ + (throwing ? " [throw]" : ""));
            } catch (...) {
            }
        }
    }

private:
    diagnostic_logger const& logger_;
    char const* name_;
    bool on_;
    int uncaught_;
};

} // namespace log
} // namespace core
} // namespace foundation
