#include <quorl/cmddistributor/fcncmdrequest.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

namespace cmddistributor {

FcnCmdRequest<void>::FcnCmdRequest(boost::function<void()> func,
                                   boost::shared_ptr<quorl::io::VeldraSink> const& outputSink,
                                   boost::shared_ptr<quorl::io::VeldraSink> const& errorSink)
    : CmdRequest(UnsetIqmStreamID, outputSink, errorSink) {
    if (func.empty())
        func = [] {};
    iip_ = boost::make_shared<PackagedTaskIIP>(
        [func]() -> boost::any {
            func();
            return boost::any(boost::make_shared<boost::unique_future<void>>());
        },
        getOutputSink(), getErrorSink());
}

FcnCmdRequest<void>::~FcnCmdRequest() = default;

boost::shared_ptr<IIP> FcnCmdRequest<void>::createIIP() {
    return iip_;
}

} // namespace cmddistributor
