#pragma once
// WorkspaceHolder: what an eval packet carries in place of a client's workspace. On the client's
// side it wraps the client's ICustomWorkspace and records what has been sent of it: a per-name
// cache of statuses and values, the names known at saving, the exchanges told of it, and the
// exchange on which the client is reached. Saving it publishes the workspace in the
// process-wide store under an id; loading it gives back the client's very workspace when the
// store holds that id (same process), or a LocalVariableProvider that reaches the client through
// the variable messages (another process), which is then published under the same id so that
// later packets of that workspace reuse it.
//
// Ownership: always owned by a boost::shared_ptr (publication stores shared_from_this()). The
// store keeps a published workspace and its holder alive until workspaceDeleted.
//
// Threads: the static store operations may be called from any thread; the store's one mutex is
// held only while its maps are read or changed, never while messages are sent or a workspace
// is called. The holder's own members are not guarded: the requests of one workspace come one
// at a time, each caller waiting for its reply. Nothing here throws but allocation, mutex
// failures, and, from workspaceDeleted(workspace), the exchange's submission errors.
#include <quorl/workspace/variableentry.hpp>

#include <foundation/extdata/array/icustomworkspace.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/serialization/serializable.hpp>

#include <boost/enable_shared_from_this.hpp>
#include <boost/serialization/export.hpp>
#include <boost/shared_ptr.hpp>

#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace quorl {
namespace workspace {

class WorkspaceHolder : public boost::enable_shared_from_this<WorkspaceHolder> {
public:
    typedef foundation::extdata::array::ICustomWorkspace ICustomWorkspace;
    typedef foundation::msg_svc::exchange::IDType IDType;

    // Takes the id and the workspace published under it; the workspace stays null when the
    // store does not know the id.
    explicit WorkspaceHolder(IDType const& id);
    // Wraps a client's workspace, with the null id until it is published.
    explicit WorkspaceHolder(boost::shared_ptr<ICustomWorkspace> const& workspace);

    IDType getWorkspaceId() const { return wsId_; }
    boost::shared_ptr<ICustomWorkspace> getClientWorkspace() const { return clientWorkspace_; }
    std::vector<std::string> const& getNames() const { return names_; }
    std::set<std::string>& getDestNames() { return destNames_; }
    VariableCache& getVariableStore() { return cache_; }
    std::string const& getClientExchangeName() const { return clientExchangeName_; }

    // Adds `destination` to the exchanges to tell when the workspace ends, and makes `client`
    // the exchange on which the workspace is served.
    void setExchangeNames(std::string const& destination, std::string const& client);

    // Publishes the workspace in the store: a null id becomes a fresh one, an id that came with
    // the holder stays. Nothing happens when the workspace is published already (then the id is
    // left as it is) or when there is no workspace.
    void saveClientWorkspace();

    // Text form for logs: the id, the names, the client exchange, the destinations.
    void write(std::ostream& out) const;

    // The holder of a published workspace, or null.
    static boost::shared_ptr<WorkspaceHolder>
    lookupHolder(boost::shared_ptr<ICustomWorkspace> const& workspace);
    // The workspace published under `id`, or null.
    static boost::shared_ptr<ICustomWorkspace> getStoredClientWorkspace(IDType const& id);
    // The holder published under `id`, or null.
    static boost::shared_ptr<WorkspaceHolder> getWorkspaceHolder(IDType const& id);
    // Serving side of the deletion notice: forgets the workspace and holder of `id`.
    static void workspaceDeleted(IDType const& id);
    // Client side: forgets the workspace, then tells every exchange that heard of it (one
    // WorkspaceDeletedMessage each, in name order, waiting for each to complete).
    static void workspaceDeleted(boost::shared_ptr<ICustomWorkspace> workspace);

protected:
    WorkspaceHolder();

private:
    // Asks the workspace for `names` and caches what it answers; cached names keep their entry.
    void populateCache(std::vector<std::string> const& names);

    ZN_SERIALIZABLE()

    IDType wsId_;
    boost::shared_ptr<ICustomWorkspace> clientWorkspace_;
    VariableCache cache_;
    std::vector<std::string> names_;
    std::set<std::string> destNames_;
    std::string clientExchangeName_;
};

} // namespace workspace
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::workspace::WorkspaceHolder, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::workspace::WorkspaceHolder, "quorl::workspace::WorkspaceHolder")
