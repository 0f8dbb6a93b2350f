#pragma once
// TarnID: names a virtual-machine context (the owner of workspaces and arrays). Plain value;
// compared for equality. Serialized as one unsigned 64-bit value named "TarnID".
#include <foundation/msg_svc/serialization/optional.hpp>
#include <foundation/msg_svc/serialization/serializable.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace quorl {
namespace contextmgr {

struct TarnID {
    std::uint64_t value;

    constexpr bool operator==(TarnID const& o) const { return value == o.value; }
    constexpr bool operator!=(TarnID const& o) const { return value != o.value; }

private:
    ZN_SERIALIZABLE()
};

// No context.
constexpr TarnID UndefinedTarnID{0};
// The first real virtual-machine context.
constexpr TarnID BlessedTarnID{1};

} // namespace contextmgr
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::contextmgr::TarnID, 1)
ZN_OPTIONAL_WIRE_FORM(quorl::contextmgr::TarnID)

namespace std {
template <> struct hash<quorl::contextmgr::TarnID> {
    std::size_t operator()(quorl::contextmgr::TarnID const& id) const {
        return std::hash<std::uint64_t>()(id.value);
    }
};
} // namespace std
