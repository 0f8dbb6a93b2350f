#include <foundation/msg_svc/serialization/archives.hpp>
#include <foundation/msg_svc/serialization/ustring.hpp>

#include <foundation/msg_svc/eventmgr/baseevent.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <foundation/msg_svc/eventmgr/emid.hpp>
#include <foundation/msg_svc/eventmgr/interestmessage.hpp>
#include <foundation/msg_svc/eventmgr/shutdownevent.hpp>
#include <foundation/msg_svc/eventmgr/subscriptioncount.hpp>
#include <foundation/msg_svc/eventmgr/watchtoken.hpp>

#include <fl/i18n/conversions.hpp>

#include <boost/serialization/vector.hpp>

#include <algorithm>
#include <mutex>
#include <unordered_map>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

EmID const SessionEmId(0);

// ---- TypeInformation

TypeInformation::~TypeInformation() = default;

TagRange TypeInformation::getTags() const {
    return TagRange(allTags_.begin(), allTags_.end());
}

bool TypeInformation::equals(TypeInformation const& other) const {
    return userTags_ == other.userTags_;
}

bool TypeInformation::hasTag(ustring const& tag) const {
    return std::find(allTags_.begin(), allTags_.end(), tag) != allTags_.end();
}

void TypeInformation::refreshTags() {
    allTags_ = userTags_;
    TagRange names = getTypeNames();
    allTags_.insert(allTags_.end(), names.begin(), names.end());
}

boost::shared_ptr<TypeInformation> TypeInformation::withTags(TagIterator begin,
                                                             TagIterator end) const {
    boost::shared_ptr<TypeInformation> copy(this->copy());
    if (allowsUserTags()) {
        copy->userTags_.insert(copy->userTags_.end(), begin, end);
    } else {
        TagRange names = getTypeNames();
        for (TagIterator t = begin; t != end; ++t) {
            if (std::find(names.begin(), names.end(), *t) == names.end())
                throw std::runtime_error("cannot add user tags.");
        }
    }
    copy->refreshTags();
    return copy;
}

// ---- BaseEvent

BaseEvent::BaseEvent(boost::shared_ptr<TypeInformation> const& typeInfo) : typeInfo_(typeInfo) {}

BaseEvent::~BaseEvent() = default;

bool BaseEvent::canBeSerialized() const {
    return true;
}

std::ostream& BaseEvent::fillStream(std::ostream& os) const {
    return os << "EVENT " << fl::i18n::to_string(*typeInfo_->getTypeNames().begin()) << '\n';
}

bool BaseEvent::isVeldraClientsAllowed() const {
    return true;
}

bool BaseEvent::operator==(BaseEvent const& other) const {
    return typeInfo_->equals(*other.typeInfo_) && typeInfo_->eventsEqual(*this, other);
}

bool BaseEvent::isKindOf(ustring const& typeName) const {
    TagRange names = typeInfo_->getTypeNames();
    return std::find(names.begin(), names.end(), typeName) != names.end();
}

void BaseEvent::addTags(TagIterator begin, TagIterator end) {
    typeInfo_ = typeInfo_->withTags(begin, end);
}

void BaseEvent::addTag(ustring const& tag) {
    TagVector one{tag};
    addTags(one.begin(), one.end());
}

std::ostream& operator<<(std::ostream& os, BaseEvent const& event) {
    return event.fillStream(os);
}

template <class Archive> void BaseEvent::serializeExplicit(Archive& ar, unsigned int) {
    TagVector tags(typeInfo_->getUserTags().begin(), typeInfo_->getUserTags().end());
    ar& boost::serialization::make_nvp("userTags", tags);
    if (Archive::is_loading::value && !tags.empty())
        typeInfo_ = typeInfo_->withTags(tags.begin(), tags.end());
}
ZN_SERIALIZE_EXPLICIT(BaseEvent)

ShutdownEvent::ShutdownEvent(boost::shared_ptr<TypeInformation> const& typeInfo)
    : BaseEvent(typeInfo) {}

ShutdownEvent::~ShutdownEvent() = default;

