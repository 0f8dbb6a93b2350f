#pragma once
// WorkspaceStore (private to the workspace component): the published client workspaces and
// their holders, by workspace address and by id. One mutex guards both maps; it is held only
// while the maps are read or changed. current() is the calling thread's store: the one of its
// innermost WorkspaceStoreScope, else the process-wide one, made on first use under a once-flag.
// existing() is the same without making the process-wide one (null before its first use).
#include <quorl/workspace/workspaceholder.hpp>

#include <map>
#include <mutex>
#include <utility>

namespace quorl {
namespace workspace {

class WorkspaceStore {
public:
    typedef foundation::extdata::array::ICustomWorkspace ICustomWorkspace;
    typedef foundation::msg_svc::exchange::IDType IDType;

    static WorkspaceStore& current();
    static WorkspaceStore* existing();

    std::mutex mutex; // guards both maps
    std::map<ICustomWorkspace const*, std::pair<boost::shared_ptr<ICustomWorkspace>, IDType>>
        idsByWorkspace;
    std::map<IDType, boost::shared_ptr<WorkspaceHolder>> holdersById;

private:
    friend class WorkspaceStoreScope;
    static WorkspaceStore*& scoped();
};

} // namespace workspace
} // namespace quorl
