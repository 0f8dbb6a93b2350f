#pragma once
// CmdRequest: what a client hands to a CmdDistributor: the work (made into a packet on first
// demand), its input stream, and the sinks its output goes to. A request that names no sink
// writes to the command window of the context it is made in (none when made outside any context,
// and its text is then dropped). Not copyable; shared through boost::shared_ptr. The
// distributor keeps it in its tracking record until the request ends.
//
// getIIP may be called from any thread; the packet is made once (double-checked under an upgrade
// lock). An exception from createIIP passes to the caller and the next call tries again.
//
// CmdRequestTraits<R>::extractResult turns a completion event into the value of a request's
// future; for CmdRequest it extracts nothing (a future of void).
#include <foundation/core/config/boostthreadversion.hpp>
#include <quorl/cmddistributor/iip.hpp>

#include <boost/core/noncopyable.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <atomic>
#include <memory>

namespace cmddistributor {

class IIPCompletedEvent;

class CmdRequest : private boost::noncopyable {
public:
    CmdRequest(IqmStreamID streamID, boost::shared_ptr<quorl::io::VeldraSink> const& out,
               boost::shared_ptr<quorl::io::VeldraSink> const& err);
    virtual ~CmdRequest();

    boost::shared_ptr<IIP> const& getIIP() const;
    boost::shared_ptr<quorl::io::VeldraSink> const& getOutputSink() const { return outputSink_; }
    boost::shared_ptr<quorl::io::VeldraSink> const& getErrorSink() const { return errorSink_; }
    IqmStreamID getStreamID() const { return streamID_; }

protected:
    virtual boost::shared_ptr<IIP> createIIP() = 0;

private:
    mutable boost::shared_ptr<IIP> iip_; // guarded by iipMutex_
    boost::shared_ptr<quorl::io::VeldraSink> outputSink_;
    boost::shared_ptr<quorl::io::VeldraSink> errorSink_;
    IqmStreamID streamID_;
    mutable boost::shared_mutex iipMutex_;
    mutable std::atomic<bool> iipMade_{false}; // set once iip_ is made; then iip_ is fixed
};

template <class R> struct CmdRequestTraits;

template <> struct CmdRequestTraits<CmdRequest> {
    static void extractResult(IIPCompletedEvent const&) {}
};

} // namespace cmddistributor
