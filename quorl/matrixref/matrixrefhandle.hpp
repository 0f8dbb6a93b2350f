#pragma once
// MatrixRefHandle: the payload of a reference array, shared by the array library's copies of
// that array. It names a table entry by tag and, for an element reference, one element of the
// entry's array.
//
// Ownership: a handle holds one count of its table entry. Each array sharing the handle is one
// sharer; when the last sharer ends, the handle is freed and its count released, exactly once.
// Threads: `sharers` is atomic because shared copies may die on different threads; the other
// fields never change after the handle is made. No errors.
#include <quorl/contextmgr/tarnid.hpp>
#include <quorl/matrixref/matrixreference.hpp>

#include <atomic>
#include <cstdint>

namespace quorl {
namespace matrixref {

struct MatrixRefHandle {
    MatrixRefHandle(RefTag tag_, bool element, std::uint64_t index,
                    contextmgr::TarnID const& clientTarn_)
        : tag(tag_), elementFlag(element ? 1 : 0), elementIndex(element ? index : 0),
          clientTarn(clientTarn_) {}
    MatrixRefHandle(MatrixRefHandle const&) = delete;
    MatrixRefHandle& operator=(MatrixRefHandle const&) = delete;

    RefTag const tag;
    // 1 when the reference stands for one element of the entry's array.
    std::int32_t const elementFlag;
    // Zero-based linear index of that element; 0 when elementFlag is 0.
    std::uint64_t const elementIndex;
    // The owner's context as the receiving side knows it.
    contextmgr::TarnID const clientTarn;
    std::atomic<std::uint64_t> sharers{1};
};

} // namespace matrixref
} // namespace quorl
