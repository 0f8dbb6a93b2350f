#include <quorl/cmddistributor/cmdrequest.hpp>

#include <quorl/io/activecmdwinsinkproxy.hpp>

#include <boost/thread/locks.hpp>

namespace cmddistributor {

CmdRequest::CmdRequest(IqmStreamID streamID, boost::shared_ptr<quorl::io::VeldraSink> const& out,
                       boost::shared_ptr<quorl::io::VeldraSink> const& err)
    : outputSink_(out ? out
                      : quorl::io::ActiveCmdWinSinkProxy::getInstance(quorl::io::OutputStream)),
      errorSink_(err ? err : quorl::io::ActiveCmdWinSinkProxy::getInstance(quorl::io::ErrorStream)),
      streamID_(streamID) {}

CmdRequest::~CmdRequest() = default;

boost::shared_ptr<IIP> const& CmdRequest::getIIP() const {
    // Once made, the packet never changes: later calls need no lock.
    if (iipMade_.load(std::memory_order_acquire))
        return iip_;
    boost::upgrade_lock<boost::shared_mutex> lock(iipMutex_);
    if (!iip_) {
        boost::upgrade_to_unique_lock<boost::shared_mutex> exclusive(lock);
        if (!iip_) {
            iip_ = const_cast<CmdRequest*>(this)->createIIP();
            iipMade_.store(bool(iip_), std::memory_order_release);
        }
    }
    return iip_;
}

} // namespace cmddistributor
