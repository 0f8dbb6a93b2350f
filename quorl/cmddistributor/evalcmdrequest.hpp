#pragma once
// EvalCmdRequest: a string of code for an interpreter, to run in the interpreter's own
// workspace or in a workspace the client hands over (an ICustomWorkspace, e.g. a
// quorl::workspace::ClientWorkspace). Its packet is an EvalIIP of plug-in type "user eval" or
// "internal eval". The future of an enqueued eval request carries nothing; failures of the code
// come out of it as RuntimeException.
//
// Not copyable; shared through boost::shared_ptr like every request. The workspace is shared
// with the packet and with the workspace store once the packet has been saved. Any thread.
#include <quorl/cmddistributor/cmdrequest.hpp>
#include <quorl/cmddistributor/codetype.hpp>

#include <foundation/extdata/array/icustomworkspace.hpp>

#include <string>

namespace cmddistributor {

class EvalCmdRequest : public CmdRequest {
public:
    typedef foundation::extdata::array::ICustomWorkspace ICustomWorkspace;

    EvalCmdRequest(bool isUserEval, IqmStreamID streamID,
                   boost::shared_ptr<ICustomWorkspace> const& workspace,
                   boost::shared_ptr<quorl::io::VeldraSink> const& out,
                   boost::shared_ptr<quorl::io::VeldraSink> const& err, std::u16string const& cmd,
                   CodeType codeType);
    // Code for the interpreter's own workspace, taken as ConventionalType.
    EvalCmdRequest(bool isUserEval, IqmStreamID streamID,
                   boost::shared_ptr<quorl::io::VeldraSink> const& out,
                   boost::shared_ptr<quorl::io::VeldraSink> const& err, std::u16string const& cmd);
    ~EvalCmdRequest() override;

    std::u16string const& getCmdString() const { return cmdString_; }
    CodeType const& getCodeType() const { return codeType_; }
    boost::shared_ptr<ICustomWorkspace> const& getExternalWorkspace() const {
        return externalWorkspace_;
    }
    bool isUserEval() const { return isUserEval_; }

protected:
    // An EvalIIP of plug-in type "user eval" or "internal eval", always through the packet's
    // workspace constructor (a null workspace gives a packet without holder).
    boost::shared_ptr<IIP> createIIP() override;

private:
    boost::shared_ptr<ICustomWorkspace> externalWorkspace_;
    std::u16string cmdString_;
    bool isUserEval_;
    CodeType codeType_;
};

template <> struct CmdRequestTraits<EvalCmdRequest> : CmdRequestTraits<CmdRequest> {};

} // namespace cmddistributor
