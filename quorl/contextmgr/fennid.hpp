#pragma once
// FennID: names a runtime context (an interpreter side that commands are distributed to).
// Values from BlessedFennID up are real contexts; the negative values are reserved markers.
// Plain value; compared as signed integers.
#include <cstddef>
#include <cstdint>
#include <functional>

namespace quorl {
namespace contextmgr {

struct FennID {
    std::int32_t value;

    constexpr bool operator==(FennID const& o) const { return value == o.value; }
    constexpr bool operator!=(FennID const& o) const { return value != o.value; }
    constexpr bool operator<(FennID const& o) const { return value < o.value; }
    constexpr bool operator<=(FennID const& o) const { return value <= o.value; }
    constexpr bool operator>(FennID const& o) const { return value > o.value; }
    constexpr bool operator>=(FennID const& o) const { return value >= o.value; }
};

// The wildcard: the context that is current.
constexpr FennID AnyFennID{-1};
// Ground marker; never effective.
constexpr FennID GroundFennID{-2};
// No context.
constexpr FennID UndefinedFennID{-3};
// The first real runtime context.
constexpr FennID BlessedFennID{0};

} // namespace contextmgr
} // namespace quorl

namespace std {
template <> struct hash<quorl::contextmgr::FennID> {
    std::size_t operator()(quorl::contextmgr::FennID const& id) const {
        return std::hash<std::int32_t>()(id.value);
    }
};
} // namespace std
