#pragma once
// ReleaseCountedMutexGuard: gives a CountedMutex up completely for its lifetime, however deep the
// calling thread holds it, and takes it back to the same depth when destroyed. A thread that
// does not hold the mutex gets a guard that does nothing. Lives on one thread's stack.
#include <foundation/msg_svc/threadutil/countedmutex.hpp>

#include <boost/shared_ptr.hpp>

namespace foundation {
namespace msg_svc {
namespace threadutil {

class ReleaseCountedMutexGuard {
public:
    explicit ReleaseCountedMutexGuard(CountedMutex& mutex)
        : mutex_(&mutex), depth_(mutex.releaseAll()) {}
    explicit ReleaseCountedMutexGuard(boost::shared_ptr<CountedMutex> const& mutex)
        : mutex_(mutex.get()), depth_(mutex ? mutex->releaseAll() : 0) {}
    ReleaseCountedMutexGuard(ReleaseCountedMutexGuard const&) = delete;
    ReleaseCountedMutexGuard& operator=(ReleaseCountedMutexGuard const&) = delete;
    ~ReleaseCountedMutexGuard() {
        if (depth_)
            mutex_->reacquire(depth_);
    }
    unsigned releasedDepth() const { return depth_; }

private:
    CountedMutex* mutex_;
    unsigned depth_;
};

} // namespace threadutil
} // namespace msg_svc
} // namespace foundation
