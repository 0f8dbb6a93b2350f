#pragma once
// MatrixReference: one entry of the reference table, either a local array that has been handed
// out by reference (the entry owns it) or the description of an array held elsewhere.
//
// Ownership: entries are owned by MatrixRefTable through boost::shared_ptr; a shared pointer
// obtained from MatrixRefTable::find keeps the entry object alive, not its place in the table.
// Threads: `count` and the payload are changed only under the table's lock. A local entry's
// array stays in place for as long as some reference holds a count of it, so a holder of such a
// count may read the array without the lock. No errors of its own.
#include <quorl/contextmgr/tarnid.hpp>
#include <quorl/matrixref/remoterefinfo.hpp>

#include <hv/matrix.hpp>

#include <boost/variant.hpp>

#include <cstdint>

namespace quorl {
namespace matrixref {

// A tag names an entry in one process's table. 0 names none; tags are never reused.
typedef std::uint64_t RefTag;
constexpr RefTag UndefinedRefTag = 0;

struct MatrixReference {
    enum Kind : std::int32_t { Local = 0, Remote = 1 };

    RefTag tag = UndefinedRefTag;
    std::int32_t kind = Local;
    // The context this entry belongs to.
    contextmgr::TarnID tarn = contextmgr::UndefinedTarnID;
    // The array itself (kind Local) or the remote description (kind Remote).
    boost::variant<HvArrayPtr, RemoteRefInfo> payload;
    // References to this entry; guarded by the table's lock.
    std::uint64_t count = 0;

    bool isLocal() const { return kind == Local; }
    // The array of a local entry, else null.
    hvArray_tag* array() const {
        auto p = boost::get<HvArrayPtr>(&payload);
        return p ? p->get() : nullptr;
    }
    // The description of a remote entry, else null.
    RemoteRefInfo const* remote() const { return boost::get<RemoteRefInfo>(&payload); }
};

} // namespace matrixref
} // namespace quorl
