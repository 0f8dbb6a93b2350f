#include <foundation/msg_svc/shutdown/shutdown.hpp>

#include <atomic>
#include <cstdlib>

namespace foundation {
namespace msg_svc {
namespace shutdown {

namespace {
std::atomic<bool> terminating{false};
std::atomic<bool> exitStarted{false};

// Registered at load; this library is never unloaded, so the handler runs at exit only.
struct ExitWatch {
    ExitWatch() {
        std::atexit([] { exitStarted.store(true); });
    }
} const exitWatch;
} // namespace

bool processExitStarted() {
    return exitStarted.load();
}

void setProcessTerminating(bool value) {
    terminating.store(value);
}

bool isProcessTerminating() {
    return terminating.load();
}

} // namespace shutdown
} // namespace msg_svc
} // namespace foundation
