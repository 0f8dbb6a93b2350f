#pragma once
// WatchToken: a live view of a subscription count, for publishers that ask before they publish.
#include <cstdint>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

class WatchToken {
public:
    virtual ~WatchToken();
    virtual bool hasSubscriptions() const = 0;
    virtual std::uint64_t getSubscriptionCount() const = 0;
};

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation
