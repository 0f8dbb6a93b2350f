#include <foundation/msg_svc/serialization/archives.hpp>

#include <foundation/msg_svc/exchange/address.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/core/demangle.hpp>
#include <boost/make_shared.hpp>

#include <atomic>
#include <chrono>
#include <iomanip>
#include <random>
#include <typeinfo>
#include <unistd.h>

namespace foundation {
namespace msg_svc {
namespace exchange {

namespace {
// A process-specific, never-zero origin, so that ids made in different processes differ.
int makeOrigin() {
    std::random_device rd;
    std::uint64_t mix =
        (static_cast<std::uint64_t>(rd()) << 32) ^ rd() ^ static_cast<std::uint64_t>(::getpid()) ^
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    int origin = static_cast<int>(mix & 0x7FFFFFFF);
    return origin == 0 ? 1 : origin;
}
// Made at first use, so that an id made during another unit's static initialisation has it too.
int processOrigin() {
    static int const origin = makeOrigin();
    return origin;
}
std::atomic<long long> nextSerial{1};
} // namespace

IDType::IDType() : origin_(processOrigin()), serial_(nextSerial.fetch_add(1)) {}

std::string IDType::toString() const {
    return std::to_string(origin_) + ":" + std::to_string(serial_);
}

template <class Archive> void IDType::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("origin", origin_);
    ar& boost::serialization::make_nvp("serial", serial_);
}
ZN_SERIALIZE_EXPLICIT(IDType)

std::string const& Address::SpecializedQueues::noqueue() {
    static std::string const q("noqueue");
    return q;
}

std::string const& Address::SpecializedQueues::unordered() {
    static std::string const q("unordered");
    return q;
}

Message::~Message() = default;

boost::shared_ptr<Reply const> Message::deliver(Routing const&) const {
    return Reply::defaultReply();
}

std::ostream& Message::toString(std::ostream& os, int indent) const {
    return os << std::setw(indent) << "" << boost::core::demangle(typeid(*this).name()) << '\n';
}

bool Message::operator==(Message const& other) const {
    return typeid(*this) == typeid(other) && protectedEquals(other);
}

bool Message::protectedEquals(Message const&) const {
    return true;
}

std::ostream& operator<<(std::ostream& os, Message const& message) {
    return message.toString(os, 0);
}

template <class Archive> void Message::serializeExplicit(Archive&, unsigned int) {}
ZN_SERIALIZE_EXPLICIT(Message)

Reply::~Reply() = default;

std::ostream& Reply::toString(std::ostream& os, int indent) const {
    return os << std::setw(indent) << "" << boost::core::demangle(typeid(*this).name()) << '\n';
}

boost::shared_ptr<Reply const> const& Reply::defaultReply() {
    // Never destroyed: delivery threads may still answer while the process ends.
    static boost::shared_ptr<Reply const> const* const reply =
        new boost::shared_ptr<Reply const>(new Reply);
    return *reply;
}

bool Reply::operator==(Reply const& other) const {
    return typeid(*this) == typeid(other) && protectedEquals(other);
}

bool Reply::protectedEquals(Reply const&) const {
    return true;
}

template <class Archive> void Reply::serializeExplicit(Archive&, unsigned int) {}
ZN_SERIALIZE_EXPLICIT(Reply)

} // namespace exchange
} // namespace msg_svc
} // namespace foundation

BOOST_CLASS_EXPORT_IMPLEMENT(foundation::msg_svc::exchange::Message)
BOOST_CLASS_EXPORT_IMPLEMENT(foundation::msg_svc::exchange::Reply)
