#pragma once
// ScopedFactoryRegistration: a handle on something registered elsewhere (a factory in a
// registry, say). The registration is undone once: when the last copy of the handle dies, when
// unregister() is called, or, if so set up, when a TARNShutdownEvent arrives, whichever comes
// first. If the target object has died by then, nothing is called and the registration counts
// as undone.
//
// Copies share one Impl. unregister() takes no lock: the shutdown handler (on an event thread)
// may race an explicit call; the flag and the end of the shutdown subscription in the Impl's
// destructor keep the function from running after the Impl is gone. An exception from the
// function passes out of unregister() (a later call tries again) but is swallowed by the
// destructor.
#include <foundation/core/config/boostthreadversion.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <mutex>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/once.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <memory>

namespace quorl {

class ScopedFactoryRegistration {
public:
    class Impl {
    public:
        Impl(boost::weak_ptr<void> const& target, boost::function0<void> const& unregisterFunction,
             bool unregisterOnShutdown);
        Impl(Impl const&) = delete;
        Impl& operator=(Impl const&) = delete;
        ~Impl();

        void unregister();
        // Subscribes to TARNShutdownEvent (at most once per Impl).
        void unregisterOnShutdown();
        bool isUnregistered() const;

    private:
        void registerForTARNShutdownEvent();
        struct Record {
            boost::weak_ptr<void> target;
            boost::function0<void> unregisterFunction;
            std::atomic<bool> isUnregistered{false};
            foundation::msg_svc::eventmgr::ScopedConnection shutdownConnection;
            std::once_flag shutdownOnce;
        };
        std::unique_ptr<Record> record_;
    };

    explicit ScopedFactoryRegistration(boost::shared_ptr<Impl> const& impl) : impl_(impl) {}
    ScopedFactoryRegistration(ScopedFactoryRegistration const&) = default;
    ScopedFactoryRegistration(ScopedFactoryRegistration&&) = default;
    ScopedFactoryRegistration& operator=(ScopedFactoryRegistration const&) = default;
    ScopedFactoryRegistration& operator=(ScopedFactoryRegistration&&) = default;
    ~ScopedFactoryRegistration() = default;

    void unregister() {
        if (impl_)
            impl_->unregister();
    }

private:
    boost::shared_ptr<Impl> impl_;
};

} // namespace quorl
