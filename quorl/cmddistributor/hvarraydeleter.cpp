#include <quorl/cmddistributor/hvarraydeleter.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <boost/make_shared.hpp>

namespace quorl {
namespace cmddistributor {

HvArrayDeleter::HvArrayDeleter(bool contextBound,
                               const boost::function<void(const hvArray*)>& destroyFunction)
    : contextBound_(contextBound), destroyFunction_(destroyFunction),
      owningFennID_(contextmgr::UndefinedFennID.value) {}

HvArrayDeleter::HvArrayDeleter(const HvArrayDeleter& other)
    : contextBound_(other.contextBound_), destroyFunction_(other.destroyFunction_),
      owningFennID_(other.owningFennID_.load()) {}

HvArrayDeleter& HvArrayDeleter::operator=(const HvArrayDeleter& other) {
    if (this != &other) {
        contextBound_ = other.contextBound_;
        destroyFunction_ = other.destroyFunction_;
        owningFennID_.store(other.owningFennID_.load());
    }
    return *this;
}

void HvArrayDeleter::set(contextmgr::FennID id) {
    owningFennID_.exchange(id.value);
}

void HvArrayDeleter::operator()(const hvArray* array) const {
    if (!contextBound_ || !array) {
        destroyFunction_(array);
        return;
    }
    contextmgr::FennID const owner{owningFennID_.load()};
    if (owner < contextmgr::BlessedFennID) {
        fenn_acquire_mutex();
        try {
            destroyFunction_(array);
        } catch (...) {
            fenn_release_mutex();
            throw;
        }
        fenn_release_mutex();
        return;
    }
    // The array dies on its own context's interpreter thread, in order with that context's work.
    boost::function<void(const hvArray*)> destroy = destroyFunction_;
    auto request = boost::make_shared<::cmddistributor::FcnCmdRequest<void>>(
        [destroy, array] { destroy(array); }, boost::shared_ptr<quorl::io::VeldraSink>(),
        boost::shared_ptr<quorl::io::VeldraSink>());
    try {
        ::cmddistributor::CmdDistributor::instance(owner)->enqueue(request,
                                                                   WhenToDequeue::DequeueLegacy);
    } catch (...) {
        // No way to the owning context (it is gone, or the process is stopping): the array dies
        // here under the fenn mutex rather than being lost, and a deleter never throws for it.
        request.reset();
        fenn_acquire_mutex();
        destroyFunction_(array);
        fenn_release_mutex();
    }
}

} // namespace cmddistributor
} // namespace quorl
