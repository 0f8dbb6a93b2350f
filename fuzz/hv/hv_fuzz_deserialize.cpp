// libFuzzer target: hvDeserialize on arbitrary bytes. Bytes that read back must serialize again,
// and that form must be stable under a second round trip.
#include "fuzzclasses.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

HvArrayPtr reread(const hvArray* bytes) {
    return HvArrayPtr(hvDeserialize(hvGetReadOnlyData(bytes), hvGetNumberOfElements(bytes)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    hvfuzz::registerClasses();
    HvArrayPtr array;
    try {
        array.reset(hvDeserialize(data, size));
    } catch (const std::runtime_error&) {
        return 0;
    }
    HvArrayPtr once(hvSerialize(array.get()));
    HvArrayPtr back = reread(once.get());
    HvArrayPtr twice(hvSerialize(back.get()));
    std::size_t n = hvGetNumberOfElements(once.get());
    if (n != hvGetNumberOfElements(twice.get()) ||
        std::memcmp(hvGetReadOnlyData(once.get()), hvGetReadOnlyData(twice.get()), n) != 0) {
        std::abort();
    }
    return 0;
}
