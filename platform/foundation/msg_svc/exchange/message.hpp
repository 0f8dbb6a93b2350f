#pragma once
// Message: base class of everything sent through an exchange. A message is immutable once
// submitted and is shared as boost::shared_ptr<Message const>; `deliver` runs at the far end,
// on a delivery thread of that exchange, and returns the reply sent back to the sender.
// The base delivers nothing and answers Reply::defaultReply().
//
// Equality: operator== compares dynamic types, then calls protectedEquals, which a subclass
// overrides to compare its base and its own fields (the caller guarantees the same type).
#include <foundation/msg_svc/exchange/routing.hpp>
#include <foundation/msg_svc/serialization/serializable.hpp>

#include <boost/serialization/export.hpp>
#include <boost/shared_ptr.hpp>

#include <ostream>

namespace foundation {
namespace msg_svc {
namespace exchange {

class Reply;

class Message {
public:
    Message() = default;
    Message(Message const&) = default;
    Message& operator=(Message const&) = default;
    virtual ~Message();

    virtual boost::shared_ptr<Reply const> deliver(Routing const& routing) const;
    // True if the sender waits on something that follows rather than on the answer itself:
    // across processes the answer may then travel with the next frame back to the sender (it
    // waits at most one brief poll of the transport). False: the answer goes at once.
    virtual bool answerMayWait() const { return false; }
    // Writes the message's text form for logs: the class name on a line of its own.
    virtual std::ostream& toString(std::ostream& os, int indent) const;

    bool operator==(Message const& other) const;
    bool operator!=(Message const& other) const { return !(*this == other); }

protected:
    virtual bool protectedEquals(Message const& other) const;

private:
    ZN_SERIALIZABLE()
};

std::ostream& operator<<(std::ostream& os, Message const& message);

} // namespace exchange
} // namespace msg_svc
} // namespace foundation

ZN_SERIALIZATION_TRAITS(foundation::msg_svc::exchange::Message, 1)
BOOST_CLASS_EXPORT_KEY2(foundation::msg_svc::exchange::Message,
                        "foundation::msg_svc::exchange::Message")
