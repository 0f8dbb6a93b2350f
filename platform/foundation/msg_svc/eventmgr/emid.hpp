#pragma once
// EmID: the identity of an event manager. Managers of equal identity share their subscriptions
// and their event thread. SessionEmId names the current session.
#include <cstdint>
#include <functional>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

class EmID {
public:
    constexpr EmID() : value_(0) {}
    constexpr explicit EmID(std::uint64_t value) : value_(value) {}
    constexpr std::uint64_t value() const { return value_; }
    constexpr bool operator==(EmID const& o) const { return value_ == o.value_; }
    constexpr bool operator!=(EmID const& o) const { return value_ != o.value_; }
    constexpr bool operator<(EmID const& o) const { return value_ < o.value_; }

private:
    std::uint64_t value_;
};

extern EmID const SessionEmId;

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

namespace std {
template <> struct hash<foundation::msg_svc::eventmgr::EmID> {
    std::size_t operator()(foundation::msg_svc::eventmgr::EmID const& id) const {
        return std::hash<std::uint64_t>()(id.value());
    }
};
} // namespace std
