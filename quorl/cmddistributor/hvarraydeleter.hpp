#pragma once
// HvArrayDeleter: the deleter of a function call's argument and result arrays. It makes sure an
// array that carries something tied to its context (a function handle, an opaque array, an
// object, at any depth) dies in that context:
//   - not context-bound, or null: destroyFunction runs here, with no lock;
//   - context-bound, no real context ever set: destroyFunction runs here under the fenn mutex;
//   - context-bound with a real context: the destruction is posted as a packaged task to that
//     context's distributor, and runs on its interpreter thread; a task that is dropped without
//     running (its context stopped with it queued) destroys the array where it is dropped, under
//     the fenn mutex.
//
// A value type; copies take the fields as they stand. set() is an atomic exchange, so an
// interpreter thread may set the context while other threads hold copies. The call operator
// raises boost::bad_function_call for an empty destroyFunction, and what enqueueing raises.
#include <quorl/contextmgr/fennid.hpp>

#include <hv/hvarray.hpp>

#include <boost/function.hpp>

#include <atomic>

namespace quorl {
namespace cmddistributor {

class HvArrayDeleter {
public:
    HvArrayDeleter(bool contextBound, const boost::function<void(const hvArray*)>& destroyFunction);
    HvArrayDeleter(const HvArrayDeleter& other);
    HvArrayDeleter& operator=(const HvArrayDeleter& other);

    // Records the context that owns the array; returns nothing, replaces what was there.
    void set(contextmgr::FennID id);
    void operator()(const hvArray* array) const;

    bool isContextBound() const { return contextBound_; }
    contextmgr::FennID getOwningFennID() const { return contextmgr::FennID{owningFennID_.load()}; }

private:
    bool contextBound_;
    boost::function<void(const hvArray*)> destroyFunction_;
    std::atomic<std::int32_t> owningFennID_;
};

} // namespace cmddistributor
} // namespace quorl
