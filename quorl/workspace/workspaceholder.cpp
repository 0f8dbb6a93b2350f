#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/workspace/workspaceholder.hpp>

#include <quorl/workspace/localvariableprovider.hpp>
#include <quorl/workspace/workspacedeletedmessage.hpp>
#include <quorl/workspace/workspacestore.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/vector.hpp>

#include <algorithm>

namespace quorl {
namespace workspace {

using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;

WorkspaceHolder::WorkspaceHolder() : wsId_(0, 0) {}

WorkspaceHolder::WorkspaceHolder(IDType const& id)
    : wsId_(id), clientWorkspace_(getStoredClientWorkspace(id)) {}

WorkspaceHolder::WorkspaceHolder(boost::shared_ptr<ICustomWorkspace> const& workspace)
    : wsId_(0, 0), clientWorkspace_(workspace) {}

void WorkspaceHolder::setExchangeNames(std::string const& destination, std::string const& client) {
    destNames_.insert(destination);
    clientExchangeName_ = client;
}

void WorkspaceHolder::saveClientWorkspace() {
    if (!clientWorkspace_)
        return;
    WorkspaceStore& store = WorkspaceStore::current();
    std::lock_guard<std::mutex> lock(store.mutex);
    if (store.idsByWorkspace.count(clientWorkspace_.get()))
        return;
    if (!(wsId_ < IDType(0, 0)) && !(IDType(0, 0) < wsId_))
        wsId_ = IDType();
    store.idsByWorkspace.emplace(clientWorkspace_.get(), std::make_pair(clientWorkspace_, wsId_));
    store.holdersById[wsId_] = shared_from_this();
}

void WorkspaceHolder::populateCache(std::vector<std::string> const& names) {
    auto info = clientWorkspace_->getVariables(namePointers(names));
    for (std::size_t i = 0; i < names.size(); ++i)
        cache_.insert(std::make_pair(names[i], VariableValue(info.getStatus(i), info.getValue(i))));
}

void WorkspaceHolder::write(std::ostream& out) const {
    out << "wsId : " << wsId_.toString() << std::endl;
    if (!names_.empty()) {
        out << "VarNames" << std::endl;
        for (auto const& n : names_)
            out << n << std::endl;
        out << std::endl;
    }
    out << "clientExchangeName" << clientExchangeName_ << std::endl;
    if (!destNames_.empty()) {
        out << "exchangeNames" << std::endl;
        for (auto const& n : destNames_)
            out << n << std::endl;
        out << std::endl;
    }
}

boost::shared_ptr<WorkspaceHolder>
WorkspaceHolder::lookupHolder(boost::shared_ptr<ICustomWorkspace> const& workspace) {
    WorkspaceStore* store = WorkspaceStore::existing();
    if (!store || !workspace)
        return nullptr;
    std::lock_guard<std::mutex> lock(store->mutex);
    auto ws = store->idsByWorkspace.find(workspace.get());
    if (ws == store->idsByWorkspace.end())
        return nullptr;
    auto holder = store->holdersById.find(ws->second.second);
    return holder == store->holdersById.end() ? nullptr : holder->second;
}

boost::shared_ptr<WorkspaceHolder::ICustomWorkspace>
WorkspaceHolder::getStoredClientWorkspace(IDType const& id) {
    auto holder = getWorkspaceHolder(id);
    return holder ? holder->clientWorkspace_ : nullptr;
}

boost::shared_ptr<WorkspaceHolder> WorkspaceHolder::getWorkspaceHolder(IDType const& id) {
    WorkspaceStore* store = WorkspaceStore::existing();
    if (!store)
        return nullptr;
    std::lock_guard<std::mutex> lock(store->mutex);
    auto holder = store->holdersById.find(id);
    return holder == store->holdersById.end() ? nullptr : holder->second;
}

void WorkspaceHolder::workspaceDeleted(IDType const& id) {
    WorkspaceStore* store = WorkspaceStore::existing();
    if (!store)
        return;
    boost::shared_ptr<WorkspaceHolder> holder;
    boost::shared_ptr<ICustomWorkspace> workspace;
    {
        std::lock_guard<std::mutex> lock(store->mutex);
        auto found = store->holdersById.find(id);
        if (found == store->holdersById.end() || !found->second)
            return;
        holder = found->second; // dies outside the lock, with what it keeps alive
        workspace = holder->clientWorkspace_;
        store->holdersById.erase(found);
        store->idsByWorkspace.erase(workspace.get());
    }
}

void WorkspaceHolder::workspaceDeleted(boost::shared_ptr<ICustomWorkspace> workspace) {
    std::set<std::string> destinations;
    IDType id(0, 0);
    boost::shared_ptr<WorkspaceHolder> holder;
    std::pair<boost::shared_ptr<ICustomWorkspace>, IDType> published;
    if (WorkspaceStore* store = WorkspaceStore::existing()) {
        std::lock_guard<std::mutex> lock(store->mutex);
        auto ws = store->idsByWorkspace.find(workspace.get());
        if (ws != store->idsByWorkspace.end()) {
            published = ws->second; // released outside the lock
            id = published.second;
            auto found = store->holdersById.find(id);
            if (found != store->holdersById.end() && found->second) {
                holder = found->second;
                destinations = holder->destNames_;
            }
            store->idsByWorkspace.erase(ws);
            store->holdersById.erase(id);
        }
    }
    for (auto const& name : destinations) {
        auto reply = ExchangeApi::instance()->submitWithReply(
            boost::make_shared<WorkspaceDeletedMessage const>(id),
            Address(name, Address::SpecializedQueues::unordered()));
        reply.wait();
    }
}

template <class Archive>
void WorkspaceHolder::serializeExplicit(Archive& ar, unsigned int version) {
    if (version != 1)
        return;
    using boost::serialization::make_nvp;
    std::vector<VariableEntry> entries;
    if (Archive::is_saving::value) {
        if (clientWorkspace_) {
            names_ = clientWorkspace_->getVariableNames();
            entries.assign(cache_.begin(), cache_.end());
            std::sort(
                entries.begin(), entries.end(),
                [](VariableEntry const& a, VariableEntry const& b) { return a.first < b.first; });
            saveClientWorkspace(); // first, so that a fresh id is what travels
        }
    }
    ar& make_nvp("wsId", wsId_);
    ar& make_nvp("clientExchange", clientExchangeName_);
    ar& make_nvp("variableEntries", entries);
    ar& make_nvp("varNames", names_);
    if (Archive::is_saving::value)
        return;

    if (auto stored = getStoredClientWorkspace(wsId_)) {
        // This process published the workspace: the client's own, or the provider of an
        // earlier packet, whose cache takes what the client sent now. A real workspace has no
        // cache, and the entries are dropped.
        clientWorkspace_ = stored;
        if (auto provider = boost::dynamic_pointer_cast<LocalVariableProvider>(stored))
            provider->mergeEntries(entries);
    } else {
        clientWorkspace_ =
            boost::make_shared<LocalVariableProvider>(wsId_, names_, entries, clientExchangeName_);
    }
}
ZN_SERIALIZE_EXPLICIT(WorkspaceHolder)

} // namespace workspace
} // namespace quorl
