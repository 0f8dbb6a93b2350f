#pragma once
// IqmStreamID: the input stream a packet belongs to. Passed through; -2 marks "unset".
#include <cstdint>

namespace cmddistributor {

enum IqmStreamID : std::int32_t { UnsetIqmStreamID = -2, DefaultIqmStreamID = 0 };

} // namespace cmddistributor
