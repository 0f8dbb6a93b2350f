#include <quorl/cmddistributor/fevalcmdrequest.hpp>

namespace cmddistributor {

FEvalCmdRequest<void, void>::FEvalCmdRequest(
    const std::string& function, const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
    const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
    const quorl::contextmgr::TarnID& clientTarnID, const quorl::contextmgr::TarnID& serverTarnID)
    : FEvalCmdRequest(function, 0, outputSink, errorSink, clientTarnID, serverTarnID) {}

FEvalCmdRequest<void, void>::FEvalCmdRequest(
    const std::string& function, std::size_t nlhs,
    const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
    const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
    const quorl::contextmgr::TarnID& clientTarnID, const quorl::contextmgr::TarnID& serverTarnID)
    : CmdRequest(UnsetIqmStreamID, outputSink, errorSink) {
    IqmStreamID const streamID = getStreamID();
    auto data = boost::make_shared<FEvalOpaqueData<void, void>>();
    iip_ = boost::make_shared<FEvalIIP>(function, nlhs, std::move(data), streamID, getOutputSink(),
                                        getErrorSink(), clientTarnID, serverTarnID);
}

FEvalCmdRequest<void, void>::~FEvalCmdRequest() = default;

boost::shared_ptr<IIP> FEvalCmdRequest<void, void>::createIIP() {
    return iip_;
}

} // namespace cmddistributor
