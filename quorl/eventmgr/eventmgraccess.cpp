#include <mutex>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <foundation/msg_svc/eventmgr/eventmgrfront.hpp>
#include <foundation/usm/detail.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/once.hpp>

namespace quorl {
namespace eventmgr {

using foundation::msg_svc::eventmgr::EmID;
using foundation::msg_svc::eventmgr::EventMgrFront;

namespace {
typedef foundation::usm::Detail<foundation::usm::scope::Tarn> Store;

struct ActiveEventMgrTag {};

std::uint64_t slot() {
    static std::once_flag once;
    static std::uint64_t number = 0;
    std::call_once(once, [] { number = Store::getNextID(typeid(ActiveEventMgrTag)); });
    return number;
}

boost::shared_ptr<foundation::msg_svc::threadutil::CountedMutex> fennMutexGetter() {
    return utils::getFennMutexIfLocked();
}
} // namespace

boost::optional<boost::shared_ptr<EventMgr>> getActiveEventMgr() {
    if (!Store::isRequiredContextActive())
        return boost::none;
    auto* p = Store::findAs<boost::shared_ptr<EventMgr>>(slot());
    if (!p)
        return boost::none;
    return *p;
}

void setActiveEventMgr(boost::shared_ptr<EventMgr> manager) {
    Store::insertValue(slot(), manager);
}

EmID emIdOf(boost::optional<contextmgr::TarnID> const& tarn) {
    if (!tarn || *tarn == contextmgr::UndefinedTarnID)
        return foundation::msg_svc::eventmgr::SessionEmId;
    return EmID(tarn->value);
}

boost::shared_ptr<EventMgr> createLocalEventMgr(boost::optional<contextmgr::TarnID> const& tarn) {
    return boost::make_shared<EventMgrFront>(&fennMutexGetter, emIdOf(tarn));
}

boost::shared_ptr<EventMgr> createShutdownEventMgr() {
    return createLocalEventMgr(boost::none);
}

boost::shared_ptr<EventMgr>
createRemoteEventMgr(std::string const& exchange,
                     boost::optional<contextmgr::TarnID> const& localTarn,
                     boost::optional<contextmgr::TarnID> const& remoteTarn) {
    return boost::make_shared<EventMgrFront>(exchange, &fennMutexGetter, emIdOf(localTarn),
                                             emIdOf(remoteTarn));
}

} // namespace eventmgr
} // namespace quorl
