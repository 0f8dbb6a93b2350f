#pragma once
// WhenToDequeue: when the interpreter takes a packet from its queue. The library passes the
// value through; its meaning belongs to the receiver of the enqueue message (the reference host
// runs 1 and 3 in order of arrival; see quorl/host/). Packaged tasks use 1; an enqueue message of a
// version without the field reads as 3.
#include <cstdint>

namespace quorl {
namespace cmddistributor {
namespace WhenToDequeue {

enum WhenToDequeue : std::int32_t {
    DequeueDefault = 0,
    DequeueWhenIdle = 1,
    DequeueAtPrompt = 2,
    DequeueLegacy = 3,
};

} // namespace WhenToDequeue
} // namespace cmddistributor
} // namespace quorl
