#pragma once
// ExchangeApi: a named message exchange. Messages submitted to an Address are delivered by the
// exchange of the address's name: one's own exchange delivers them in this process, without
// copying; any other exchange is reached through the transport, serialized.
//
// Delivery on one's own exchange:
//  - ordered queues (noqueue() and any name that is neither unordered() nor an actor): one at a
//    time, in order of submission, on the exchange's delivery thread (a message from another
//    exchange may be delivered by the transport thread that read it, when that is free);
//  - unordered(): a lane of its own with as many threads as there are blocked deliveries (up to
//    a bound), so an unordered message overtakes queued ones and may block on replies without
//    stalling delivery;
//  - a registered actor's service name: that actor's own thread, in order.
// The reply that `deliver` returns completes the sender's future; an exception thrown by
// `deliver` fails it. A message to an exchange that cannot be reached fails its future and
// raises CommunicationErrorEvent for that exchange name.
//
// ExchangeApi::instance() is the process's exchange, made at first use from the configuration
// given to configure() (or, unconfigured, in-process only under a generated name). Every
// operation may be called from any thread. Owned through boost::shared_ptr; destroying an
// exchange stops its threads, and deliveries not yet started are dropped, their futures failing
// with broken_promise.
#include <foundation/core/config/boostthreadversion.hpp>
#include <foundation/msg_svc/exchange/address.hpp>
#include <foundation/msg_svc/exchange/message.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>
#include <foundation/msg_svc/exchange/replyspin.hpp>
#include <foundation/msg_svc/exchange/transport.hpp>

#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>
#include <boost/throw_exception.hpp>

#include <memory>
#include <string>

namespace foundation {
namespace msg_svc {
namespace exchange {

struct ExchangeConfig {
    // The exchange's name, which is its address. Empty: a name generated for this process.
    std::string name;
    // Carries traffic to other exchanges; null: this exchange reaches no other.
    boost::shared_ptr<Transport> transport;
    // Most threads of the unordered lane at once.
    unsigned maxUnorderedThreads = 64;
    // Large blocks in frames (single archive writes of at least 1 MiB: an array's data, say)
    // are remembered per peer and each way, up to this many bytes, so that a block the peer
    // holds already crosses as a short reference. The receiver keeps the frames such blocks
    // arrived in, so this bounds the memory held for each peer. A side that keeps less than its
    // peer tells it the first time a block is missing (a reply that referred to one is lost
    // then, once); from then on the peer remembers no more for it. 0: every block is sent in
    // full.
    std::size_t blockCacheBytes = std::size_t(1) << 30;
    // A thread that waits on a reply's future (submitWithReply, submitForReply) polls for the
    // reply this long before it sleeps: see ReplySpin. 0: it sleeps at once.
    std::chrono::microseconds replySpin{250};
};

class ExchangeApi : public boost::enable_shared_from_this<ExchangeApi> {
public:
    typedef boost::function<void(boost::shared_ptr<Reply const> const&)> ReplyHandler;
    typedef boost::function<void(boost::exception_ptr const&)> ErrorHandler;
    // An actor's dispatch function: given a message for the actor, delivers it to the actor.
    typedef boost::function<boost::shared_ptr<Reply const>(Message const&)> ActorDispatch;

    static boost::shared_ptr<ExchangeApi> instance();
    // Sets how instance() makes the process's exchange. Throws std::logic_error once instance()
    // has made it.
    static void configure(ExchangeConfig const& config);
    // Makes an exchange of its own (several exchanges in one process, for hosts and tests).
    // Throws std::invalid_argument if an exchange of that name is alive in this process.
    static boost::shared_ptr<ExchangeApi> create(ExchangeConfig const& config);

    virtual ~ExchangeApi();

    // Sends the message; the future gets the reply that `deliver` returned at the far end, or
    // the failure of the delivery.
    boost::unique_future<boost::shared_ptr<Reply const>>
    submitWithReply(boost::shared_ptr<Message const> const& message, Address const& address);
    // Sends and forgets; the reply is dropped, a later failure is logged. A message that cannot
    // be sent at all (it cannot be encoded, or its frame is refused as too large) throws
    // DeliveryError, since nothing else would tell the caller.
    virtual void submit(boost::shared_ptr<Message const> const& message, Address const& address);
    // Sends; calls `handler` with the reply when it comes. A failure is logged and the handler is
    // not called; use the four-argument form to hear of failures.
    virtual void submitWithHandler(boost::shared_ptr<Message const> const& message,
                                   Address const& address, ReplyHandler const& handler);
    virtual void submitWithHandler(boost::shared_ptr<Message const> const& message,
                                   Address const& address, ReplyHandler const& handler,
                                   ErrorHandler const& onError);
    virtual std::string getExchangeName() const;
    // A new spin for one reply's promise, of this exchange's configured bound.
    ReplySpin makeReplySpin() const;
    // That bound (ExchangeConfig::replySpin), for waits on replies that come another way.
    std::chrono::microseconds replySpin() const;

    // Registers the actor that serves `serviceName` on this exchange; its messages are delivered
    // on a thread of its own, in order. Throws std::invalid_argument if the name is taken or is
    // one of the specialized queues.
    void registerActor(std::string const& serviceName, ActorDispatch const& dispatch);
    void unregisterActor(std::string const& serviceName);

    // True on any thread that delivers this exchange's messages.
    bool isDeliveryThread() const;

    // Stops the threads; later submissions fail. Called by the destructor.
    void stop();

    class Impl;

protected:
    explicit ExchangeApi(ExchangeConfig const& config);

private:
    std::unique_ptr<Impl> impl_;
};

// Registers an actor of type Api: messages of type ActorMessageAPI<Api> addressed to
// `serviceName` are handed to `actor`.
template <class Api>
void registerActor(ExchangeApi& exchange, std::string const& serviceName,
                   boost::shared_ptr<Api> const& actor);

// Submits a message whose reply type is R, and converts the reply with R::assignToPromise.
template <class R>
boost::unique_future<boost::shared_ptr<R const>>
submitForReply(ExchangeApi& exchange, boost::shared_ptr<Message const> const& message,
               Address const& address) {
    auto promise = boost::make_shared<boost::promise<boost::shared_ptr<R const>>>();
    ReplySpin const spin = exchange.makeReplySpin();
    spin.arm(*promise);
    auto future = promise->get_future();
    exchange.submitWithHandler(
        message, address,
        [promise, spin](boost::shared_ptr<Reply const> const& reply) {
            R::assignToPromise(promise, reply);
            spin.ready();
        },
        [promise, spin](boost::exception_ptr const& e) {
            promise->set_exception(e);
            spin.ready();
        });
    return future;
}

// A delivery was refused: the exchange is stopped or cannot reach the address.
class DeliveryError : public std::runtime_error {
public:
    explicit DeliveryError(std::string const& what) : std::runtime_error(what) {}
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation

#include <foundation/msg_svc/exchange/actormessage.hpp>

namespace foundation {
namespace msg_svc {
namespace exchange {

template <class Api>
void registerActor(ExchangeApi& exchange, std::string const& serviceName,
                   boost::shared_ptr<Api> const& actor) {
    exchange.registerActor(serviceName, [actor](Message const& m) {
        auto const* am = dynamic_cast<ActorMessageAPI<Api> const*>(&m);
        if (!am)
            boost::throw_exception(DeliveryError("message is not for this actor"));
        return am->deliverToActor(*actor);
    });
}

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
