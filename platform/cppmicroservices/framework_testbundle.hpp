#pragma once
// The service interface of the framework tests' bundle.
#include <cppmicroservices/serviceinterface.hpp>

#include <string>

struct TestGreeter {
    virtual ~TestGreeter() = default;
    virtual std::string greet() const = 0;
};

CPPMICROSERVICES_DECLARE_SERVICE_INTERFACE(TestGreeter, "test::TestGreeter")

// An interface that never declared its identity.
struct UndeclaredService {
    virtual ~UndeclaredService() = default;
};
