#pragma once
// cppmicroservices::ServiceException: a misuse of the service registry, such as a service
// interface without an identity. A std::runtime_error with a fixed English text.
#include <stdexcept>
#include <string>

namespace cppmicroservices {

class ServiceException : public std::runtime_error {
public:
    explicit ServiceException(const std::string& msg) : std::runtime_error(msg) {}
};

} // namespace cppmicroservices
