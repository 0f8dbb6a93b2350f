#pragma once
// The identity of a service interface: services are registered and looked up under a string that
// the interface declares with CPPMICROSERVICES_DECLARE_SERVICE_INTERFACE. An interface without
// one has the empty identity, which the registry rejects. Constant data; any thread.
#include <string>

namespace cppmicroservices {

template <class T> const std::string& us_service_interface_iid() {
    static const std::string none;
    return none;
}

} // namespace cppmicroservices

// Declares the identity of a service interface; use at global scope after the class.
#define CPPMICROSERVICES_DECLARE_SERVICE_INTERFACE(Type, Id)                                       \
    namespace cppmicroservices {                                                                   \
    template <> inline const std::string& us_service_interface_iid<Type>() {                       \
        static const std::string iid(Id);                                                          \
        return iid;                                                                                \
    }                                                                                              \
    }
