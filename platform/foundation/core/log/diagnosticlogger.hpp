#pragma once
// basic_diagnostic_logger: a logger on a named channel, backed by Boost.Log.
//
// Each channel has a severity mask (a bit per severity). `is_enabled` reads it with one relaxed
// atomic load, so a disabled statement costs a branch and builds no text: use ZN_LOG, which
// tests the mask before the stream expression is evaluated.
//
// Masks: a channel without a mask of its own follows the default mask (errors and fatal ones
// unless configured). The environment variable QUORL_LOG sets masks at first use, as
// comma-separated `channel=level` items (`*` for the default), where level is one of
// trace, debug, info, warning, error, fatal, off and means that level and above. Items that are
// not understood are ignored, and one warning on the channel "foundation::core::log" names them.
// Records go to Boost.Log's core; unless the program adds sinks of its own, a console sink on
// std::clog writes "[channel] severity: text".
//
// Thread-safe: loggers may be shared between threads; masks may change at any time.
#include <atomic>
#include <sstream>
#include <string>

namespace foundation {
namespace core {
namespace log {

enum severity_level : unsigned {
    trace = 1u << 0,
    debug = 1u << 1,
    info = 1u << 2,
    warning = 1u << 3,
    error = 1u << 4,
    fatal = 1u << 5,
};

// The mask that enables `level` and every more severe level.
unsigned mask_from(severity_level level);
constexpr unsigned all_severities = 0x3Fu;

void set_channel_mask(std::string const& channel, unsigned mask);
// Lets the channel follow the default mask again.
void clear_channel_mask(std::string const& channel);
void set_default_mask(unsigned mask);
unsigned get_channel_mask(std::string const& channel);
// Replaces the console sink with one on the given stream (nullptr: no console output).
void set_console_stream(std::ostream* stream);

char const* severity_name(severity_level level);

namespace detail {
std::atomic<unsigned> const* channelMask(std::string const& channel);
void emit(std::string const& channel, severity_level level, std::string const& text);
} // namespace detail

template <class CharT> class basic_diagnostic_logger {
public:
    explicit basic_diagnostic_logger(std::string channel)
        : channel_(std::move(channel)), mask_(detail::channelMask(channel_)) {}

    bool is_enabled(severity_level level) const {
        return (mask_->load(std::memory_order_relaxed) & level) != 0;
    }
    void write(severity_level level, std::string const& text) const {
        if (is_enabled(level))
            detail::emit(channel_, level, text);
    }
    std::string const& channel() const { return channel_; }

private:
    std::string channel_;
    std::atomic<unsigned> const* mask_; // owned by the process-wide channel table
};

typedef basic_diagnostic_logger<char> diagnostic_logger;

namespace detail {
// Collects one record's text and emits it when destroyed.
template <class Logger> class record_pump {
public:
    record_pump(Logger const& logger, severity_level level) : logger_(logger), level_(level) {}
    record_pump(record_pump const&) = delete;
    ~record_pump() {
        try {
            detail::emit(logger_.channel(), level_, stream_.str());
        } catch (...) {
        }
    }
    std::ostream& stream() { return stream_; }

private:
    Logger const& logger_;
    severity_level level_;
    std::ostringstream stream_;
};
} // namespace detail

} // namespace log
} // namespace core
} // namespace foundation

namespace foundation {
namespace core {
namespace log {
namespace detail {
// Turns the stream expression of ZN_LOG into void, so the macro is one expression.
struct Voidify {
    void operator&(std::ostream&) const {}
};
} // namespace detail
} // namespace log
} // namespace core
} // namespace foundation

// ZN_LOG(logger, foundation::core::log::debug) << "text " << value;
// The stream expression is evaluated only when the channel's mask enables the severity. The
// macro is a single expression, so it is safe as the body of an if without braces.
#define ZN_LOG(logger, level)                                                                      \
    !(logger).is_enabled(level)                                                                    \
        ? (void)0                                                                                  \
        : ::foundation::core::log::detail::Voidify() &                                             \
              ::foundation::core::log::detail::record_pump<std::decay_t<decltype(logger)>>(logger, \
                                                                                           level)  \
                  .stream()
