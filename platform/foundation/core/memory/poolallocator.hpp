#pragma once
// The allocator of objects that are made on one thread and freed on another: requests, their
// tracking records, messages, completion events. glibc's malloc takes the allocating thread's
// arena lock for every such free, and under a steady stream of requests the client and the
// interpreter threads queue on that lock. In optimized builds these functions use TBB's scalable
// allocator instead, whose per-thread pools accept a foreign free without a lock. Under a
// sanitizer they use the global operator new and delete, so that every object stays visible to
// the checkers.
//
// poolAllocate/poolDeallocate are out of line, so that code compiled with other options still
// frees through the same allocator that allocated. All functions may be called from any thread;
// poolAllocate throws std::bad_alloc.
#include <boost/smart_ptr/make_shared.hpp>

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace foundation {
namespace core {
namespace memory {

void* poolAllocate(std::size_t bytes);
void poolDeallocate(void* p) noexcept;

// A standard allocator over the pool, for allocate_shared and containers.
template <class T> class PoolAllocator {
public:
    typedef T value_type;

    PoolAllocator() noexcept = default;
    template <class U> PoolAllocator(PoolAllocator<U> const&) noexcept {}

    T* allocate(std::size_t n) {
        static_assert(alignof(T) <= alignof(std::max_align_t),
                      "the pool does not serve over-aligned types");
        if (n > std::size_t(-1) / sizeof(T))
            throw std::bad_alloc();
        return static_cast<T*>(poolAllocate(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t) noexcept { poolDeallocate(p); }

    template <class U> bool operator==(PoolAllocator<U> const&) const noexcept { return true; }
    template <class U> bool operator!=(PoolAllocator<U> const&) const noexcept { return false; }
};

// A base that makes `new` and `delete` of a class and its subclasses use the pool.
struct PoolAllocated {
    static void* operator new(std::size_t bytes) { return poolAllocate(bytes); }
    static void operator delete(void* p) noexcept { poolDeallocate(p); }
};

// make_shared with the object and its count in one pool allocation.
template <class T, class... Args> std::shared_ptr<T> makePooledShared(Args&&... args) {
    return std::allocate_shared<T>(PoolAllocator<T>(), std::forward<Args>(args)...);
}
template <class T, class... Args> boost::shared_ptr<T> makePooledBoostShared(Args&&... args) {
    return boost::allocate_shared<T>(PoolAllocator<T>(), std::forward<Args>(args)...);
}

} // namespace memory
} // namespace core
} // namespace foundation
