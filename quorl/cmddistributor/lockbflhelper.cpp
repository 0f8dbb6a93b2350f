#include <quorl/cmddistributor/lockbflhelper.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <foundation/msg_svc/threadutil/releasecountedmutexguard.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

namespace quorl {
namespace cmddistributor {

using foundation::msg_svc::threadutil::ReleaseCountedMutexGuard;

LockBFLHelper::LockBFLHelper() : mutex_(utils::getFennMutex().get()), locked_(false) {
    if (mutex_->try_lock()) {
        locked_ = true;
        return;
    }
    // The task's wait ends when `promise` dies (broken_promise), at the end of this constructor.
    boost::promise<void> promise;
    auto future = boost::make_shared<boost::unique_future<void>>(promise.get_future());
    auto request = boost::make_shared<::cmddistributor::FcnCmdRequest<void>>(
        [future] {
            if (future->valid() && !future->is_ready()) {
                ReleaseCountedMutexGuard release(utils::getFennMutex());
                try {
                    future->get();
                } catch (boost::broken_promise const&) {
                }
            }
        },
        nullptr, nullptr);
    // Nobody waits for the task's own future.
    ::cmddistributor::CmdDistributor::instance().enqueueWithFuture(
        request, foundation::msg_svc::exchange::IDType(), WhenToDequeue::DequeueWhenIdle);
    mutex_->lock();
    locked_ = true;
}

LockBFLHelper::~LockBFLHelper() {
    if (locked_)
        mutex_->unlock();
}

} // namespace cmddistributor
} // namespace quorl
