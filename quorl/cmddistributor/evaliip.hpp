#pragma once
// EvalIIP: the packet of an eval request: a string of code, how to take it (CodeType), and,
// when the code is to run in the client's workspace instead of the interpreter's own, a
// WorkspaceHolder standing for that workspace. Saving the packet publishes the client's
// workspace (the holder's wire form); loading it gives the interpreter the workspace through
// getExternalWorkspace(): the client's very workspace in the client's process, a
// LocalVariableProvider that reaches back to it elsewhere.
//
// The interpreter side runs "user eval" and "internal eval" packets: getCommand() in
// getExternalWorkspace(), or in its own workspace when that is null.
//
// Owns its holder jointly with the workspace store. Fixed after construction or loading, except
// the holder's exchange names (setExchangeNames, called by the distributor before submission);
// any thread may read it. Construction throws only what allocation throws; loading throws what
// the archive and the holder's loading throw.
#include <quorl/cmddistributor/codetype.hpp>
#include <quorl/cmddistributor/iip.hpp>

#include <foundation/extdata/array/icustomworkspace.hpp>

#include <boost/optional.hpp>
#include <boost/shared_ptr.hpp>

#include <string>

namespace quorl {
namespace workspace {
class WorkspaceHolder;
}
} // namespace quorl

namespace cmddistributor {

class EvalIIP : public IIP {
public:
    typedef foundation::extdata::array::ICustomWorkspace ICustomWorkspace;

    // For archives: "Undefined" code type, empty command, no holder.
    EvalIIP();
    // Code for the interpreter's own workspace, taken as ConventionalType.
    EvalIIP(std::string const& pluginType, IqmStreamID streamID,
            boost::shared_ptr<quorl::io::VeldraSink> const& out,
            boost::shared_ptr<quorl::io::VeldraSink> const& err, std::u16string const& command);
    // Code for `workspace`: its published holder is shared, else a new holder wraps it; with a
    // null workspace the packet has no holder.
    EvalIIP(std::string const& pluginType, IqmStreamID streamID,
            boost::shared_ptr<ICustomWorkspace> const& workspace,
            boost::shared_ptr<quorl::io::VeldraSink> const& out,
            boost::shared_ptr<quorl::io::VeldraSink> const& err, std::u16string const& command,
            CodeType const& codeType);
    ~EvalIIP() override;

    // The base packet's text, "CMDLEN " with the length in 16-bit units, "CMD " with the code as
    // UTF-8, "codeType " with its name, then the holder's text when there is one.
    void write(std::ostream& out) const override;

    std::u16string const& getCommand() const { return command_; }
    CodeType const& getCodeType() const { return codeType_; }
    // The workspace to run in, or null for the interpreter's own.
    boost::shared_ptr<ICustomWorkspace> getExternalWorkspace() const;
    boost::optional<boost::shared_ptr<quorl::workspace::WorkspaceHolder>> const&
    getWorkspaceHolder() const {
        return wsHolder_;
    }
    // Tells the holder the exchange the packet goes to and the client's own; no holder, no-op.
    void setExchangeNames(std::string const& destination, std::string const& client);

private:
    ZN_SERIALIZABLE()
    std::u16string command_;
    CodeType codeType_;
    boost::optional<boost::shared_ptr<quorl::workspace::WorkspaceHolder>> wsHolder_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::EvalIIP, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::EvalIIP, "cmddistributor::EvalIIP")
