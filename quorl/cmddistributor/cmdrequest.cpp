#include <quorl/cmddistributor/cmdrequest.hpp>

#include <quorl/io/activecmdwinsinkproxy.hpp>

#include <foundation/usm/detail.hpp>

#include <boost/thread/locks.hpp>

namespace cmddistributor {

namespace {

// The command window of the context the request is made in. Inside a context the proxy is bound
// here, since its text is written later on an event thread, outside any context.
boost::shared_ptr<quorl::io::VeldraSink> commandWindow(quorl::io::StreamTypeEnum stream) {
    auto proxy = quorl::io::ActiveCmdWinSinkProxy::getInstance(stream);
    if (foundation::usm::Detail<foundation::usm::scope::Tarn>::isRequiredContextActive())
        proxy->getUnicodeOutStreamBuffer();
    return proxy;
}

} // namespace

CmdRequest::CmdRequest(IqmStreamID streamID, boost::shared_ptr<quorl::io::VeldraSink> const& out,
                       boost::shared_ptr<quorl::io::VeldraSink> const& err)
    : outputSink_(out ? out : commandWindow(quorl::io::OutputStream)),
      errorSink_(err ? err : commandWindow(quorl::io::ErrorStream)), streamID_(streamID) {}

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
