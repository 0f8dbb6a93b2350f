#pragma once
// PacketInterrupted: thrown at a safe point of a running packet that a cancel with interrupt
// reached. It unwinds the packet's runner; the interpreter turns it into a completion of
// execution status 4. Runners must let it pass (or rethrow it). Thrown on interpreter threads only.
#include <stdexcept>

namespace quorl {
namespace host {

class PacketInterrupted : public std::runtime_error {
public:
    PacketInterrupted() : std::runtime_error("the packet was interrupted.") {}
};

} // namespace host
} // namespace quorl
