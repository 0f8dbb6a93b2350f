#pragma once
// What the futures of requests report besides the request's own error. Default-constructible and
// copyable, so they travel in boost::exception_ptr (boost::copy_exception). what() gives the
// qualified class name.
//  - AlreadyCancelledException: a second cancel of one request, or a request discarded before
//    it ran to its end.
//  - WrongThreadException: a wait that could never end on the calling thread.
#include <boost/exception_ptr.hpp>

#include <exception>

namespace cmddistributor {

class FutureException : public std::exception {
public:
    char const* what() const noexcept override { return "cmddistributor::FutureException"; }
};

class AlreadyCancelledException : public FutureException {
public:
    char const* what() const noexcept override {
        return "cmddistributor::AlreadyCancelledException";
    }
};

class WrongThreadException : public FutureException {
public:
    char const* what() const noexcept override { return "cmddistributor::WrongThreadException"; }
};

// One AlreadyCancelledException for every discarded request, made once: each copy made with
// boost::copy_exception would cost a thrown exception.
boost::exception_ptr const& alreadyCancelledExceptionPtr();

} // namespace cmddistributor