template <class Archive> void ShutdownEvent::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("BaseEvent",
                                       boost::serialization::base_object<BaseEvent>(*this));
}
ZN_SERIALIZE_EXPLICIT(ShutdownEvent)

// ---- Connections and watches

Connection::~Connection() = default;
WatchToken::~WatchToken() = default;

ScopedConnection::~ScopedConnection() {
    connection_.reset();
}

void ScopedConnection::assign(std::unique_ptr<Connection> c) {
    std::unique_ptr<Connection> old(std::move(connection_));
    connection_ = std::move(c);
    old.reset();
}

// ---- Counts

namespace detail {

SubscriptionCount::~SubscriptionCount() = default;

namespace {
std::atomic<bool> leakChecking{false};

struct CellTable {
    std::mutex mutex; // guards cells
    std::unordered_map<ustring, std::unique_ptr<std::atomic<std::uint64_t>>> cells;
};
CellTable& cellTable() {
    static CellTable* t = new CellTable; // lives to the end of the process
    return *t;
}

// Small blocks recycled per thread; count objects are a few dozen bytes.
struct FreeList {
    static constexpr std::size_t kBlock = 64;
    static constexpr std::size_t kKeep = 64;
    void* blocks[kKeep];
    std::size_t n = 0;
    ~FreeList() {
        while (n)
            ::operator delete(blocks[--n]);
    }
};
thread_local FreeList freeList;
} // namespace

void* allocateCountObject(std::size_t size) {
    if (size <= FreeList::kBlock && freeList.n)
        return freeList.blocks[--freeList.n];
    return ::operator new(size <= FreeList::kBlock ? FreeList::kBlock : size);
}

void releaseCountObject(void* p, std::size_t size) noexcept {
    if (size <= FreeList::kBlock && freeList.n < FreeList::kKeep) {
        freeList.blocks[freeList.n++] = p;
        return;
    }
    ::operator delete(p);
}

std::atomic<std::uint64_t>* countCell(ustring const& tag) {
    CellTable& t = cellTable();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto& cell = t.cells[tag];
    if (!cell)
        cell.reset(new std::atomic<std::uint64_t>(0));
    return cell.get();
}

void countUp(std::atomic<std::uint64_t>* cell) {
    if (cell->fetch_add(1) == 0)
        interestGained();
}

void countDown(std::atomic<std::uint64_t>* cell) {
    if (cell->fetch_sub(1) == 1)
        interestLost();
}

TagVector watchedTags() {
    CellTable& t = cellTable();
    std::lock_guard<std::mutex> lock(t.mutex);
    TagVector tags;
    for (auto const& cell : t.cells) {
        if (cell.second->load(std::memory_order_relaxed) != 0)
            tags.push_back(cell.first);
    }
    return tags;
}

bool LeakCheck::isLeakChecking() {
    return leakChecking.load(std::memory_order_relaxed);
}

void LeakCheck::setLeakChecking(bool on) {
    leakChecking.store(on);
}

SubscriptionCountByTypedInstance::SubscriptionCountByTypedInstance(TagIterator begin,
                                                                   TagIterator end)
    : tags_(begin, end) {
    counts_.reserve(tags_.size());
    for (auto const& t : tags_)
        counts_.emplace_back(t);
}

bool SubscriptionCountByTypedInstance::hasSubscriptions() const {
    for (auto const& c : counts_) {
        if (c.hasSubscriptions())
            return true;
    }
    return false;
}

std::uint64_t SubscriptionCountByTypedInstance::getSubscriptionCount() const {
    std::uint64_t n = 0;
    for (auto const& c : counts_)
        n += c.getSubscriptionCount();
    return n;
}

void SubscriptionCountByTypedInstance::incrementSubscriptionCount() {
    for (auto& c : counts_)
        c.incrementSubscriptionCount();
}

void SubscriptionCountByTypedInstance::decrementSubscriptionCount() {
    for (auto& c : counts_)
        c.decrementSubscriptionCount();
}

} // namespace detail

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

BOOST_CLASS_EXPORT_IMPLEMENT(foundation::msg_svc::eventmgr::BaseEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(foundation::msg_svc::eventmgr::ShutdownEvent)
