#pragma once
// StreamTypeEnum: which of the two output streams a piece of text belongs to. Written as a
// 32-bit integer wherever it crosses an exchange.
#include <cstdint>

namespace quorl {
namespace io {

enum StreamTypeEnum : std::int32_t { OutputStream = 0, ErrorStream = 1 };

} // namespace io
} // namespace quorl
