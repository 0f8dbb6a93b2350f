#pragma once
// CountedMutex: a recursive mutex that knows how deep its owner holds it, and can be given up
// completely and taken back to the same depth (ReleaseCountedMutexGuard).
//
// lock/unlock/try_lock follow the standard Lockable rules (unlock only by the owner; an unlock
// by another thread throws std::logic_error). isLocked() is a snapshot read without the mutex.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace foundation {
namespace msg_svc {
namespace threadutil {

class CountedMutex {
public:
    CountedMutex() = default;
    CountedMutex(CountedMutex const&) = delete;
    CountedMutex& operator=(CountedMutex const&) = delete;

    void lock();
    void unlock();
    bool try_lock();
    // Held by any thread.
    bool isLocked() const { return locked_.load(std::memory_order_acquire); }
    // Held by the calling thread.
    bool isLockedByCaller() const;
    // How deep the calling thread holds it (0 if it does not).
    unsigned depthOfCaller() const;

    // Gives the mutex up completely if the caller holds it; returns the depth to restore.
    unsigned releaseAll();
    // Takes the mutex again to `depth` (nothing for 0).
    void reacquire(unsigned depth);

private:
    mutable std::mutex mutex_; // guards owner_ and depth_
    std::condition_variable free_;
    std::thread::id owner_; // meaningful while depth_ > 0
    unsigned depth_ = 0;
    std::atomic<bool> locked_{false};
};

} // namespace threadutil
} // namespace msg_svc
} // namespace foundation
