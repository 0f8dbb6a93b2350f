#pragma once
// FcnCmdRequest<T>: a request that runs a function object on the interpreter thread of the
// context it is enqueued to, in order with that context's other work. The library provides
// FcnCmdRequest<void>; its future carries nothing (CmdRequestTraits<CmdRequest>).
//
// The packet (a PackagedTaskIIP) is made in the constructor and owned jointly with whoever holds
// it. The task runs on an interpreter thread; the request itself may be used from any thread.
// Construction throws only what allocation or the packet's constructor throws.
#include <quorl/cmddistributor/cmdrequest.hpp>
#include <quorl/cmddistributor/packagedtaskiip.hpp>

#include <boost/function.hpp>

namespace cmddistributor {

template <class T> class FcnCmdRequest;

template <> class FcnCmdRequest<void> : public CmdRequest {
public:
    // An empty `func` is replaced by one that does nothing. The task's result, as its packet's
    // function returns it, is a boost::shared_ptr<boost::unique_future<void>> to an empty future.
    FcnCmdRequest(boost::function<void()> func,
                  boost::shared_ptr<quorl::io::VeldraSink> const& outputSink,
                  boost::shared_ptr<quorl::io::VeldraSink> const& errorSink);
    ~FcnCmdRequest() override;

protected:
    boost::shared_ptr<IIP> createIIP() override;

private:
    boost::shared_ptr<PackagedTaskIIP> iip_;
};

template <> struct CmdRequestTraits<FcnCmdRequest<void>> : CmdRequestTraits<CmdRequest> {};

} // namespace cmddistributor
