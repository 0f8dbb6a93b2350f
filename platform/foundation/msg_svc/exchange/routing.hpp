#pragma once
// Routing: what the exchange tells a message about its delivery (where it came from, which
// queue it arrived on). Messages only pass it on.
#include <string>

namespace foundation {
namespace msg_svc {
namespace exchange {

class Routing {
public:
    Routing(std::string source, std::string queue)
        : source_(std::move(source)), queue_(std::move(queue)) {}
    // The name of the exchange that sent the message.
    std::string const& source() const { return source_; }
    std::string const& queue() const { return queue_; }

private:
    std::string source_;
    std::string queue_;
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
