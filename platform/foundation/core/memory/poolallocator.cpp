#include <foundation/core/memory/poolallocator.hpp>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                         \
    __has_feature(memory_sanitizer)
#define ZN_POOL_USES_OPERATOR_NEW 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZN_POOL_USES_OPERATOR_NEW 1
#endif

#ifndef ZN_POOL_USES_OPERATOR_NEW
#include <tbb/scalable_allocator.h>
#endif

namespace foundation {
namespace core {
namespace memory {

void* poolAllocate(std::size_t bytes) {
#ifdef ZN_POOL_USES_OPERATOR_NEW
    return ::operator new(bytes);
#else
    if (void* p = scalable_malloc(bytes ? bytes : 1))
        return p;
    throw std::bad_alloc();
#endif
}

void poolDeallocate(void* p) noexcept {
#ifdef ZN_POOL_USES_OPERATOR_NEW
    ::operator delete(p);
#else
    scalable_free(p);
#endif
}

} // namespace memory
} // namespace core
} // namespace foundation
