#include <foundation/msg_svc/serialization/archives.hpp>
#include <foundation/msg_svc/serialization/ustring.hpp>

#include <foundation/msg_svc/eventmgr/interestmessage.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>
#include <foundation/msg_svc/exchange/routing.hpp>

#include <fl/i18n/conversions.hpp>

#include <boost/serialization/vector.hpp>

#include <atomic>
#include <iomanip>
#include <list>
#include <mutex>
#include <unordered_map>

namespace foundation {
namespace msg_svc {
namespace eventmgr {
namespace detail {

namespace {

std::atomic<std::uint64_t> version{1};

struct Listeners {
    std::mutex mutex; // guards list, and is held while listeners run
    std::list<std::function<void()>> list;
};
Listeners& listeners() {
    static Listeners* l = new Listeners; // lives to the end of the process
    return *l;
}

struct Peers {
    std::mutex mutex; // guards byName
    std::unordered_map<std::string, std::shared_ptr<TagSet const>> byName;
};
Peers& peers() {
    static Peers* p = new Peers;
    return *p;
}

} // namespace

std::uint64_t interestVersion() {
    return version.load();
}

void interestGained() {
    ++version;
    Listeners& l = listeners();
    std::lock_guard<std::mutex> lock(l.mutex);
    for (auto const& listener : l.list)
        listener();
}

void interestLost() {
    ++version; // told with the next message to each peer
}

std::shared_ptr<void> addInterestListener(std::function<void()> listener) {
    Listeners& l = listeners();
    std::lock_guard<std::mutex> lock(l.mutex);
    auto it = l.list.insert(l.list.end(), std::move(listener));
    return std::shared_ptr<void>(nullptr, [it](void*) {
        Listeners& l = listeners();
        std::lock_guard<std::mutex> lock(l.mutex);
        l.list.erase(it);
    });
}

std::shared_ptr<TagSet const> peerInterest(std::string const& peer) {
    Peers& p = peers();
    std::lock_guard<std::mutex> lock(p.mutex);
    auto it = p.byName.find(peer);
    return it == p.byName.end() ? nullptr : it->second;
}

void setPeerInterest(std::string const& peer, TagVector const& tags) {
    auto set = std::make_shared<TagSet const>(tags.begin(), tags.end());
    Peers& p = peers();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.byName[peer] = std::move(set);
}

void forgetPeerInterest(std::string const& peer) {
    Peers& p = peers();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.byName.erase(peer);
}

InterestMessage::InterestMessage(TagVector tags) : tags_(std::move(tags)) {}
InterestMessage::~InterestMessage() = default;

boost::shared_ptr<exchange::Reply const>
InterestMessage::deliver(exchange::Routing const& routing) const {
    setPeerInterest(routing.source(), tags_);
    return exchange::Reply::defaultReply();
}

std::ostream& InterestMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "tags:";
    for (auto const& t : tags_)
        os << ' ' << fl::i18n::to_string(t);
    return os << '\n';
}

bool InterestMessage::protectedEquals(exchange::Message const& other) const {
    return Message::protectedEquals(other) &&
           static_cast<InterestMessage const&>(other).tags_ == tags_;
}

template <class Archive> void InterestMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<exchange::Message>(*this));
    ar& boost::serialization::make_nvp("tags", tags_);
}
ZN_SERIALIZE_EXPLICIT(InterestMessage)

} // namespace detail
} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

BOOST_CLASS_EXPORT_IMPLEMENT(foundation::msg_svc::eventmgr::detail::InterestMessage)
