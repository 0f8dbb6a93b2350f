#pragma once
// Address: where a message goes, an exchange name and a queue name. Plain value.
//
// Queues of one's own exchange: SpecializedQueues::noqueue() delivers in order of sending on
// the delivery thread; SpecializedQueues::unordered() delivers at once on a lane of its own, so
// it may overtake queued work and block on replies. A queue named after a registered actor
// service delivers to that actor. Any other name is an ordered queue like noqueue().
#include <string>

namespace foundation {
namespace msg_svc {
namespace exchange {

class Address {
public:
    Address(std::string exchange, std::string queue)
        : exchange_(std::move(exchange)), queue_(std::move(queue)) {}

    std::string const& exchange() const { return exchange_; }
    std::string const& queue() const { return queue_; }

    bool operator==(Address const& o) const {
        return exchange_ == o.exchange_ && queue_ == o.queue_;
    }

    struct SpecializedQueues {
        static std::string const& noqueue();
        static std::string const& unordered();
    };

private:
    std::string exchange_;
    std::string queue_;
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
