#include <mutex>
#include <quorl/contextmgr/contextregistry.hpp>

#include <foundation/usm/detail.hpp>

#include <boost/thread/once.hpp>

#include <atomic>

namespace quorl {
namespace contextmgr {
namespace ContextRegistry {

namespace {

typedef foundation::usm::Detail<foundation::usm::scope::Tarn> Store;

std::atomic<std::int32_t> defaultFenn{UndefinedFennID.value};
std::atomic<std::uint64_t> defaultTarn{UndefinedTarnID.value};

std::once_flag fennSlotOnce;
std::once_flag tarnSlotOnce;
std::uint64_t fennSlotNumber = 0;
std::uint64_t tarnSlotNumber = 0;

std::uint64_t fennSlot() {
    std::call_once(fennSlotOnce, [] { fennSlotNumber = Store::getNextID(typeid(FennID)); });
    return fennSlotNumber;
}

std::uint64_t tarnSlot() {
    std::call_once(tarnSlotOnce, [] { tarnSlotNumber = Store::getNextID(typeid(TarnID)); });
    return tarnSlotNumber;
}

FennID loadDefaultFenn() {
    return FennID{defaultFenn.load()};
}

// Stores a heap copy of exactly the value's size, freed by its matching deleter.
template <class T> void store(std::uint64_t slot, T const& value) {
    Store::insert(slot, typeid(T), new T(value), [](void* p) { delete static_cast<T*>(p); });
}

} // namespace

FennID getFennID() {
    if (!Store::isRequiredContextActive())
        return loadDefaultFenn();
    return *static_cast<FennID*>(Store::findOrFail(fennSlot(), typeid(FennID)));
}

TarnID getTarnID() {
    if (!Store::isRequiredContextActive())
        return TarnID{defaultTarn.load()};
    return *static_cast<TarnID*>(Store::findOrFail(tarnSlot(), typeid(TarnID)));
}

FennID getEffectiveFennID(FennID const& requested) {
    if (requested.value >= BlessedFennID.value)
        return requested;
    if (requested == AnyFennID) {
        if (!Store::isRequiredContextActive())
            return loadDefaultFenn();
        return *static_cast<FennID*>(Store::findOrFail(fennSlot(), typeid(FennID)));
    }
    return UndefinedFennID;
}

boost::optional<FennID> getFennIDIfFennActive() {
    if (!Store::isRequiredContextActive())
        return loadDefaultFenn();
    if (auto* v = static_cast<FennID*>(Store::find(fennSlot(), typeid(FennID))))
        return *v;
    return boost::none;
}

void setIDs(FennID fenn, TarnID tarn) {
    store(fennSlot(), fenn);
    store(tarnSlot(), tarn);
}

void setDefaultIDs(FennID fenn, TarnID tarn) {
    defaultFenn.exchange(fenn.value);
    defaultTarn.exchange(tarn.value);
}

} // namespace ContextRegistry
} // namespace contextmgr
} // namespace quorl
