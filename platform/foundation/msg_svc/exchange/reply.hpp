#pragma once
// Reply: base class of what `Message::deliver` returns to the sender. Immutable once made and
// shared as boost::shared_ptr<Reply const>. defaultReply() is the shared reply meaning
// "nothing to report".
#include <foundation/msg_svc/serialization/serializable.hpp>

#include <boost/serialization/export.hpp>
#include <boost/shared_ptr.hpp>

#include <ostream>

namespace foundation {
namespace msg_svc {
namespace exchange {

class Reply {
public:
    virtual ~Reply();
    // Writes the reply's text form for logs: the class name on a line of its own.
    virtual std::ostream& toString(std::ostream& os, int indent) const;

    static boost::shared_ptr<Reply const> const& defaultReply();

    bool operator==(Reply const& other) const;
    bool operator!=(Reply const& other) const { return !(*this == other); }

protected:
    Reply() = default;
    Reply(Reply const&) = default;
    Reply& operator=(Reply const&) = default;
    virtual bool protectedEquals(Reply const& other) const;

private:
    ZN_SERIALIZABLE()
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation

ZN_SERIALIZATION_TRAITS(foundation::msg_svc::exchange::Reply, 1)
BOOST_CLASS_EXPORT_KEY2(foundation::msg_svc::exchange::Reply,
                        "foundation::msg_svc::exchange::Reply")
