#include <foundation/msg_svc/threadutil/countedmutex.hpp>

#include <stdexcept>

namespace foundation {
namespace msg_svc {
namespace threadutil {

void CountedMutex::lock() {
    auto const self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mutex_);
    if (depth_ > 0 && owner_ == self) {
        ++depth_;
        return;
    }
    free_.wait(lock, [this] { return depth_ == 0; });
    owner_ = self;
    depth_ = 1;
    locked_.store(true, std::memory_order_release);
}

bool CountedMutex::try_lock() {
    auto const self = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(mutex_);
    if (depth_ > 0 && owner_ != self)
        return false;
    owner_ = self;
    ++depth_;
    locked_.store(true, std::memory_order_release);
    return true;
}

void CountedMutex::unlock() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (depth_ == 0 || owner_ != std::this_thread::get_id())
            throw std::logic_error("CountedMutex unlocked by a thread that does not hold it");
        if (--depth_ > 0)
            return;
        locked_.store(false, std::memory_order_release);
    }
    free_.notify_one();
}

bool CountedMutex::isLockedByCaller() const {
    return depthOfCaller() > 0;
}

unsigned CountedMutex::depthOfCaller() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return depth_ > 0 && owner_ == std::this_thread::get_id() ? depth_ : 0;
}

unsigned CountedMutex::releaseAll() {
    unsigned depth;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (depth_ == 0 || owner_ != std::this_thread::get_id())
            return 0;
        depth = depth_;
        depth_ = 0;
        locked_.store(false, std::memory_order_release);
    }
    free_.notify_one();
    return depth;
}

void CountedMutex::reacquire(unsigned depth) {
    if (depth == 0)
        return;
    auto const self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mutex_);
    if (depth_ > 0 && owner_ == self) {
        depth_ += depth;
        return;
    }
    free_.wait(lock, [this] { return depth_ == 0; });
    owner_ = self;
    depth_ = depth;
    locked_.store(true, std::memory_order_release);
}

} // namespace threadutil
} // namespace msg_svc
} // namespace foundation
