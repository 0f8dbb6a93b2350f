#include <foundation/msg_svc/exchange/replyspin.hpp>

#include <thread>

namespace foundation {
namespace msg_svc {
namespace exchange {

void ReplySpin::spin(std::atomic<bool> const& ready, std::chrono::microseconds bound) {
    auto const until = std::chrono::steady_clock::now() + bound;
    while (!ready.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < until)
        std::this_thread::yield();
}

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
