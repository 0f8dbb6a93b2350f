#pragma once
// WorkspaceStoreScope: gives the calling thread a workspace store of its own while the scope
// lives. Publication, lookups and forgetting of WorkspaceHolder on this thread then use it
// instead of the process-wide store. This lets one program stand for two processes (a client
// and a serving side on two exchanges of one process) without the serving side finding the
// client's workspace in memory. Scopes nest; the scope's store, and what it keeps alive, dies
// with the scope. A scope belongs to the thread that made it and must end on that thread.
#include <memory>

namespace quorl {
namespace workspace {

class WorkspaceStore;

class WorkspaceStoreScope {
public:
    WorkspaceStoreScope();
    WorkspaceStoreScope(WorkspaceStoreScope const&) = delete;
    WorkspaceStoreScope& operator=(WorkspaceStoreScope const&) = delete;
    ~WorkspaceStoreScope();

private:
    std::unique_ptr<WorkspaceStore> store_;
    WorkspaceStore* previous_;
};

} // namespace workspace
} // namespace quorl
