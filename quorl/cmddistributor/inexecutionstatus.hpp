#pragma once
// inExecutionStatus: how the interpreter side ended a packet. A plain 32-bit value that travels
// as an int in every serialized form; 0 is success, and any other value always travels inside a
// cmddistributor::RuntimeException. Values outside the named ones are kept as they are.
#include <cstdint>

namespace quorl {
namespace cmddistributor {

enum inExecutionStatus : std::int32_t {
    // The packet ran to its end without an error.
    ExecutionSuccess = 0,
    // The code of the packet could not be parsed; nothing of it ran.
    ExecutionSyntaxError = 1,
    // The packet raised an error while it ran. Also the status of an error made before its
    // contents are known (an exception about to be read from an archive, a failed conversion).
    ExecutionError = 2,
    // The interpreter stopped the packet without an error of the packet's own.
    ExecutionAborted = 3,
    // The packet was interrupted by a cancel; request tracking answers a pending cancel apart
    // for this status.
    ExecutionInterrupted = 4,
    // The exchange between client and interpreter failed before the packet ended.
    ExecutionCommunicationError = 5
};

} // namespace cmddistributor
} // namespace quorl
