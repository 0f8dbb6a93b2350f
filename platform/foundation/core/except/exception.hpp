#pragma once
// Exception<Interface, Base, Extra>: the exception base of the platform. It combines an
// interface (IUserException) with a standard exception base (std::exception), holds a message
// identifier and a 16-bit message, and gives what() as the UTF-8 form of the message.
//
// Copies share nothing mutable except the lazily built what() text, which is published once
// through an atomic pointer, so what() may be called from several threads at once.
// Construction never throws on bad text: invalid sequences are left out of the converted form.
#include <foundation/core/except/iuserexception.hpp>

#include <atomic>
#include <exception>
#include <memory>
#include <string>

namespace foundation {
namespace core {
namespace except {

namespace detail {
std::string narrowLenient(ustring const& text);
ustring widenLenient(std::string const& text);
} // namespace detail

template <class Interface, class Base, class Extra> class Exception;

template <>
class Exception<IUserException, std::exception, void> : public IUserException,
                                                        public std::exception {
public:
    Exception() = default;
    Exception(std::string id, ustring message) : id_(std::move(id)), message_(std::move(message)) {}
    Exception(std::string id, std::string const& message)
        : id_(std::move(id)), message_(detail::widenLenient(message)) {}
    Exception(Exception const& other) : id_(other.id_), message_(other.message_) {}
    Exception& operator=(Exception const& other) {
        id_ = other.id_;
        message_ = other.message_;
        whatText_.reset();
        return *this;
    }
    ~Exception() override = default;

    char const* what() const noexcept override {
        std::shared_ptr<std::string const> text = std::atomic_load(&whatText_);
        if (!text) {
            try {
                text = std::make_shared<std::string const>(GetMessageTxt());
            } catch (...) {
                return "exception (message unavailable)";
            }
            std::shared_ptr<std::string const> expected;
            if (!std::atomic_compare_exchange_strong(&whatText_, &expected, text))
                text = expected;
        }
        return text->c_str();
    }

    std::string GetMessageTxt() const override { return convert_str(GetUnicodeMessageTxt()); }
    std::string GetID() const override { return id_; }
    ustring GetUnicodeMessageTxt() const override { return message_; }

protected:
    // Narrow to 16-bit and back, leniently: never throws on malformed text.
    virtual ustring convert_str(std::string const& text) const {
        return detail::widenLenient(text);
    }
    virtual std::string convert_str(ustring const& text) const {
        return detail::narrowLenient(text);
    }
    // The whole error as one text: the identifier (if any) and the message.
    virtual ustring ToUstringImpl() const {
        ustring id = convert_str(GetID());
        return id.empty() ? GetUnicodeMessageTxt() : id + u": " + GetUnicodeMessageTxt();
    }

public:
    ustring ToUstring() const { return ToUstringImpl(); }

private:
    std::string id_;
    ustring message_;
    mutable std::shared_ptr<std::string const> whatText_; // set once, by atomic exchange
};

typedef Exception<IUserException, std::exception, void> UserException;

} // namespace except
} // namespace core
} // namespace foundation
