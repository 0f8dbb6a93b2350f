#pragma once
// IDType: the identifier of a request, a packet, a workspace or any other object across
// exchanges. A pair of an origin (different in each process) and a serial number.
// IDType() makes a fresh id, unique in the process and, through the random origin, across
// processes; IDType(0, 0) is the null id. Plain data: copy it freely, on any thread.
#include <foundation/msg_svc/serialization/serializable.hpp>

#include <cstddef>
#include <functional>
#include <string>

namespace foundation {
namespace msg_svc {
namespace exchange {

class IDType {
public:
    IDType();
    IDType(int origin, long long serial) : origin_(origin), serial_(serial) {}

    bool operator==(IDType const& o) const { return origin_ == o.origin_ && serial_ == o.serial_; }
    bool operator!=(IDType const& o) const { return !(*this == o); }
    bool operator<(IDType const& o) const {
        return origin_ < o.origin_ || (origin_ == o.origin_ && serial_ < o.serial_);
    }

    // "origin:serial", e.g. "1234567:42"; the null id is "0:0".
    std::string toString() const;

    int origin() const { return origin_; }
    long long serial() const { return serial_; }
    bool isNull() const { return origin_ == 0 && serial_ == 0; }
    std::size_t hash() const {
        return std::hash<long long>()(serial_) * 31u + static_cast<std::size_t>(origin_);
    }

private:
    ZN_SERIALIZABLE()
    int origin_;
    long long serial_;
};

struct IDTypeHash {
    std::size_t operator()(IDType const& id) const { return id.hash(); }
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation

ZN_SERIALIZATION_TRAITS(foundation::msg_svc::exchange::IDType, 1)

namespace std {
template <> struct hash<foundation::msg_svc::exchange::IDType> {
    std::size_t operator()(foundation::msg_svc::exchange::IDType const& id) const {
        return id.hash();
    }
};
} // namespace std
