#pragma once
// The interface of an error meant for a user: a message in narrow and 16-bit form and a
// message identifier. Implementations are immutable after construction and may be read from
// any thread.
#include <fl/i18n/ustring.hpp>

#include <string>

namespace foundation {
namespace core {
namespace except {

class IUserException {
public:
    virtual ~IUserException();
    // The message as UTF-8.
    virtual std::string GetMessageTxt() const = 0;
    virtual ustring GetUnicodeMessageTxt() const = 0;
    // The message identifier, such as "quorl:component:what"; may be empty.
    virtual std::string GetID() const = 0;
};

} // namespace except
} // namespace core
} // namespace foundation
