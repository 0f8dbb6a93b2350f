#include <quorl/workspace/workspacestore.hpp>

#include <quorl/workspace/workspacestorescope.hpp>

#include <boost/thread/once.hpp>

#include <atomic>

namespace quorl {
namespace workspace {

namespace {
boost::once_flag processStoreOnce = BOOST_ONCE_INIT;
// Made once, never destroyed: it outlives every holder and every exchange thread.
std::atomic<WorkspaceStore*> processStore{nullptr};
} // namespace

WorkspaceStore*& WorkspaceStore::scoped() {
    thread_local WorkspaceStore* store = nullptr;
    return store;
}

WorkspaceStore& WorkspaceStore::current() {
    if (WorkspaceStore* s = scoped())
        return *s;
    boost::call_once(processStoreOnce, [] { processStore.store(new WorkspaceStore); });
    return *processStore.load();
}

WorkspaceStore* WorkspaceStore::existing() {
    if (WorkspaceStore* s = scoped())
        return s;
    return processStore.load();
}

WorkspaceStoreScope::WorkspaceStoreScope()
    : store_(new WorkspaceStore), previous_(WorkspaceStore::scoped()) {
    WorkspaceStore::scoped() = store_.get();
}

WorkspaceStoreScope::~WorkspaceStoreScope() {
    WorkspaceStore::scoped() = previous_;
}

} // namespace workspace
} // namespace quorl
