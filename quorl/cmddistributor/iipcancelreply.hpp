#pragma once
// IIPCancelReply: what the interpreter side did with a cancel. Immutable once made; shared as
// boost::shared_ptr<IIPCancelReply const>.
#include <foundation/core/config/boostthreadversion.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/thread/future.hpp>

namespace cmddistributor {

class IIPCancelReply : public foundation::msg_svc::exchange::Reply {
public:
    enum CancelStatus : std::int32_t {
        // The interpreter side does not know the packet (or no cancel handler is installed).
        CancelNotFound = 0,
        // The packet could not be cancelled: it has finished or cannot be stopped.
        CancelNotCancelled = 1,
        // The cancel was accepted: a queued packet is discarded, a running one stops.
        CancelAccepted = 2,
    };

    explicit IIPCancelReply(CancelStatus status);
    IIPCancelReply(IIPCancelReply const&) = default;
    IIPCancelReply(IIPCancelReply&&) = default;
    ~IIPCancelReply() override;

    CancelStatus getStatus() const { return status_; }
    // The base text at indent 0, then "status: " and the number.
    std::ostream& toString(std::ostream& os, int indent) const override;

    typedef boost::promise<boost::shared_ptr<IIPCancelReply const>> Promise;
    // Fulfils `promise` with `reply` as an IIPCancelReply: a null reply stays null; a reply of
    // another type puts std::bad_cast into the promise.
    static void
    assignToPromise(boost::shared_ptr<Promise> const& promise,
                    boost::shared_ptr<foundation::msg_svc::exchange::Reply const> const& reply);

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Reply const& other) const override;

private:
    IIPCancelReply() : status_(CancelNotFound) {}
    ZN_SERIALIZABLE()
    CancelStatus status_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIPCancelReply, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIPCancelReply, "cmddistributor::IIPCancelReply")
