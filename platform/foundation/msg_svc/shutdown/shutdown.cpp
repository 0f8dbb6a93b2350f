#include <foundation/msg_svc/shutdown/shutdown.hpp>

#include <atomic>

namespace foundation {
namespace msg_svc {
namespace shutdown {

namespace {
std::atomic<bool> terminating{false};
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
