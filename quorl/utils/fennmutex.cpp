#include <quorl/utils/fennmutex.hpp>

#include <foundation/msg_svc/eventmgr/eventmgrfront.hpp>

namespace quorl {
namespace utils {

namespace {
// Made during static initialisation and never destroyed before the process ends.
boost::shared_ptr<foundation::msg_svc::threadutil::CountedMutex> const& theMutex() {
    static auto* m = new boost::shared_ptr<foundation::msg_svc::threadutil::CountedMutex>(
        new foundation::msg_svc::threadutil::CountedMutex);
    return *m;
}

struct Init {
    Init() {
        theMutex();
        // Events that arrive from other exchanges are delivered under the same rule.
        foundation::msg_svc::eventmgr::setDefaultMutexGetter(&getFennMutexIfLocked);
    }
} const init;
} // namespace

boost::shared_ptr<foundation::msg_svc::threadutil::CountedMutex> const& getFennMutex() {
    return theMutex();
}

boost::shared_ptr<foundation::msg_svc::threadutil::CountedMutex> getFennMutexIfLocked() {
    auto const& m = theMutex();
    return m->isLocked() ? m : nullptr;
}

} // namespace utils
} // namespace quorl

void fenn_acquire_mutex() {
    quorl::utils::getFennMutex()->lock();
}

void fenn_release_mutex() {
    quorl::utils::getFennMutex()->unlock();
}

bool fenn_mutex_is_acquired() {
    return quorl::utils::getFennMutex()->isLocked();
}
