#pragma once
// LockBFLHelper: a scoped lock of the fenn mutex that a thread outside the interpreter can get
// even while an interpreter holds the mutex at length. If the mutex is free it simply takes it.
// Otherwise it posts a packaged task to the default context; when the interpreter runs the task,
// the task gives up all the interpreter thread's holds of the mutex and waits until this helper
// has the lock; it takes its holds back once the helper is gone (unlock) and the mutex is free.
//
// Lives on one thread's stack: construct and destroy it on the same thread. The constructor
// blocks until the mutex is held; it passes on what enqueueing throws. Not copyable.
#include <foundation/msg_svc/threadutil/countedmutex.hpp>

namespace quorl {
namespace cmddistributor {

class LockBFLHelper {
public:
    LockBFLHelper();
    ~LockBFLHelper();
    LockBFLHelper(LockBFLHelper const&) = delete;
    LockBFLHelper& operator=(LockBFLHelper const&) = delete;

    bool ownsLock() const { return locked_; }

private:
    foundation::msg_svc::threadutil::CountedMutex* mutex_;
    bool locked_;
};

} // namespace cmddistributor
} // namespace quorl
