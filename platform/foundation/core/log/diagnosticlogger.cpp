#include <foundation/core/log/diagnosticlogger.hpp>

#include <boost/core/null_deleter.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/sources/channel_logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace foundation {
namespace core {
namespace log {

namespace {

namespace blog = boost::log;

struct Channel {
    std::atomic<unsigned> mask{0};
    bool own = false; // guarded by Registry::mutex
};

typedef blog::sinks::synchronous_sink<blog::sinks::text_ostream_backend> ConsoleSink;

struct Registry {
    std::mutex mutex; // guards channels, defaultMask writes, console
    std::unordered_map<std::string, std::unique_ptr<Channel>> channels;
    unsigned defaultMask = error | fatal;
    boost::shared_ptr<ConsoleSink> console;
    blog::sources::severity_channel_logger_mt<severity_level, std::string> source;

    Registry() {
        setConsole(&std::clog);
        if (char const* env = std::getenv("QUORL_LOG"))
            applyEnvironment(env);
    }

    // Items of QUORL_LOG that were not understood, for one warning once the registry exists.
    std::string environmentProblems;

    Channel& channelLocked(std::string const& name) {
        auto& slot = channels[name];
        if (!slot) {
            slot.reset(new Channel);
            slot->mask.store(defaultMask, std::memory_order_relaxed);
        }
        return *slot;
    }

    void setDefaultLocked(unsigned mask) {
        defaultMask = mask;
        for (auto& c : channels) {
            if (!c.second->own)
                c.second->mask.store(mask, std::memory_order_relaxed);
        }
    }

    void setConsole(std::ostream* stream) {
        auto core = blog::core::get();
        if (console) {
            core->remove_sink(console);
            console.reset();
        }
        if (!stream)
            return;
        auto backend = boost::make_shared<blog::sinks::text_ostream_backend>();
        backend->add_stream(boost::shared_ptr<std::ostream>(stream, boost::null_deleter()));
        backend->auto_flush(true);
        console = boost::make_shared<ConsoleSink>(backend);
        console->set_formatter([](blog::record_view const& rec, blog::formatting_ostream& os) {
            auto ch = rec["Channel"].extract<std::string>();
            auto sev = rec["Severity"].extract<severity_level>();
            os << '[' << (ch ? *ch : std::string()) << "] " << (sev ? severity_name(*sev) : "log")
               << ": " << rec[blog::expressions::smessage];
        });
        core->add_sink(console);
    }

    void applyEnvironment(std::string const& settings) {
        std::size_t pos = 0;
        while (pos <= settings.size()) {
            std::size_t comma = settings.find(',', pos);
            std::string item =
                settings.substr(pos, comma == std::string::npos ? comma : comma - pos);
            std::size_t eq = item.find('=');
            bool understood = false;
            if (eq != std::string::npos && eq > 0) {
                std::string name = item.substr(0, eq);
                std::string level = item.substr(eq + 1);
                unsigned mask = 0;
                bool known = level == "off";
                static char const* const names[] = {"trace",   "debug", "info",
                                                    "warning", "error", "fatal"};
                for (unsigned i = 0; i < 6; ++i) {
                    if (level == names[i]) {
                        mask = mask_from(static_cast<severity_level>(1u << i));
                        known = true;
                    }
                }
                if (known) {
                    understood = true;
                    if (name == "*") {
                        setDefaultLocked(mask);
                    } else {
                        Channel& c = channelLocked(name);
                        c.own = true;
                        c.mask.store(mask, std::memory_order_relaxed);
                    }
                }
            }
            if (!understood && !item.empty())
                environmentProblems += (environmentProblems.empty() ? "\"" : ", \"") + item + "\"";
            if (comma == std::string::npos)
                break;
            pos = comma + 1;
        }
    }
};

void emitTo(Registry& r, std::string const& channel, severity_level level,
            std::string const& text) {
    blog::record rec =
        r.source.open_record((blog::keywords::channel = channel, blog::keywords::severity = level));
    if (rec) {
        blog::record_ostream strm(rec);
        strm << text;
        strm.flush();
        r.source.push_record(std::move(rec));
    }
}

Registry& registry() {
    // Never destroyed: loggers of static objects may log during process exit.
    static Registry* r = [] {
        auto* made = new Registry;
        // Whatever the masks say: whoever set QUORL_LOG wants to hear that it was not understood.
        if (!made->environmentProblems.empty())
            emitTo(*made, "foundation::core::log", warning,
                   "QUORL_LOG: ignored " + made->environmentProblems +
                       " (expected comma-separated channel=level items, level one of trace, "
                       "debug, info, warning, error, fatal, off)");
        return made;
    }();
    return *r;
}

} // namespace

unsigned mask_from(severity_level level) {
    return all_severities & ~(static_cast<unsigned>(level) - 1u);
}

char const* severity_name(severity_level level) {
    switch (level) {
    case trace:
        return "trace";
    case debug:
        return "debug";
    case info:
        return "info";
    case warning:
        return "warning";
    case error:
        return "error";
    case fatal:
        return "fatal";
    }
    return "log";
}

void set_channel_mask(std::string const& channel, unsigned mask) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    Channel& c = r.channelLocked(channel);
    c.own = true;
    c.mask.store(mask & all_severities, std::memory_order_relaxed);
}

void clear_channel_mask(std::string const& channel) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    Channel& c = r.channelLocked(channel);
    c.own = false;
    c.mask.store(r.defaultMask, std::memory_order_relaxed);
}

void set_default_mask(unsigned mask) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.setDefaultLocked(mask & all_severities);
}

unsigned get_channel_mask(std::string const& channel) {
    return detail::channelMask(channel)->load(std::memory_order_relaxed);
}

void set_console_stream(std::ostream* stream) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.setConsole(stream);
}

namespace detail {

std::atomic<unsigned> const* channelMask(std::string const& channel) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return &r.channelLocked(channel).mask;
}

void emit(std::string const& channel, severity_level level, std::string const& text) {
    emitTo(registry(), channel, level, text);
}

} // namespace detail

} // namespace log
} // namespace core
} // namespace foundation
