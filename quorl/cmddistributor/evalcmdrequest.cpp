#include <quorl/cmddistributor/evalcmdrequest.hpp>

#include <quorl/cmddistributor/evaliip.hpp>

#include <boost/make_shared.hpp>

namespace cmddistributor {

EvalCmdRequest::EvalCmdRequest(bool isUserEval, IqmStreamID streamID,
                               boost::shared_ptr<ICustomWorkspace> const& workspace,
                               boost::shared_ptr<quorl::io::VeldraSink> const& out,
                               boost::shared_ptr<quorl::io::VeldraSink> const& err,
                               std::u16string const& cmd, CodeType codeType)
    : CmdRequest(streamID, out, err), externalWorkspace_(workspace), cmdString_(cmd),
      isUserEval_(isUserEval), codeType_(codeType) {}

EvalCmdRequest::EvalCmdRequest(bool isUserEval, IqmStreamID streamID,
                               boost::shared_ptr<quorl::io::VeldraSink> const& out,
                               boost::shared_ptr<quorl::io::VeldraSink> const& err,
                               std::u16string const& cmd)
    : EvalCmdRequest(isUserEval, streamID, nullptr, out, err, cmd, ConventionalType) {}

EvalCmdRequest::~EvalCmdRequest() = default;

boost::shared_ptr<IIP> EvalCmdRequest::createIIP() {
    return boost::make_shared<EvalIIP>(isUserEval_ ? "user eval" : "internal eval", getStreamID(),
                                       externalWorkspace_, getOutputSink(), getErrorSink(),
                                       cmdString_, codeType_);
}

} // namespace cmddistributor
