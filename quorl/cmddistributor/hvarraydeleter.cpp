#include <quorl/cmddistributor/hvarraydeleter.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/cmddistributor/fennlock.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <boost/make_shared.hpp>

#include <memory>

namespace quorl {
namespace cmddistributor {

namespace {

// The array of a destruction posted to its context: the task destroys it on the interpreter
// thread; a task dropped without running (its context stopped with it queued, or it could not be
// queued) destroys it where it is dropped, under the fenn mutex.
class PendingDestruction {
public:
    PendingDestruction(boost::function<void(const hvArray*)> destroy, const hvArray* array)
        : destroy_(std::move(destroy)), array_(array) {}
    PendingDestruction(const PendingDestruction&) = delete;
    PendingDestruction& operator=(const PendingDestruction&) = delete;
    ~PendingDestruction() {
        if (!array_)
            return;
        detail::FennLock lock;
        try {
            destroy_(array_);
        } catch (...) {
            // A destructor must not throw; the array is given up.
        }
    }
    void run() {
        const hvArray* array = array_;
        array_ = nullptr;
        destroy_(array);
    }

private:
    boost::function<void(const hvArray*)> destroy_;
    const hvArray* array_;
};

} // namespace

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
    auto pending = std::make_shared<PendingDestruction>(destroyFunction_, array);
    auto request = boost::make_shared<::cmddistributor::FcnCmdRequest<void>>(
        [pending] { pending->run(); }, boost::shared_ptr<quorl::io::VeldraSink>(),
        boost::shared_ptr<quorl::io::VeldraSink>());
    try {
        ::cmddistributor::CmdDistributor::instance(owner)->enqueue(request,
                                                                   WhenToDequeue::DequeueLegacy);
    } catch (...) {
        // No way to the owning context (it is gone, or the process is stopping): dropping the
        // task destroys the array here under the fenn mutex rather than losing it, and a deleter
        // never throws for it.
    }
}

} // namespace cmddistributor
} // namespace quorl
