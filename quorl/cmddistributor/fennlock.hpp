#pragma once
// FennLock: holds the fenn mutex for a scope, as the array helpers of function calls do. The mutex
// is counted and re-entrant, so helpers nest it freely.
#include <quorl/utils/fennmutex.hpp>

namespace quorl {
namespace cmddistributor {
namespace detail {

class FennLock {
public:
    FennLock() { fenn_acquire_mutex(); }
    ~FennLock() { fenn_release_mutex(); }
    FennLock(const FennLock&) = delete;
    FennLock& operator=(const FennLock&) = delete;
};

} // namespace detail
} // namespace cmddistributor
} // namespace quorl
