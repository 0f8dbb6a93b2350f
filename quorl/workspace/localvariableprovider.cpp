#include <quorl/workspace/localvariableprovider.hpp>

#include <quorl/workspace/onevariablegetmessage.hpp>
#include <quorl/workspace/variablesgetmessage.hpp>
#include <quorl/workspace/variablesgetreply.hpp>
#include <quorl/workspace/variablessetmessage.hpp>

#include <foundation/extdata/array/detail/defaultvariableinfoimpl.hpp>
#include <foundation/extdata/array/variableinfoimpldata.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <stdexcept>

namespace quorl {
namespace workspace {

using foundation::extdata::Array;
using foundation::extdata::array::VariableInfo;
using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::Message;

namespace {

Address clientAddress(std::string const& exchange) {
    return Address(exchange, Address::SpecializedQueues::unordered());
}

// Sends a get request and waits for its reply; a failure of the reply is rethrown here.
boost::shared_ptr<VariablesGetReply const> sendAndWait(boost::shared_ptr<Message const> message,
                                                       std::string const& exchange) {
    auto future = foundation::msg_svc::exchange::submitForReply<VariablesGetReply>(
        *ExchangeApi::instance(), message, clientAddress(exchange));
    auto reply = future.get();
    if (!reply)
        return boost::make_shared<VariablesGetReply const>(); // read as "the workspace is gone"
    return reply;
}

// Sends a set or clear and waits until it has been served; its outcome is not examined.
void sendAndComplete(boost::shared_ptr<Message const> message, std::string const& exchange) {
    ExchangeApi::instance()->submitWithReply(message, clientAddress(exchange)).wait();
}

} // namespace

LocalVariableProvider::LocalVariableProvider(IDType const& wsId, std::vector<std::string> names,
                                             std::vector<VariableEntry> const& entries,
                                             std::string clientExchangeName)
    : names_(std::move(names)), clientExchangeName_(std::move(clientExchangeName)), wsId_(wsId) {
    mergeEntries(entries);
}

LocalVariableProvider::~LocalVariableProvider() = default;

void LocalVariableProvider::mergeEntries(std::vector<VariableEntry> const& entries) {
    for (auto const& entry : entries)
        cache_[entry.first] = entry.second;
}

void LocalVariableProvider::updateCache(std::string const& name, Array const& value,
                                        VariableStatus status) {
    auto cached = cache_.find(name);
    if (cached == cache_.end()) {
        cache_.emplace(name, VariableValue(status, value));
        // Names the holder sent are listed already without being cached: list each name once.
        if (std::find(names_.begin(), names_.end(), name) == names_.end())
            names_.push_back(name);
    } else {
        cached->second = VariableValue(status, value);
    }
}

Array LocalVariableProvider::getVariable(char const* name) {
    std::string const key(name);
    auto reply = sendAndWait(boost::make_shared<OneVariableGetMessage const>(key, wsId_),
                             clientExchangeName_);
    if (reply->getVarInfo().empty())
        throw std::out_of_range("No value in the reply for variable '" + key + "'.");
    VariableEntry const& entry = reply->getVarInfo().front();
    VariableStatus const status = entry.second.first;
    auto cached = cache_.find(key);
    if (status != IVariableInfo::StatusUnchanged) {
        if (cached == cache_.end())
            cache_.emplace(key, entry.second);
        else
            cached->second = entry.second;
        return entry.second.second;
    }
    // The client answers "unchanged" only for what it knows this side was sent; the one entry
    // carries the value too, which serves should the two caches ever disagree.
    return cached != cache_.end() ? cached->second.second : entry.second.second;
}

VariableInfo LocalVariableProvider::getVariables(std::vector<char const*> const& names) {
    std::vector<std::string> keys(names.begin(), names.end());
    auto reply = sendAndWait(boost::make_shared<VariablesGetMessage const>(keys, wsId_),
                             clientExchangeName_);
    auto const& received = reply->getVarInfo();
    foundation::extdata::array::detail::DefaultVariableInfoImpl impl(names);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (received.empty()) {
            // The client no longer knows the workspace: every variable is absent.
            impl.setStatus(i, IVariableInfo::StatusAbsent);
            impl.setValue(i, Array());
            updateCache(keys[i], Array(), IVariableInfo::StatusOther);
            continue;
        }
        VariableValue const& got = received.at(i).second;
        switch (got.first) {
        case IVariableInfo::StatusAbsent:
        case IVariableInfo::StatusOther:
            impl.setStatus(i, got.first);
            impl.setValue(i, got.second);
            updateCache(keys[i], got.second, IVariableInfo::StatusOther);
            break;
        case IVariableInfo::StatusValue:
            impl.setStatus(i, got.first);
            impl.setValue(i, got.second);
            updateCache(keys[i], got.second, IVariableInfo::StatusValue);
            break;
        case IVariableInfo::StatusUnchanged: {
            auto cached = cache_.find(keys[i]);
            impl.setStatus(i, IVariableInfo::StatusValue);
            impl.setValue(i, cached != cache_.end() ? cached->second.second : Array());
            break;
        }
        }
    }
    return VariableInfo(std::make_shared<veldra::data::detail::VariableInfoImplData>(
        impl.getPtrNames(), impl.getStats(), impl.getValues()));
}

void LocalVariableProvider::setVariables(std::vector<char const*> names,
                                         std::vector<Array> values) {
    std::vector<std::string> keys(names.begin(), names.end());
    for (std::size_t i = 0; i < keys.size() && i < values.size(); ++i)
        updateCache(keys[i], values[i], IVariableInfo::StatusValue);
    sendAndComplete(boost::make_shared<VariablesSetMessage const>(
                        std::move(keys), std::move(values), VariablesSetMessage::VAR_SET, wsId_),
                    clientExchangeName_);
}

void LocalVariableProvider::clearVariable(char const* name) {
    std::string const key(name);
    if (cache_.erase(key) == 0)
        return; // unknown here: the client's variable is not touched
    names_.erase(std::remove(names_.begin(), names_.end(), key), names_.end());
    sendAndComplete(boost::make_shared<VariablesSetMessage const>(
                        std::vector<std::string>{key}, std::vector<Array>(),
                        VariablesSetMessage::VAR_CLEAR, wsId_),
                    clientExchangeName_);
}

std::vector<std::string> LocalVariableProvider::getVariableNames() {
    return names_;
}

} // namespace workspace
} // namespace quorl
