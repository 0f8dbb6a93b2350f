#pragma once
// RemoteRefInfo: what a table knows of an array held in another process's table, enough to
// answer questions about it (class, dimensions, whether elements can be referenced) without a
// message. Plain value, owned by its table entry; no lock of its own, no errors.
#include <quorl/contextmgr/tarnid.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quorl {
namespace matrixref {

struct RemoteRefInfo {
    // The tag in the table of the process that owns the array.
    std::uint64_t remoteTag = 0;
    // Key of the exchange through which that process is reached.
    contextmgr::TarnID remoteTarn = contextmgr::UndefinedTarnID;
    std::string className;
    std::vector<std::size_t> dimensions;
    bool indexable = false;
};

} // namespace matrixref
} // namespace quorl
