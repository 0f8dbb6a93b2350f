#pragma once
// Messages, replies, an event and an actor that the cross-process tests and their server
// program share. Both sides link testprotocol.cpp, which registers the classes for the binary
// archive the exchange uses.
#include <foundation/msg_svc/eventmgr/baseevent.hpp>
#include <foundation/msg_svc/exchange/actormessage.hpp>
#include <foundation/msg_svc/exchange/message.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/thread/future.hpp>

#include <atomic>
#include <string>

namespace crossprocess {

using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;
using foundation::msg_svc::exchange::Routing;

class EchoReply : public Reply {
public:
    EchoReply(int n = 0, std::string body = std::string(), std::string source = std::string())
        : n(n), body(std::move(body)), source(std::move(source)) {}
    int n;
    std::string body;
    std::string source; // the exchange the echoed message came from, as the server saw it
    static void
    assignToPromise(boost::shared_ptr<boost::promise<boost::shared_ptr<EchoReply const>>> const& p,
                    boost::shared_ptr<Reply const> const& r);
    template <class A> void serialize(A& ar, unsigned);
};

// Answers its number, body and sender; a negative number makes delivery throw.
class EchoMessage : public Message {
public:
    EchoMessage(int n = 0, std::string body = std::string()) : n(n), body(std::move(body)) {}
    boost::shared_ptr<Reply const> deliver(Routing const& routing) const override;
    int n;
    std::string body;
    template <class A> void serialize(A& ar, unsigned);
};

// Published to the server's session by clients; the server counts them (slowly, so that a
// flush that did not wait would be seen).
class PingEvent : public foundation::msg_svc::eventmgr::BaseEvent {
public:
    typedef foundation::msg_svc::eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"crossprocess::PingEvent"; }
    explicit PingEvent(int n = 0);
    BaseEvent* clone() const override { return new PingEvent(*this); }
    int n;
    template <class A> void serialize(A& ar, unsigned);
};

// Asks the server how many PingEvents its subscriber has handled, and makes it publish
// `pongs` PingEvents back to the asking exchange's session.
class CountMessage : public Message {
public:
    explicit CountMessage(int pongs = 0) : pongs(pongs) {}
    boost::shared_ptr<Reply const> deliver(Routing const& routing) const override;
    int pongs;
    template <class A> void serialize(A& ar, unsigned);
};

class TallyApi {
public:
    virtual ~TallyApi() = default;
    virtual boost::shared_ptr<Reply const> serve(class TallyMessage const& m) = 0;
};

// Adds to the server's tally actor ("crossprocess.tally"); answers the running sum.
class TallyMessage : public foundation::msg_svc::exchange::ActorMessage<TallyMessage, TallyApi> {
public:
    explicit TallyMessage(int add = 0) : add(add) {}
    int add;
    template <class A> void serialize(A& ar, unsigned);
};

// The server side: subscribes to PingEvents and registers the tally actor.
void installServerSide();

} // namespace crossprocess
