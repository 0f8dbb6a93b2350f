#pragma once
// Test arrays whose end can be observed: an opaque class that cannot be saved, whose payload
// counts its sharers and, when the last one dies, counts the death and runs a hook. It stands
// for an array that cannot leave its context (an object of the host's).
#include <hv/hvarray.hpp>

#include <atomic>
#include <cstring>
#include <functional>

namespace quorl_testing {

struct CountedPayload {
    std::atomic<int> sharers{1};
    std::function<void()> onFree;
};

// Payloads alive and payloads freed in this process.
inline std::atomic<long>& countedAlive() {
    static std::atomic<long> n{0};
    return n;
}
inline std::atomic<long>& countedFreed() {
    static std::atomic<long> n{0};
    return n;
}

inline void* countedShare(void* giblet) {
    static_cast<CountedPayload*>(giblet)->sharers.fetch_add(1);
    return giblet;
}

inline void countedDestroy(void* giblet) {
    auto* payload = static_cast<CountedPayload*>(giblet);
    if (payload->sharers.fetch_sub(1) != 1)
        return;
    auto hook = std::move(payload->onFree);
    delete payload;
    --countedAlive();
    ++countedFreed();
    if (hook)
        hook();
}

inline bool countedIsClassName(char const* name) {
    return name && std::strcmp(name, "CountedTestArray") == 0;
}

inline hvOpaqueClass const* countedClass() {
    static hvOpaqueClass const* cls = [] {
        hvOpaqueClassOps ops;
        ops.share = &countedShare;
        ops.destroy = &countedDestroy;
        ops.isClassName = &countedIsClassName;
        return hvSubclassOpaqueArray("CountedTestArray", &ops);
    }();
    return cls;
}

// A 1-by-n counted array; `onFree` runs once, when its payload dies.
inline HvArrayPtr makeCounted(std::size_t n = 1, std::function<void()> onFree = {}) {
    auto* payload = new CountedPayload;
    payload->onFree = std::move(onFree);
    ++countedAlive();
    HvArrayPtr array(hvCreateOpaqueMatrix(countedClass(), 1, n));
    hvSetOpaqueGiblet(array.get(), payload);
    return array;
}

} // namespace quorl_testing
