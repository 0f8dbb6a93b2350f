#include <foundation/msg_svc/serialization/archives.hpp>
#include <mutex>

#include <quorl/cmddistributor/requestidadapter.hpp>

#include <foundation/usm/detail.hpp>

#include <boost/thread/once.hpp>

namespace cmddistributor {

using foundation::msg_svc::exchange::IDType;

namespace {
typedef foundation::usm::Detail<foundation::usm::scope::Tarn> Store;

// Tag type of the slot.
struct ScopedRequestId {};

std::uint64_t slot() {
    static std::once_flag once;
    static std::uint64_t number = 0;
    std::call_once(once, [] { number = Store::getNextID(typeid(ScopedRequestId)); });
    return number;
}

// The slot's value, created with the null id at first use.
IDType& slotValue() {
    return Store::findOrInsertValue(slot(), IDType(0, 0));
}
} // namespace

RequestIdAdapter::RequestIdAdapter()
    : requestId_(Store::isRequiredContextActive() ? slotValue() : IDType(0, 0)) {}

void RequestIdAdapter::setRequestId(IDType const& id) {
    if (!Store::isRequiredContextActive())
        return;
    IDType& current = slotValue();
    if (&current != &id)
        current = id;
}

IDType RequestIdAdapter::currentRequestId() {
    return Store::isRequiredContextActive() ? slotValue() : IDType(0, 0);
}

template <class Archive> void RequestIdAdapter::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("requestId", requestId_);
}
ZN_SERIALIZE_EXPLICIT(RequestIdAdapter)

} // namespace cmddistributor
