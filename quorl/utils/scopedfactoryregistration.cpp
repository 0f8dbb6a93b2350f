#include <mutex>
#include <quorl/utils/scopedfactoryregistration.hpp>

#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>

namespace quorl {

ScopedFactoryRegistration::Impl::Impl(boost::weak_ptr<void> const& target,
                                      boost::function0<void> const& unregisterFunction,
                                      bool unregisterOnShutdown)
    : record_(new Record) {
    record_->target = target;
    record_->unregisterFunction = unregisterFunction;
    if (unregisterOnShutdown)
        this->unregisterOnShutdown();
}

ScopedFactoryRegistration::Impl::~Impl() {
    try {
        unregister();
    } catch (...) {
    }
    record_.reset(); // ends the shutdown subscription
}

void ScopedFactoryRegistration::Impl::unregister() {
    if (record_->isUnregistered.load())
        return;
    if (boost::shared_ptr<void> alive = record_->target.lock()) {
        if (record_->unregisterFunction)
            record_->unregisterFunction();
    }
    record_->isUnregistered.store(true);
}

void ScopedFactoryRegistration::Impl::unregisterOnShutdown() {
    std::call_once(record_->shutdownOnce, [this] { registerForTARNShutdownEvent(); });
}

bool ScopedFactoryRegistration::Impl::isUnregistered() const {
    return record_->isUnregistered.load();
}

void ScopedFactoryRegistration::Impl::registerForTARNShutdownEvent() {
    // Where the distributors hear it too, whichever context the registration was made in.
    auto manager = eventmgr::createShutdownEventMgr();
    record_->shutdownConnection.assign(
        manager->subscribe<eventmgr::TARNShutdownEvent>([this](eventmgr::TARNShutdownEvent const&) {
            try {
                unregister();
            } catch (...) {
            }
        }));
}

} // namespace quorl
