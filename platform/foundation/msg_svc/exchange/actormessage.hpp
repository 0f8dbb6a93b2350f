#pragma once
// Actor messages: a message that is handed to an actor instead of delivering itself.
//
// ActorMessageAPI<Api> is the message side: the exchange calls deliverToActor with the actor
// registered under the address's queue name (ExchangeApi::registerActor), on that actor's own
// thread. ActorMessage<M, Api> implements it by calling `actor.serve(message)` with the message
// as M; Api declares one `serve` overload per message type it takes. `deliver` answers null:
// an actor message is only meaningful to its actor.
#include <foundation/msg_svc/exchange/message.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

namespace foundation {
namespace msg_svc {
namespace exchange {

template <class Api> class ActorMessageAPI : public Message {
public:
    typedef Api actor_type;
    virtual boost::shared_ptr<Reply const> deliverToActor(Api& actor) const = 0;
};

template <class M, class Api> class ActorMessage : public ActorMessageAPI<Api> {
public:
    boost::shared_ptr<Reply const> deliver(Routing const&) const override {
        return boost::shared_ptr<Reply const>();
    }
    boost::shared_ptr<Reply const> deliverToActor(Api& actor) const override {
        return actor.serve(static_cast<M const&>(*this));
    }
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
