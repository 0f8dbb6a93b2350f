#pragma once
// ClientWorkspace: a ready-made workspace for a C++ client. Its variables are held as
// foundation::extdata::Array values by name; an eval request given this workspace runs its code
// against them, in this process directly or from another process through the variable
// messages. The client reads and changes the same variables with the plain operations below.
//
// Once a packet carrying it has been saved (sent to another process), the workspace is published
// in the workspace store, which keeps it alive: a client that is done with it calls
// WorkspaceHolder::workspaceDeleted(workspace), which also tells the serving exchanges.
//
// Status of a variable in getVariables: StatusValue when it exists, StatusAbsent (with an empty
// array) when it does not. getVariable of a missing name gives an empty Array.
//
// Threads: every operation may be called from any thread at once; one shared mutex guards the
// variables (readers share it, writers hold it alone). Arrays are values, so what a reader got
// stays unchanged by later writes. Errors: a null name, or names and values of different counts,
// raise std::invalid_argument, and nothing is changed.
#include <foundation/extdata/array/icustomworkspace.hpp>

#include <boost/optional.hpp>

#include <map>
#include <shared_mutex>
#include <string>
#include <vector>

namespace quorl {
namespace workspace {

class ClientWorkspace : public foundation::extdata::array::ICustomWorkspace {
public:
    ClientWorkspace() = default;
    ClientWorkspace(ClientWorkspace const&) = delete;
    ClientWorkspace& operator=(ClientWorkspace const&) = delete;
    ~ClientWorkspace() override;

    foundation::extdata::Array getVariable(char const* name) override;
    foundation::extdata::array::VariableInfo
    getVariables(std::vector<char const*> const& names) override;
    void setVariables(std::vector<char const*> names,
                      std::vector<foundation::extdata::Array> values) override;
    void clearVariable(char const* name) override;
    // The names in sorted order.
    std::vector<std::string> getVariableNames() override;

    // The client's own view.
    void set(std::string const& name, foundation::extdata::Array value);
    boost::optional<foundation::extdata::Array> find(std::string const& name) const;
    bool erase(std::string const& name);
    void clear();
    std::size_t size() const;

private:
    mutable std::shared_mutex mutex_;
    std::map<std::string, foundation::extdata::Array> variables_; // guarded by mutex_
};

} // namespace workspace
} // namespace quorl
