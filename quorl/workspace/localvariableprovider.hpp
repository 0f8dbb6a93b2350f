#pragma once
// LocalVariableProvider: the workspace an interpreter sees when the real workspace belongs to a
// client in another process. Each operation sends a variable message to the client's exchange
// (its unordered queue, through ExchangeApi::instance()) and waits for the reply without a time
// limit. It caches what it receives, so that a value the client reports unchanged is taken from
// here instead of crossing the exchange again.
//
// Made by a WorkspaceHolder when it is loaded in a process that does not hold the workspace;
// owned by that holder, the store it is published in and the interpreter using it. Its end
// sends nothing and leaves the client's workspace alone.
//
// Threads: no lock of its own; one interpreter thread uses it at a time. Each call blocks until
// the client has served it. Errors: getVariable and getVariables rethrow the failure of the
// reply (std::bad_cast when the client no longer knows the workspace and answers with the
// default reply); setVariables and clearVariable wait for completion only and throw only when
// the submission itself fails.
#include <quorl/workspace/variableentry.hpp>

#include <foundation/extdata/array/icustomworkspace.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>

#include <string>
#include <vector>

namespace quorl {
namespace workspace {

class LocalVariableProvider : public foundation::extdata::array::ICustomWorkspace {
public:
    typedef foundation::msg_svc::exchange::IDType IDType;

    // The names and the exchange are taken as they are; the entries are merged into the cache.
    LocalVariableProvider(IDType const& wsId, std::vector<std::string> names,
                          std::vector<VariableEntry> const& entries,
                          std::string clientExchangeName);
    ~LocalVariableProvider() override;

    foundation::extdata::Array getVariable(char const* name) override;
    foundation::extdata::array::VariableInfo
    getVariables(std::vector<char const*> const& names) override;
    void setVariables(std::vector<char const*> names,
                      std::vector<foundation::extdata::Array> values) override;
    void clearVariable(char const* name) override;
    // The names heard of here, in order of first appearance; sends nothing.
    std::vector<std::string> getVariableNames() override;

    // Entries of a later packet of the same workspace: each name is inserted into the cache or
    // has its status and value replaced; the names are left alone.
    void mergeEntries(std::vector<VariableEntry> const& entries);

    IDType const& getWorkspaceId() const { return wsId_; }
    std::string const& getClientExchangeName() const { return clientExchangeName_; }
    VariableCache const& getCache() const { return cache_; }

private:
    // Caches `value` under `name`; a name new to the cache also joins the names, unless they
    // list it already.
    void updateCache(std::string const& name, foundation::extdata::Array const& value,
                     VariableStatus status);

    VariableCache cache_;
    std::vector<std::string> names_;
    std::string clientExchangeName_;
    IDType wsId_;
};

} // namespace workspace
} // namespace quorl
